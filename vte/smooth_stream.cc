// Smooth Streaming sessions: fragment requests, restarts on seeks, and the
// monitor process that supervises the transcoder.
#include "vte/smooth_stream.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>

#include "platform/fixed_waits.h"
#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "vte/monitor_loop.h"
#include "vte/session_tree.h"
#include "vte/transcoder_process.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {

volatile sig_atomic_t gSSSignal = 0;
int gPidSSFFMPEG = 0;

namespace {

constexpr char kLogTag[] = "smooth_stream";

constexpr char kSeekTimeFile[] = "seek_time";
constexpr char kManifestFile[] = "manifest_predict";
constexpr char kFragmentDir[] = "smooth";
constexpr char kVideoMarker[] = "video=";
constexpr char kAudioMarker[] = "audio=";

// Smooth Streaming times are in 100-nanosecond units.
constexpr long long kUnitsPerSecond = 10000000LL;
constexpr long long kFragmentUnits = 5 * kUnitsPerSecond;
constexpr char kFragmentSeconds[] = "5";
// How far beyond the newest fragment a request may lie before it is taken
// for a seek: waiting for the running transcoder would take longer than
// starting one there.
constexpr long long kSeekDistance = 50 * kUnitsPerSecond;
constexpr int kReadTries = 60;
constexpr unsigned long kIdleSeconds = 900;
// How long an interrupted transcoder may take to finish its fragment; less
// than a restart waits for the monitor it replaces.
constexpr int kStopGraceMs = 3000;
// Fragment names are read through a 128-byte buffer, as they always have
// been: a longer name is read as cut there.
constexpr size_t kFragmentNameLimit = 127;

// Client-supplied times can be anything strtoll yields.
long long SaturatingAdd(long long a, long long b) {
  long long sum;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return b > 0 ? std::numeric_limits<long long>::max() : std::numeric_limits<long long>::min();
}

long long ParseTime(const std::string& time) {
  return time.empty() ? 0 : strtoll(time.c_str(), nullptr, 10);
}

// The largest time among the fragments of `dir` named "Fragments(<type>N)";
// false when the directory cannot be read, `found` false when none is there.
bool NewestFragment(const std::string& dir, const std::string& type, long long& newest,
                    bool& found) {
  DIR* listing = opendir(dir.c_str());
  if (listing == nullptr) return false;
  const std::string marker = "Fragments(" + type;
  found = false;
  while (const dirent* entry = readdir(listing)) {
    const std::string name = entry->d_name;
    const size_t start = name.find(marker);
    if (start == std::string::npos) continue;
    const size_t number = start + marker.size();
    const size_t close = name.find(')', number);
    if (close == std::string::npos) continue;
    const long long time = ParseTime(name.substr(number, close - number));
    if (!found || time > newest) newest = time;
    found = true;
  }
  closedir(listing);
  return true;
}

// Whether joining `fragmentId` to a directory stays inside it: every part a
// plain name, no "." or "..", no empty part (a leading "/" makes one).
bool IsPlainRelativePath(const std::string& fragmentId) {
  if (fragmentId.find('\0') != std::string::npos) return false;
  size_t start = 0;
  while (true) {
    const size_t end = fragmentId.find('/', start);
    const std::string part = fragmentId.substr(start, end - start);
    if (part.empty() || part == "." || part == "..") return false;
    if (end == std::string::npos) return true;
    start = end + 1;
  }
}

// The session directory as the transcoder must see it: the volume directory
// the session link points to (the transcoder runs as root and writes there
// directly), or "" when the link is broken or not the library's.
std::string FragmentOutput(const std::string& type, const std::string& id) {
  const session::Entry entry = session::Inspect(type, id);
  if (!session::Usable(entry) || entry.dir.empty()) return "";
  return entry.dir + "/" + kFragmentDir;
}

// Waits until the monitor has recorded itself (or died): its end of the
// pipe closes. SaveMonitorPid gives an old monitor five seconds to go, so
// this waits a little longer.
void WaitForMonitor(int fd) {
  constexpr int kRecordWaitMs = 8000;
  struct pollfd closed = {fd, POLLIN, 0};
  int ready;
  do {
    ready = poll(&closed, 1, kRecordWaitMs);
  } while (ready < 0 && errno == EINTR);
}

// Whether the fragment file holds whole boxes end to end (its moof and its
// mdat): a write cut short by a full volume leaves the last one short. A
// file that is not there is not judged here.
bool CutFragment(const std::string& path) {
  FILE* file = fopen(path.c_str(), "re");
  if (file == nullptr) return false;
  struct stat info;
  bool whole = fstat(fileno(file), &info) == 0 && info.st_size > 0;
  for (off_t at = 0; whole && at < info.st_size;) {
    unsigned char head[16];
    whole = fseeko(file, at, SEEK_SET) == 0 && fread(head, 1, 8, file) == 8;
    unsigned long long size = 0;
    for (int i = 0; i < 4; ++i) size = size << 8 | head[i];
    if (whole && size == 1) {
      // A 64-bit size follows the type.
      whole = fread(head + 8, 1, 8, file) == 8;
      size = 0;
      for (int i = 8; i < 16; ++i) size = size << 8 | head[i];
    } else if (size == 0) {
      size = static_cast<unsigned long long>(info.st_size - at);  // to the end of the file
    }
    whole = whole && size >= 8 && size <= static_cast<unsigned long long>(info.st_size - at);
    at += static_cast<off_t>(size);
  }
  fclose(file);
  return !whole;
}

// A source turned a quarter by its rotation plays upright in portrait (the
// transcoder turns the picture as it decodes), while every predicted frame
// is landscape: the picture is fitted in with bars, scaled by its display
// aspect and centred, rather than stretched to the frame.
std::string FitWithBars(const std::string& width, const std::string& height) {
  const std::string wider = "gt(dar," + width + "/" + height + ")";
  return "scale=w='if(" + wider + "," + width + ",2*trunc(" + height + "*dar/2))'" +
         ":h='if(" + wider + ",2*trunc(" + width + "/dar/2)," + height + ")'" + ",pad=" + width +
         ":" + height + ":-1:-1";
}

monitor::Children MonitorChildren() {
  return {&gPidSSFFMPEG, nullptr, true, kStopGraceMs, kLogTag};
}

}  // namespace

