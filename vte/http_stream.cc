#include "vte/http_stream.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "platform/fixed_waits.h"
#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/run_as.h"
#include "vte/session_tree.h"
#include "vte/utils/recorded_process.h"
#include "vte/utils/trans_loading.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

constexpr char kLogTag[] = "http_stream";

// Clients match on this code.

constexpr char kMonitorPidFile[] = "monitor.pid";
constexpr char kAudioIdFile[] = "audio_id";
// The platform's own tool, not a machine path resolved under the root.
constexpr char kNullDevice[] = "/dev/null";

// A wmv2 profile writes ASF, which does not keep copied timestamps.
constexpr char kWmv2Marker[] = "wmv2";

// The player has asked for this stream and waits on the request meanwhile,
// so the slot wait stays about a minute.
constexpr int kSlotAttempts = 60;
// Line numbers that operators match on.
constexpr int kSlotRefusedLine = 60;

// A transcoder replaced by a new run of its stream may be blocked writing to
// a reader that went away, deaf to TERM: it is killed after this long.
constexpr int kReplacedGraceMs = 3000;
constexpr int kKilledWaitMs = 1000;

// Longer than the transcoder ever stays silent while it works (its start-up
// and a seek included), short enough for a player not to give up first.
constexpr time_t kReadTimeoutSeconds = 30;

bool WaitForTranscodingSlot(bool hardware) {
  for (int attempt = 0; attempt < kSlotAttempts; ++attempt) {
    {
      // Released before the sleep, so the slot holders can leave meanwhile.
      LibReelhall::TransLoading registry;
      if (registry.TransEnable(hardware)) return true;
    }
    librh::waits::Sleep(1);
  }
  return false;
}

// Ends the transcoder the session records, and gives back its slot in the
// load registry. With a grace, it has ended when this returns (TERM, then
// KILL once the grace is over); without, it is only sent TERM.
void EndRecordedTranscoder(const std::string& pidFile, int graceMs) {
  // A pid that another process has taken since the transcoder ended is
  // neither signalled nor unregistered.
  const RecordedProcess transcoder(pidFile);
  if (!transcoder.IsRecorded()) return;
  // The transcoder runs as root: a caller that keeps root saved raises to
  // signal it.
  uid_t real = 0, effective = 0, saved = 0;
  const bool raise = getresuid(&real, &effective, &saved) == 0 && effective != 0 && saved == 0;
  const auto signal = [&](int number) {
    const auto send = [&] { return transcoder.Signal(number); };
    return raise ? librh::DoActionAsRoot("Signal transcoder", send) : send();
  };
  signal(SIGTERM);
  if (graceMs > 0 && !transcoder.WaitForEnd(graceMs)) {
    signal(SIGKILL);
    transcoder.WaitForEnd(kKilledWaitMs);
  }
  LibReelhall::TransLoading registry;
  registry.RemoveTransPIDLock(transcoder.Pid());
}

void CloseIfOpen(int descriptor) {
  if (descriptor >= 0) close(descriptor);
}

// In the first child: the transcoder must not write to the caller's
// terminal or log, nor read its input.
void RedirectStandardStreams() {
  // Inheritable on purpose: where it lands on 0, 1 or 2 it stays a standard
  // stream of the transcoder.
  const int null = open(kNullDevice, O_RDWR);
  if (null < 0) return;
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  dup2(null, STDERR_FILENO);
  if (null > STDERR_FILENO) close(null);
}

}  // namespace

