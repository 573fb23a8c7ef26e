// The WebM progressive stream and its monitor process.
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <exception>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "vte/forced_options.h"
#include "vte/http_stream.h"
#include "vte/monitor_loop.h"
#include "vte/transcoder_process.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {

volatile sig_atomic_t gWEBMSignal = 0;
int gPidWEBMFFMPEG = 0;

namespace {

constexpr char kLogTag[] = "webm_stream";

// The package's transcoder build starts its output at this second; the
// input side is seeked with "-ss" as for every stream.
constexpr char kSeekOption[] = "-webm_seek_time";
// Containers reject the negative timestamps that a seek can leave before
// the first keyframe.
constexpr char kAvoidNegativeOption[] = "-avoid_negative_ts";

// How long an interrupted ffmpeg may take to finish the container, so that
// the reader gets a well-formed end; less than a seek waits for the
// monitor it replaces.
constexpr int kStopGraceMs = 3000;

monitor::Children MonitorChildren(bool remux) {
  return {&gPidWEBMFFMPEG, nullptr, !remux, kStopGraceMs, kLogTag};
}

}  // namespace

WebMStream::WebMStream(const std::string& streamId) : DirectStream(streamId, "WEBM") {}

WebMStream::~WebMStream() {
  if (fd >= 0) close(fd);
}

bool WebMStream::Init(const std::string& audioId) {
  // The run this one replaces holds the transcoding slot until its monitor
  // has stopped its ffmpeg; the stream must not be refused for it.
  SaveMonitorPid(0, true);
  return InitStreamCommon(audioId, false);
}

bool WebMStream::Transcoding(const std::string& transcoderPath, unsigned long startSeconds) {
  try {
    if (streamId_.empty() || transcoderPath.empty() || metadata_.GetDuration() < startSeconds) {
      return false;
    }
  } catch (const std::exception&) {
    return false;
  }
  SaveMonitorPid(0, true);

  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  const int forked = OLIBCProcForkChildNoWait();
  if (forked == -1) {
    close(ends[0]);
    close(ends[1]);
    return false;
  }
  if (forked == 1) {
    close(ends[1]);
    if (fd >= 0) close(fd);
    fd = ends[0];
    return true;
  }

  // The monitor: a process of its own that outlives the caller's request.
  // It must not keep the caller's connections, output or earlier pipes open
  // that long.
  close(ends[0]);
  fd = -1;
  transcoder::DetachFromCaller(ends[1]);
  gPidWEBMFFMPEG = 0;
  gWEBMSignal = 0;
  signal(SIGINT, MointerSignalHandler);
  signal(SIGTERM, MointerSignalHandler);
  if (SaveMonitorPid(getpid(), true)) {
    ExecuteMointer(ends[1], startSeconds);
    transcoder::ForgetMonitor(*this);
  } else {
    close(ends[1]);
  }
  _exit(0);
}

int WebMStream::Read(char* buffer, unsigned int length) {
  if (fd < 0) return 0;
  return static_cast<int>(read(fd, buffer, length));
}

bool WebMStream::KillMonitor() const { return SaveMonitorPid(0, false); }

std::vector<std::string> WebMStream::CalculateFFmpegArgument(unsigned long startSeconds) const {
  try {
    if (profileArgs_.empty() || metadata_.GetDuration() < startSeconds ||
        metadata_.GetVideoResolutionX() == 0) {
      return {};
    }
    std::vector<std::string> arguments =
        ForceFFmpegVideoSize(StringExplode(profileArgs_, " \n"), false);
    // The transcoder build muxes AAC and MP3 into WebM as they are; any other
    // audio becomes MP3.
    const bool keepAudio = IsSourceAudioCodec("aac") || IsSourceAudioCodec("mp3");
    arguments = forced::AudioFormat(arguments, keepAudio ? "copy" : "mp3");
    arguments.insert(arguments.end(), {kSeekOption, std::to_string(startSeconds),
                                       kAvoidNegativeOption, "0"});
    return arguments;
  } catch (const std::exception&) {
    return {};
  }
}

void WebMStream::ExecuteMointer(int writeFd, unsigned long startSeconds) {
  std::vector<std::string> arguments;
  std::string program;
  try {
    if (!streamId_.empty() && !profileArgs_.empty() && metadata_.GetDuration() >= startSeconds) {
      arguments = CalculateFFmpegArgument(startSeconds);
    }
    program = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
  } catch (const std::exception&) {
    arguments.clear();
  }
  if (arguments.empty()) {
    // The reader sees end of stream at once.
    close(writeFd);
    return;
  }
  const std::string output = "pipe:" + std::to_string(writeFd);

  const pid_t monitorPid = getpid();
  const pid_t child = fork();
  if (child == 0) {
    transcoder::DieWithMonitor(monitorPid);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    ExecuteTranscoding(static_cast<long>(startSeconds), false, arguments, output, program);
    _exit(1);
  }
  gPidWEBMFFMPEG = child > 0 ? child : 0;
  // ffmpeg holds the only write end now, so its exit ends the reader's stream.
  close(writeFd);

  // No idle time-out: the run ends with ffmpeg (the file ended or the reader
  // went away and the pipe broke) or with a signal to the monitor.
  monitor::Supervise(MonitorChildren(remux_), gWEBMSignal, nullptr);
  WaitAllChild();
}

// SIGINT lets ffmpeg finish the container before it exits.
void WebMStream::WaitAllChild() const { monitor::Stop(MonitorChildren(remux_)); }

void WebMStream::MointerSignalHandler(int) { gWEBMSignal = 1; }

}  // namespace LibOrvoVTE
