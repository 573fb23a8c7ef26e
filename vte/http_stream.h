// Progressive streams: one source video turned into one continuous byte
// stream that the caller copies to its HTTP client as the transcoder produces
// it. The transcoder writes into a pipe and the stream object keeps the read
// end. There is no seeking inside a running stream: a seek closes it and
// starts a new run at a time offset.
//
// Each stream object serves one request of one process; whatever a later
// request needs (the transcoder's pid, the requested audio track) is in the
// session directory.
#pragma once

#include <signal.h>

#include <string>
#include <vector>

#include "vte/liborvovte.h"

namespace LibOrvoVTE {

// The base of every stream read from a transcoder's pipe.
class DirectStream : public VTEStream {
 public:
  ~DirectStream() override;

  // Checks that the session can start a transcoder now and remembers the
  // requested audio track ("" for the first). On false the error string may
  // say why. A new run of the session (a seek) replaces the one still
  // going: that run is ended first, its transcoding slot given back before
  // the check, so the stream is never refused for its own previous run.
  virtual bool Init(const std::string& audioId) = 0;
  // Starts the transcoder `startSeconds` into the source, writing into a new
  // pipe whose read end this object keeps. True in the calling process once
  // the transcoder's process is forked; it may still fail to start, which
  // the reader sees as end of stream.
  virtual bool Transcoding(const std::string& transcoderPath, unsigned long startSeconds) = 0;
  // At most `length` bytes of the stream into `buffer`.
  virtual int Read(char* buffer, unsigned int length) = 0;
  // Stops the session's monitor and removes the session.
  virtual bool Close();

 protected:
  DirectStream(const std::string& streamId, const std::string& format);

  // Read end of the output pipe; -1 while no transcoder runs for us.
  int fd;
};

// The progressive stream of type "HTTP". Its transcoder is a detached
// grandchild of the caller, found again through "monitor.pid" by whichever
// process closes the stream.
class HttpStream : public DirectStream {
 public:
  explicit HttpStream(const std::string& streamId);
  // Leaves the pipe open: Close must be called.
  ~HttpStream() override;

  // The progressive output is never announced as rotated: the transcoder
  // turns the picture upright.
  unsigned int GetMetaVideoRotate() const override;
  // False when the session is unusable, with "TransSapceNotEnough" or
  // "TransEnable" in the error string for those two causes; the caller still
  // closes the stream, which removes the session. Ends the session's running
  // transcoder (TERM, then KILL after a few seconds), then waits up to about
  // a minute for a transcoding slot.
  bool Init(const std::string& audioId) override;
  bool Transcoding(const std::string& transcoderPath, unsigned long startSeconds) override;
  // The number of bytes read (at least 1), or -1 on end of stream, error, no
  // pipe, or 30 seconds without data.
  int Read(char* buffer, unsigned int length) override;
  // Kills the transcoder, frees its slot in the load registry, deletes the
  // session directory and closes the pipe. False only without a stream id.
  bool Close() override;

  // `requested` with "hd480" and "hd720" turned into a size of the source's
  // aspect; other keywords pass unchanged. False for an empty request or an
  // unknown aspect (result = requested).
  bool VTE_HTTP_SCALE_RESOLUTION(const std::string& requested, std::string& result);
  // The profile's total bit rate in bits per second, -1 when its name does
  // not tell.
  int GetTransBitRate();
  // The expected output length in bytes, 0 when unknown.
  unsigned long long VTE_HTTP_PredictTransFileSize();
  // The second at which the output reaches `byteOffset`, -1 when unknown.
  long long ConvertByteRangeToTimeRange(long long byteOffset);
  // The ffmpeg output options of this session; empty when there is no
  // profile or no video.
  std::vector<std::string> CalculateFFmpegArgument() const;

 protected:
  // The profile encodes wmv2, whose container keeps no copied timestamps.
  bool isWmv2;
};

// Process-wide state of a WebM monitor process; meaningless elsewhere.
// Set by MointerSignalHandler on SIGINT or SIGTERM.
extern volatile sig_atomic_t gWEBMSignal;
// The monitor's ffmpeg child; 0 when none.
extern int gPidWEBMFFMPEG;

// The progressive stream of type "WEBM". Its ffmpeg is supervised by a
// detached monitor process recorded in "monitor.pid"; a new run (a seek)
// ends the previous monitor first.
class WebMStream : public DirectStream {
 public:
  explicit WebMStream(const std::string& streamId);
  // Closes the pipe.
  ~WebMStream() override;

  // Ends the session's running monitor (waiting a few seconds for it to stop
  // its ffmpeg), then makes the common open checks.
  bool Init(const std::string& audioId) override;
  // `transcoderPath` must be non-empty, but the package's own ffmpeg is run.
  // False for a start beyond the source's duration.
  bool Transcoding(const std::string& transcoderPath, unsigned long startSeconds) override;
  // One read(2): 0 at end of stream or without a pipe, -1 on error. Blocks
  // until the transcoder writes or ends.
  int Read(char* buffer, unsigned int length) override;

  // Stops the recorded monitor without starting another.
  bool KillMonitor() const;
  // The ffmpeg output options of a run starting at `startSeconds`.
  std::vector<std::string> CalculateFFmpegArgument(unsigned long startSeconds) const;
  // The monitor's body: runs ffmpeg into `writeFd` and supervises it until
  // it ends or the monitor is signalled. Closes `writeFd`.
  void ExecuteMointer(int writeFd, unsigned long startSeconds);
  // Interrupts the ffmpeg child, if any, and reaps it.
  void WaitAllChild() const;
  static void MointerSignalHandler(int signalNumber);
};

// The progressive streams' arithmetic, as functions of plain values.
namespace progressive {

// (video + 2 x audio) x 1024 from the "vb<kbit/s>" and "ab<kbit/s>" tokens of
// a profile name; -1 when either is missing.
int TransBitRate(const std::string& profileKey);
// Bytes of `durationSeconds` at `bitRate`, in single precision; 0 when
// either is unknown.
unsigned long long PredictSize(int bitRate, unsigned int durationSeconds);
// The second at which `byteOffset` is reached at `bitRate`; -1 for a rate
// below 1.
long long ByteOffsetToSeconds(long long byteOffset, int bitRate);
// VTE_HTTP_SCALE_RESOLUTION for a source of display aspect `ratio`.
bool ScaleResolution(float ratio, const std::string& requested, std::string& result);

}  // namespace progressive
}  // namespace LibOrvoVTE