SmoothStream::SmoothStream(const std::string& streamId)
    : AdaptStream(streamId, "SS"), profileKey(metadata_.GetProfileKey()), seekTime(0) {}

SmoothStream::~SmoothStream() = default;

bool SmoothStream::Init(const Json::Value& params, const Json::Value& extra,
                        const std::string& audioId, const std::string& text) {
  try {
    if (!InitAdaptStream(params, audioId)) {
      RemoveTransDir();
      return false;
    }
    if (!Predict_Manifest(params)) {
      ORVO_LOG(LOG_ERR, "Failed to predect manifest for smooth streaming");
      RemoveTransDir();
      return false;
    }
    return true;
  } catch (const std::exception&) {
    RemoveTransDir();
    return false;
  }
}

std::string SmoothStream::GetMainfest() { return GetVTEFileFullPath(kManifestFile); }

bool SmoothStream::ParseFragId(const std::string& fragmentId, std::string& time,
                               std::string& type, std::string& quality) const {
  const std::vector<std::string> parts = StringExplode(fragmentId, "/");
  if (parts.size() != 2) return false;
  quality = parts[0];
  const std::string name = parts[1].substr(0, kFragmentNameLimit);
  // Audio is tested last, so a name with both markers counts as audio.
  for (const char* marker : {kVideoMarker, kAudioMarker}) {
    const size_t start = name.find(marker);
    if (start == std::string::npos) continue;
    const size_t number = start + std::string(marker).size();
    const size_t close = name.find(')', number);
    if (close == std::string::npos) continue;
    time = name.substr(number, close - number);
    type = marker;
  }
  return true;
}

long SmoothStream::CalculateSeekTime(const std::string& fragmentId) const {
  std::string time;
  std::string type;
  std::string quality;
  ParseFragId(fragmentId, time, type, quality);
  const long seconds = static_cast<long>(ParseTime(time) / kUnitsPerSecond);
  SaveFile(GetVTEFileFullPath(kSeekTimeFile), std::to_string(seconds));
  return seconds;
}

bool SmoothStream::IsNeedToSeek(const std::string& fragmentId) const {
  if (streamId_.empty() || fragmentId.empty()) return false;
  std::string time;
  std::string type;
  std::string quality;
  ParseFragId(fragmentId, time, type, quality);
  const long long requested = ParseTime(time);

  const std::string started = ReadFile(GetVTEFileFullPath(kSeekTimeFile));
  // seek_time holds whole seconds written by CalculateSeekTime, well within
  // range once scaled.
  const long long runStart = started.empty() ? 0 : ParseTime(started) * kUnitsPerSecond;
  if (!started.empty() && runStart == requested) return false;
  if (started.empty() && requested == 0) return true;

  long long newest = runStart;
  bool found = false;
  if (!NewestFragment(GetVTEFileFullPath(std::string(kFragmentDir) + "/" + quality), type, newest,
                      found) ||
      !found) {
    newest = runStart;
  }
  return requested > SaturatingAdd(newest, kSeekDistance) || requested < runStart;
}