namespace progressive {

int TransBitRate(const std::string& profileKey) {
  if (profileKey.empty()) return -1;
  const std::vector<std::string> tokens = StringExplode(profileKey, "_\n");
  if (tokens.empty()) return -1;
  long video = -1;
  long audio = -1;
  for (const std::string& token : tokens) {
    if (token.compare(0, 2, "vb") == 0) {
      video = strtol(token.c_str() + 2, nullptr, 10);
    } else if (token.compare(0, 2, "ab") == 0) {
      audio = strtol(token.c_str() + 2, nullptr, 10);
    }
  }
  if (video == -1 || audio == -1) return -1;
  // Audio counts twice and kilo is 1024: the size announced as
  // Content-Length must not be shorter than what the transcoder writes.
  return static_cast<int>((video + 2 * audio) * 1024);
}

unsigned long long PredictSize(int bitRate, unsigned int durationSeconds) {
  const float duration = static_cast<float>(durationSeconds);
  if (duration <= 0 || bitRate == -1) return 0;
  // Single precision, as clients have always been told.
  const float bytes = static_cast<float>(bitRate) * duration * 0.125f;
  return static_cast<unsigned long long>(bytes);
}

long long ByteOffsetToSeconds(long long byteOffset, int bitRate) {
  if (bitRate < 1) return -1;
  return byteOffset * 8 / bitRate;
}

bool ScaleResolution(float ratio, const std::string& requested, std::string& result) {
  result = requested;
  if (requested.empty()) return false;
  if (ratio <= 0) return false;
  int height;
  if (requested == "hd480") {
    height = 480;
  } else if (requested == "hd720") {
    height = 720;
  } else {
    return true;
  }
  // Rounded up to a multiple of 10 so the encoder never gets a width below
  // the aspect; the product stays in single precision (1.7778 gives 1290).
  const float exactWidth = ratio * static_cast<float>(height);
  const int width = static_cast<int>(std::ceil(exactWidth / 10.0) * 10);
  char size[64];
  snprintf(size, sizeof(size), "%dx%d", width, height);
  result = size;
  return true;
}

}  // namespace progressive

DirectStream::DirectStream(const std::string& streamId, const std::string& format)
    : VTEStream(streamId, format), fd(-1) {}

DirectStream::~DirectStream() = default;

bool DirectStream::Close() { return CloseStreamCommon(); }

HttpStream::HttpStream(const std::string& streamId)
    : DirectStream(streamId, "HTTP"),
      isWmv2(profileArgs_.find(kWmv2Marker) != std::string::npos) {}

HttpStream::~HttpStream() = default;

unsigned int HttpStream::GetMetaVideoRotate() const { return 0; }

