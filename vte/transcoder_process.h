// Pieces shared by the two ways a stream's forked child becomes its
// transcoder (ffmpeg, or a GStreamer pipeline). Internal to vte/.
#pragma once

#include <string>
#include <vector>

namespace LibOrvoVTE {

class VTEStream;

namespace transcoder {

// Records the calling process in the load registry as a running transcoder
// of that kind: in the place its session (`session`, "<type>/<id>") was
// admitted to when it opened, or else when the registry admits one more.
// The registry is written back before this returns. False, logged, when
// refused or not recorded.
bool Register(bool hardware, const std::string& session);

// The descriptor a transcoder argument hands over: N when `word` is `prefix`
// followed by decimal digits ("pipe:5", "fd=5"), else -1.
int PassedDescriptor(const std::string& word, const std::string& prefix);

// Replaces the process image with argv[0] (looked up in PATH), run with root
// rights. The new program inherits stdin, stdout, stderr and the descriptors
// in `passed`, nothing else. Returns only when the exec failed (false); the
// caller's descriptors are then still open.
bool ExecAsRoot(const std::string& action, const std::vector<std::string>& argv,
                const std::vector<int>& passed);

// The pipeline words that ExecuteGstreamerTranscoding joins, gathered from
// the session, the platform and the element choice.
struct PipelineParts {
  std::string program;
  long seekSeconds = 0;
  bool monaco = false;
  bool braswell = false;
  std::string container;
  std::string filePath;
  std::vector<std::string> demuxer;
  bool demuxByDecodebin = false;
  std::vector<std::string> videoDecoding;
  bool fourK = false;
  unsigned int rotation = 0;
  std::string profileArgs;  // "<video chain>$<audio chain>$<muxer>"
  bool shiftTimestamps = false;
  std::vector<std::string> sink;
  std::string audioMap;  // "" leaves the pipeline without audio
  std::vector<std::string> audioDecoding;
  bool copyAudio = false;
  bool chromecastAac = false;  // the device needs the fixed AAC chain
};

// The gst-launch argument vector (without the terminating null).
std::vector<std::string> GstreamerArguments(const PipelineParts& parts);

// For a monitor just forked from a request: lets go of every descriptor the
// request had (its client connection, its output) but `kept` (-1: none) and
// stderr, and puts /dev/null on stdin and stdout. A monitor outlives the
// request; holding the request's connection would keep the client waiting
// for a response that has already ended.
void DetachFromCaller(int kept);

// For a transcoder or segmenter child of `monitor`, first thing after fork:
// the child gets SIGTERM when the monitor dies, even by SIGKILL, so no
// transcoder outlives the process that supervises and unregisters it.
// ExecAsRoot keeps the signal across its raise to root and the exec, for
// which the child takes root as its real ids too.
void DieWithMonitor(pid_t monitor);

// For a monitor about to exit, its children stopped: removes the session's
// record of the monitor when it still names this process, so the pid is
// not taken for the monitor once another process has it. Leaves the record
// to a request that is replacing it at that moment.
void ForgetMonitor(const VTEStream& stream);

}  // namespace transcoder
}  // namespace LibOrvoVTE
