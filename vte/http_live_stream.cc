// The HLS stream object, the decision to (re)start its transcoder, and the
// monitor process that owns the transcoder (and on GStreamer platforms the
// segmenter behind it).
#include "vte/http_live_stream.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "decisions/argument_helper.h"
#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "platform/volume.h"
#include "vte/forced_options.h"
#include "vte/hls_playlists.h"
#include "vte/monitor_loop.h"
#include "vte/transcoder_process.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {

volatile sig_atomic_t gHLSSignal = 0;
pid_t gPidHLSTransBin = 0;
pid_t gPidHLSSegBin = 0;

namespace {

constexpr char kLogTag[] = "http_live_stream";

constexpr char kFormat[] = "HLS";
constexpr char kAudioFormatFile[] = "audio_format";
constexpr char kSeekTimeFile[] = "seek_time";
constexpr char kSegmentPattern[] = "slice-%05d.ts";

// Without client access for this long a monitor gives the stream up.
constexpr unsigned long kAccessTimeoutSeconds = 900;
// How long an interrupted transcoder may take to write its last segment.
constexpr int kStopGraceMs = 1000;

// The GStreamer pipeline's muxer does not cut; the segmenter behind it
// always makes 5-second segments, whatever the profile.
constexpr int kSegmenterSeconds = 5;

monitor::Children MonitorChildren(bool remux) {
  return {&gPidHLSTransBin, &gPidHLSSegBin, !remux, kStopGraceMs, kLogTag};
}

void CloseIfOpen(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Called in a freshly forked child of the monitor.
void ResetChildSignals(int devNull) {
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  // A transcoder must not take keystrokes from whatever the web request's
  // stdin was.
  if (devNull >= 0) dup2(devNull, STDIN_FILENO);
}

}  // namespace

HttpLiveStream::HttpLiveStream(const std::string& streamId) : AdaptStream(streamId, kFormat) {}

HttpLiveStream::~HttpLiveStream() = default;

int HttpLiveStream::SegmentLength() const {
  return remux_ ? hls::kRemuxSegmentSeconds : hls::kSegmentSeconds;
}

bool HttpLiveStream::Init(const Json::Value& params, const Json::Value& subtitleParams,
                          const std::string& audioId, const std::string& audioFormat) {
  try {
    if (InitAdaptStream(params, audioId)) {
      subtitle_ = subtitleParams.isObject() && subtitleParams.isMember("subtitle_id");
      const std::string path = metadata_.GetFilePath();
      const std::string formatPath = GetVTEFileFullPath(kAudioFormatFile);
      if (!audioFormat.empty() && !SaveFile(formatPath, audioFormat)) {
        ORVO_LOG(LOG_ERR, "Failed to save audio format [%s] in [%s]", audioFormat.c_str(),
                 formatPath.c_str());
      } else if (subtitle_ && !GenIndexPlaylist(params, subtitleParams)) {
        ORVO_LOG(LOG_ERR, "Failed to generate index m3u8 video playlist for HLS [file path=%s]",
                 path.c_str());
      } else if (subtitle_ && !GenSubtitlePlaylistTpl(subtitleParams)) {
        ORVO_LOG(LOG_ERR, "Failed to generate subtitle m3u8 video playlist for HLS [file path=%s]",
                 path.c_str());
      } else if (!GenVideoPlaylist(params)) {
        ORVO_LOG(LOG_ERR, "Failed to generate video m3u8 playlist for HLS [file path=%s]",
                 path.c_str());
      } else {
        return true;
      }
    }
  } catch (const std::exception&) {
  }
  RemoveTransDir();
  return false;
}

bool HttpLiveStream::EnableHLSHeader() {
  hlsHeader_ = true;
  return true;
}

long HttpLiveStream::CalculateSeekTime(const std::string& fragmentId) const {
  int fragment = 0;
  return ParseFragment(fragmentId, &fragment) ? static_cast<long>(SegmentLength()) * fragment : -1;
}

bool HttpLiveStream::Transcoding(const std::string& fragmentId) {
  int fragment = 0;
  if (streamId_.empty() || type_.empty() || profileArgs_.empty() || fragmentId.empty() ||
      !ParseFragment(fragmentId, &fragment)) {
    return false;
  }
  const std::string segment = GetSegmentTsPath(fragment);
  if (VerifyFileExist(segment, 0) && !SegmentIsWhole(fragment)) ClearCutSegments();
  const bool needed = IsTransAndSegNeedToRestart(fragmentId);
  const bool remuxSeek = !needed && IsHLSRemuxSeek(fragmentId);
  if (!needed && !remuxSeek && !IsStartAbandoned(segment)) return true;
  if (VolumeFull(GetVTEFileFullPath(""))) {
    ORVO_LOG(LOG_ERR, "No space left to transcode stream [%s]", streamId_.c_str());
    return false;
  }

  // Restarts take turns, each holding the start lock until the monitor it
  // forks has recorded itself; a request that dies first lets go of it.
  const int pending = TakeStartLock();
  if (pending < 0) {
    ORVO_LOG(LOG_ERR, "Another restart of stream [%s] is still pending", streamId_.c_str());
    return false;
  }
  // The restart that had the turn before may have started what this request
  // needs.
  if (!remuxSeek && !IsTransAndSegNeedToRestart(fragmentId) && !NoRunWillWrite(segment)) {
    close(pending);
    return true;
  }
  SaveFile(GetVTEFileFullPath(kSeekTimeFile), fragmentId);
  int forked = -1;
  if (WriteSequence().empty()) {
    ORVO_LOG(LOG_ERR, "Failed to generate sequence");
  } else if (SeekingHandler()) {
    forked = OLIBCProcForkChildNoWait();
  }
  if (forked != 0) {
    // The monitor's copy of the lock, if there is a monitor, keeps it held.
    close(pending);
    return forked == 1;
  }

  // The monitor: a copy of this request's process that outlives it, and
  // so must let go of the request's connection and files.
  transcoder::DetachFromCaller(pending);
  gPidHLSTransBin = 0;
  gPidHLSSegBin = 0;
  gHLSSignal = 0;
  signal(SIGINT, MointerSignalHandler);
  signal(SIGTERM, MointerSignalHandler);
  // A newer request may have restarted the stream since this one forked;
  // its monitor is the one to keep.
  const bool newest = CheckSequence() && SaveMonitorPid(getpid(), true);
  close(pending);
  if (newest) {
    ExecuteMointer(fragmentId);
    transcoder::ForgetMonitor(*this);
  }
  // _exit: the exit handlers belong to the web request this was forked from.
  _exit(0);
}

bool HttpLiveStream::IsAACLCAudioCodec() const {
  try {
    const Json::Value track = ArgumentHelper(metadata_).GetAudioTrackInfoByID(GetRequestAudioID());
    return track.isObject() && track["codec"].isString() && track["codec"].asString() == "aac" &&
           track["profile"].isString() && track["profile"].asString() == "LC";
  } catch (const std::exception&) {
    return false;
  }
}

std::vector<std::string> HttpLiveStream::CalculateFFmpegArgument(
    const std::string& fragmentId) const {
  try {
    if (profileArgs_.empty() || fragmentId.empty() || metadata_.GetVideoResolutionX() == 0) {
      return {};
    }
    const std::string audioFormat = ReadFile(GetVTEFileFullPath(kAudioFormatFile));
    std::vector<std::string> args = StringExplode(profileArgs_, " \n");

    const std::string device = metadata_.GetDevice();
    if (audioFormat == "mp3") {
      args = forced::AudioFormat(args, "mp3");
    } else if (IsAACLCAudioCodec()) {
      // HLS carries AAC-LC as it is: no need to re-encode.
      args = forced::AudioFormat(args, "copy");
    } else if (audioFormat == "ac3_copy" &&
               (IsSourceAudioCodec("ac3") || IsSourceAudioCodec("eac3"))) {
      args = forced::AudioFormat(args, "copy");
    } else if (device == "chromecast" || audioFormat == "aac") {
      args = forced::AudioFormat(args, "aac");
    }
    args = ForceFFmpegVideoSize(args, false);

    // Apple TV clients get their segments' timestamps a second later.
    const long seek = seekTime_ + (device == "appletv" ? 1 : 0);
    args.insert(args.end(), {"-segment_format", "mpegts", "-segment_list_type", "m3u8",
                             "-hls_seek_time", std::to_string(seek), "-segment_time",
                             std::to_string(SegmentLength()), "-segment_start_number",
                             fragmentId});
    if (!hlsHeader_) args.insert(args.end(), {"-individual_header_trailer", "0"});
    args.insert(args.end(), {"-avoid_negative_ts", "0", "-break_non_keyframes", "1"});
    return args;
  } catch (const std::exception&) {
    return {};
  }
}

void HttpLiveStream::ExecuteMointer(const std::string& fragmentId) {
  int pipeFds[2] = {-1, -1};
  bool idle = false;
  // Opened here: after fork the children make only async-signal-safe calls
  // until they exec (the monitor has no threads, so what the transcoder's
  // own exec path allocates is safe too).
  int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
  do {
    if (streamId_.empty() || profileArgs_.empty() || fragmentId.empty()) break;
    seekTime_ = CalculateSeekTime(fragmentId);
    if (seekTime_ < 0) break;
    if (gstreamer_ && pipe2(pipeFds, O_CLOEXEC) != 0) break;

    const std::string output = GetVTEFileFullPath(kSegmentPattern);
    std::vector<std::string> args;
    if (gstreamer_) {
      args = {"fdsink", "fd=" + std::to_string(pipeFds[1])};
    } else {
      args = CalculateFFmpegArgument(fragmentId);
      if (args.empty()) break;
    }
    const std::string ffmpeg = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
    const std::string gstLaunch = librh::machine::Resolve(librh::machine::kPackageGstLaunch);

    const pid_t monitorPid = getpid();
    gPidHLSTransBin = fork();
    if (gPidHLSTransBin == 0) {
      transcoder::DieWithMonitor(monitorPid);
      ResetChildSignals(devNull);
      if (gstreamer_) {
        close(pipeFds[0]);
        ExecuteGstreamerTranscoding(seekTime_, args, gstLaunch, false);
      } else {
        ExecuteTranscoding(seekTime_, false, args, output, ffmpeg);
      }
      _exit(1);
    }
    if (gPidHLSTransBin < 0) {
      gPidHLSTransBin = 0;
      break;
    }

    if (gstreamer_) {
      gPidHLSSegBin = fork();
      if (gPidHLSSegBin == 0) {
        transcoder::DieWithMonitor(monitorPid);
        ResetChildSignals(devNull);
        close(pipeFds[1]);
        ExecuteSegmenter(pipeFds[0], static_cast<int>(seekTime_ / kSegmenterSeconds));
        _exit(1);
      }
      if (gPidHLSSegBin < 0) {
        gPidHLSSegBin = 0;
        kill(gPidHLSTransBin, SIGKILL);
        break;
      }
      // The segmenter sees the end of its input only once no copy of the
      // write end is left here.
      CloseIfOpen(pipeFds[0]);
      CloseIfOpen(pipeFds[1]);
    }

    monitor::Supervise(MonitorChildren(remux_), gHLSSignal, [this, &idle] {
      if (VTEIsTimeout(kAccessTimeoutSeconds)) {
        ORVO_LOG(LOG_ERR, "time out for access [%d seconds]",
                 static_cast<int>(kAccessTimeoutSeconds));
        idle = true;
        return true;
      }
      // A transcoder on a full volume only leaves empty segments behind.
      if (VolumeFull(GetVTEFileFullPath(""))) {
        ORVO_LOG(LOG_ERR, "No space left for stream [%s]: transcoding stopped",
                 streamId_.c_str());
        return true;
      }
      return false;
    });
  } while (false);
  CloseIfOpen(pipeFds[0]);
  CloseIfOpen(pipeFds[1]);
  CloseIfOpen(devNull);
  WaitAllChild();
  // A transcoder killed, or starved by a full volume, leaves its last
  // segments cut short: they go, so that a later request starts a new run
  // instead of getting them.
  int fragment = 0;
  if (ParseFragment(fragmentId, &fragment)) RemoveCutSegments(fragment);
  // Only once the transcoder has stopped writing into it.
  if (idle) RemoveTransDir();
}

void HttpLiveStream::ClearCutSegments() const {
  // A monitor killed before it could clear up leaves its run's last segment
  // cut short, and the transcoder that wrote it has ended by now.
  if (IsFFmpegRun()) return;
  const int turn = TryStartLock();
  if (turn < 0) return;
  // Under the start lock no new run can begin writing meanwhile.
  if (!IsFFmpegRun()) RemoveCutSegments(RunStart());
  close(turn);
}

bool HttpLiveStream::ExecuteSegmenter(int readFd, int startNumber) {
  const std::string ffmpeg = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
  const std::string input = "pipe:" + std::to_string(readFd);
  const std::string start = std::to_string(startNumber);
  const std::string seek = std::to_string(startNumber * kSegmenterSeconds);
  const std::string output = GetVTEFileFullPath(kSegmentPattern);
  const char* const argv[] = {ffmpeg.c_str(), "-i",     input.c_str(), "-map",
                              "0",            "-codec", "copy",        "-f",
                              "segment",      "-segment_time",         "5",
                              "-segment_start_number", start.c_str(), "-hls_seek_time",
                              seek.c_str(),   output.c_str(), nullptr};
  // Only the pipe is meant for the segmenter; whatever else this process
  // holds stays behind.
  const int flags = fcntl(readFd, F_GETFD);
  if (flags < 0 || fcntl(readFd, F_SETFD, flags & ~FD_CLOEXEC) != 0) return false;
  if (readFd > 3) close_range(3, static_cast<unsigned int>(readFd) - 1, CLOSE_RANGE_CLOEXEC);
  close_range(static_cast<unsigned int>(readFd) + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  execvp(argv[0], const_cast<char* const*>(argv));
  return false;
}

void HttpLiveStream::WaitAllChild() const { monitor::Stop(MonitorChildren(remux_)); }

void HttpLiveStream::MointerSignalHandler(int /*signalNumber*/) { gHLSSignal = 1; }

}  // namespace LibOrvoVTE