bool SmoothStream::VerifyFragmentIsReady(const std::string& fragmentId,
                                         unsigned int fragmentsAhead) const {
  if (streamId_.empty() || fragmentId.empty()) return false;
  // Once the transcoder has ended, what exists is all there will be.
  if (!IsFFmpegRun()) return true;
  std::string time;
  std::string type;
  std::string quality;
  ParseFragId(fragmentId, time, type, quality);
  const long long requested = ParseTime(time);
  // Not a fragment boundary of this transcoder: nothing to wait for.
  if (requested % kFragmentUnits != 0) return true;

  // The transcoder writes fragments whole, in order: one is complete once a
  // later one has been started.
  const long long target =
      SaturatingAdd(requested, (static_cast<long long>(fragmentsAhead) + 1) * kFragmentUnits);
  long long newest = 0;
  bool found = false;
  if (!NewestFragment(GetVTEFileFullPath(std::string(kFragmentDir) + "/" + quality), type, newest,
                      found)) {
    return false;
  }
  return found && newest >= target;
}

std::string SmoothStream::ReadFragment(const std::string& fragmentId) {
  if (streamId_.empty() || type_.empty() || profileArgs_.empty() || fragmentId.empty() ||
      !IsPlainRelativePath(fragmentId)) {
    ORVO_LOG(LOG_ERR, "Bad parameter");
    return "";
  }
  // A restart begun by another request (one killed since, say) may still be
  // starting its monitor; the run before it is no account of what comes.
  WaitForStartTurn();
  for (int tries = 0; !VerifyFragmentIsReady(fragmentId, 0); ++tries) {
    if (IsClosed()) return "";
    if (tries + 1 == kReadTries) {
      ORVO_LOG(LOG_ERR, "ReadFragment: timeout file[%s]", fragmentId.c_str());
      return "";
    }
    librh::waits::Sleep(1);
  }
  // Once the session is closed no fragment of it is served.
  const std::string path =
      IsClosed() ? "" : GetVTEFileFullPath(std::string(kFragmentDir) + "/" + fragmentId);
  if (!path.empty() && CutFragment(path)) {
    // It never becomes whole; gone, it is transcoded again when asked for.
    ORVO_LOG(LOG_ERR, "ReadFragment: cut fragment removed file[%s]", fragmentId.c_str());
    unlink(path.c_str());
    return "";
  }
  return path;
}

bool SmoothStream::Transcoding(const std::string& fragmentId) {
  try {
    // An id that ReadFragment will refuse restarts nothing.
    if (streamId_.empty() || type_.empty() || profileArgs_.empty() || fragmentId.empty() ||
        !IsPlainRelativePath(fragmentId) || metadata_.GetVideoRatio() <= 0) {
      return false;
    }
    // Audio follows whatever video run the player is in; restarting for it
    // would throw away the video the player is fetching meanwhile.
    if (fragmentId.find("audio") != std::string::npos) return true;
    const std::string fragmentFile =
        GetVTEFileFullPath(std::string(kFragmentDir) + "/" + fragmentId);
    // A stream no run has started yet has none to write what is asked for,
    // wherever the request lands (a player resuming at 30 s asks there first).
    const auto neverStarted = [this] {
      return ReadFile(GetVTEFileFullPath(kSeekTimeFile)).empty() && !IsFFmpegRun();
    };
    if (!IsNeedToSeek(fragmentId) && !IsStartAbandoned(fragmentFile) && !neverStarted()) {
      return true;
    }

    // Restarts take turns; this request keeps its turn until its monitor
    // has recorded itself.
    const int turn = TakeStartLock();
    if (turn < 0) {
      ORVO_LOG(LOG_ERR, "Another restart of stream [%s] is still pending", streamId_.c_str());
      return false;
    }
    // The restart that had the turn before may have started what this
    // request needs.
    const bool started = !IsNeedToSeek(fragmentId) && !NoRunWillWrite(fragmentFile);
    int recorded[2] = {-1, -1};
    int forked = -1;
    if (!started) {
      seekTime = CalculateSeekTime(fragmentId);
      // find reports a failure when it cannot descend into the directory it
      // has just removed; what matters is that the old fragments are gone.
      const bool cleared =
          SeekingHandler() || !VerifyFileExist(GetVTEFileFullPath(kFragmentDir), 0);
      // Until the new monitor has recorded itself, "monitor.pid" still names
      // the one just ended, and the ReadFragment that follows in this
      // request would take the run for finished and serve a fragment not yet
      // written.
      if (cleared && pipe2(recorded, O_CLOEXEC) == 0) forked = OLIBCProcForkChildNoWait();
    }
    if (forked != 0) {
      if (recorded[1] >= 0) close(recorded[1]);
      if (forked == 1) WaitForMonitor(recorded[0]);
      if (recorded[0] >= 0) close(recorded[0]);
      close(turn);
      return started || forked == 1;
    }

    // The monitor: a detached process of its own, which outlives this
    // request.
    close(recorded[0]);
    transcoder::DetachFromCaller(recorded[1]);
    gPidSSFFMPEG = 0;
    gSSSignal = 0;
    signal(SIGINT, MointerSignalHandler);
    signal(SIGTERM, MointerSignalHandler);
    const bool saved = SaveMonitorPid(getpid(), true);
    close(recorded[1]);
    if (saved) {
      ExecuteMointer(fragmentId);
      transcoder::ForgetMonitor(*this);
    }
    // _exit: the exit handlers belong to the request this was forked from.
    _exit(0);
  } catch (const std::exception&) {
    return false;
  }
}