bool HttpStream::Init(const std::string& audioId) {
  try {
    if (streamId_ == kTransSpaceNotEnough) {
      SetError(kTransSpaceNotEnough);
      RemoveTransDir();
      return false;
    }
    if (streamId_.empty() || type_.empty() || profileArgs_.empty() ||
        !VerifyFileExist(GetVTEFileFullPath(""), 0)) {
      RemoveTransDir();
      return false;
    }
    // A new run of the stream (a seek) replaces the one still going, whose
    // slot would otherwise refuse it.
    EndRecordedTranscoder(GetVTEFileFullPath(kMonitorPidFile), kReplacedGraceMs);
    if (!WaitForTranscodingSlot(hardware_)) {
      librh::log::Write(LOG_ERR, kLogTag, kSlotRefusedLine,
                        "HTTP Transcoding Init Failed: There is another app using video "
                        "transcoding");
      SetError(kErrTransEnable);
      RemoveTransDir();
      return false;
    }
    if (!audioId.empty()) {
      const std::string file = GetVTEFileFullPath(kAudioIdFile);
      if (!SaveFile(file, audioId)) {
        ORVO_LOG(LOG_ERR, "Failed to save audio ID [%s] in [%s]", audioId.c_str(), file.c_str());
        RemoveTransDir();
        return false;
      }
    }
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool HttpStream::Transcoding(const std::string& transcoderPath, unsigned long startSeconds) {
  if (streamId_.empty() || transcoderPath.empty()) return false;
  // Everything the grandchild needs is prepared here, in the caller's
  // process; the children below never return into the caller's code.
  std::string pidFile;
  std::vector<std::string> arguments;
  try {
    pidFile = GetVTEFileFullPath(kMonitorPidFile);
    if (!gstreamer_) arguments = CalculateFFmpegArgument();
  } catch (const std::exception&) {
    return false;
  }
  const long seek = static_cast<long>(startSeconds);

  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  const pid_t child = fork();
  if (child < 0) {
    close(ends[0]);
    close(ends[1]);
    return false;
  }
  if (child > 0) {
    close(ends[1]);
    CloseIfOpen(fd);
    fd = ends[0];
    // The first child only forks and exits, so this wait is short; it keeps
    // the caller free of a zombie for the rest of its life.
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return true;
  }

  // First child: exits at once so that the transcoder is adopted away from
  // the caller and nobody has to wait for it.
  close(ends[0]);
  RedirectStandardStreams();
  const pid_t grandchild = fork();
  if (grandchild != 0) {
    close(ends[1]);
    _exit(1);
  }

  // Grandchild: becomes the transcoder, whose pid Close finds in the session.
  if (!RecordProcess(pidFile, getpid())) _exit(1);
  if (gstreamer_) {
    const std::vector<std::string> sink = {"fdsink", "fd=" + std::to_string(ends[1])};
    ExecuteGstreamerTranscoding(seek, sink, transcoderPath, true);
    _exit(1);
  }
  if (arguments.empty()) _exit(1);
  ExecuteTranscoding(seek, !isWmv2, arguments, "pipe:" + std::to_string(ends[1]), transcoderPath);
  _exit(1);
}

int HttpStream::Read(char* buffer, unsigned int length) {
  if (fd == -1) return -1;
  if (fd >= FD_SETSIZE) {
    ORVO_LOG(LOG_ERR, "Select error: %d", EBADF);
    return -1;
  }
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  struct timeval timeout = librh::waits::Timeout(kReadTimeoutSeconds);
  const int ready = select(fd + 1, &readable, nullptr, nullptr, &timeout);
  if (ready < 0) {
    ORVO_LOG(LOG_ERR, "Select error: %d", errno);
    return -1;
  }
  if (ready == 0) {
    ORVO_LOG(LOG_ERR, "Reading streaming data timeout");
    return -1;
  }
  const ssize_t got = read(fd, buffer, length);
  return got > 0 ? static_cast<int>(got) : -1;
}

bool HttpStream::Close() {
  bool closed = false;
  try {
    if (!streamId_.empty()) {
      EndRecordedTranscoder(GetVTEFileFullPath(kMonitorPidFile), 0);
      // Also after a failed Init, which leaves an "HTTP" directory behind.
      if (!GetVTEFileFullPath("").empty()) session::Remove(type_, streamId_);
      closed = true;
    }
  } catch (const std::exception&) {
    closed = false;
  }
  if (fd != -1) {
    close(fd);
    fd = -1;
  }
  return closed;
}

bool HttpStream::VTE_HTTP_SCALE_RESOLUTION(const std::string& requested, std::string& result) {
  try {
    return progressive::ScaleResolution(metadata_.GetVideoRatio(), requested, result);
  } catch (const std::exception&) {
    result = requested;
    return false;
  }
}

int HttpStream::GetTransBitRate() {
  try {
    return progressive::TransBitRate(metadata_.GetProfileKey());
  } catch (const std::exception&) {
    return -1;
  }
}

unsigned long long HttpStream::VTE_HTTP_PredictTransFileSize() {
  if (streamId_.empty()) return 0;
  try {
    return progressive::PredictSize(GetTransBitRate(), metadata_.GetDuration());
  } catch (const std::exception&) {
    return 0;
  }
}

long long HttpStream::ConvertByteRangeToTimeRange(long long byteOffset) {
  if (type_.empty() || profileArgs_.empty()) return -1;
  return progressive::ByteOffsetToSeconds(byteOffset, GetTransBitRate());
}

std::vector<std::string> HttpStream::CalculateFFmpegArgument() const {
  try {
    if (profileArgs_.empty() || metadata_.GetVideoResolutionX() == 0) return {};
    return ForceFFmpegVideoSize(StringExplode(profileArgs_, " \n"), isWmv2);
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace LibOrvoVTE