std::vector<std::string> SmoothStream::CalculateFFmpegArgument() const {
  std::vector<std::string> arguments;
  if (profileArgs_.empty() || metadata_.GetVideoRatio() <= 0) return arguments;
  std::string fit;
  long filters = -1;  // the index of the profile's video filter chain
  bool sizeNext = false;
  for (const std::string& token : StringExplode(profileArgs_, " \n")) {
    if (sizeNext) {
      // The profile names a height key; the picture gets the predicted size
      // so that the stream matches the manifest's parameter sets.
      std::string width;
      std::string height;
      std::string size;
      GetTransResolution(token, width, height, size);
      if (size.empty()) {
        ORVO_LOG(LOG_ERR, "Failed to calculate transcoding resolution");
        return arguments;
      }
      arguments.push_back(size);
      const unsigned int rotation = GetMetaVideoRotate();
      if (rotation == 90 || rotation == 270) fit = FitWithBars(width, height);
    } else {
      if (!arguments.empty() && arguments.back() == "-vf") {
        filters = static_cast<long>(arguments.size());
      }
      arguments.push_back(token);
    }
    sizeNext = token == "-s";
  }
  // The fit first: the profile's own filters work on the frame it makes.
  if (!fit.empty() && filters >= 0) {
    arguments[filters] = fit + "," + arguments[filters];
  } else if (!fit.empty()) {
    arguments.insert(arguments.end(), {"-vf", fit});
  }
  arguments.insert(arguments.end(),
                   {"-fragment_length", kFragmentSeconds, "-seek_time", std::to_string(seekTime)});
  if (hardware_) arguments.insert(arguments.end(), {"-filled", "1"});
  return arguments;
}

void SmoothStream::ExecuteMointer(const std::string& fragmentId) {
  if (streamId_.empty() || profileArgs_.empty() || fragmentId.empty()) return;
  gPidSSFFMPEG = 0;
  const std::vector<std::string> arguments = CalculateFFmpegArgument();
  if (seekTime >= 0 && !arguments.empty()) {
    const std::string output = FragmentOutput(type_, streamId_);
    const std::string program = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
    const pid_t monitorPid = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
      transcoder::DieWithMonitor(monitorPid);
      signal(SIGINT, SIG_DFL);
      signal(SIGTERM, SIG_DFL);
      ExecuteTranscoding(seekTime, hardware_, arguments, output, program);
      _exit(1);
    }
    if (pid > 0) gPidSSFFMPEG = pid;
  }

  bool idle = false;
  monitor::Supervise(MonitorChildren(), gSSSignal, [this, &idle] {
    if (!VTEIsTimeout(kIdleSeconds)) return false;
    ORVO_LOG(LOG_ERR, "time out for access [%d seconds]", static_cast<int>(kIdleSeconds));
    idle = true;
    return true;
  });
  WaitAllChild();
  // Only once the transcoder has stopped writing into it.
  if (idle) RemoveTransDir();
}

void SmoothStream::WaitAllChild() { monitor::Stop(MonitorChildren()); }

void SmoothStream::MointerSignalHandler(int) { gSSSignal = 1; }

}  // namespace LibOrvoVTE
