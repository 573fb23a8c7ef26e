// A progressive stream by hand: what a player's request for an "HTTP" or
// "WEBM" stream makes the engine do, with the bytes written to a file or to
// stdout (for a player reading a pipe).
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <json/json.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "platform/machine_root.h"
#include "tools/vtetool/command.h"
#include "toolkit/write_all.h"
#include "vte/http_stream.h"

namespace vtetool {
namespace {

using Clock = std::chrono::steady_clock;

// Redrawn at most this often: a terminal cannot show more.
constexpr double kProgressSeconds = 0.25;

volatile sig_atomic_t gInterrupted = 0;

void Interrupt(int) { gInterrupted = 1; }

// The HTTP stream, telling which transcoder its profile needs.
class ToolHttpStream : public LibOrvoVTE::HttpStream {
 public:
  using HttpStream::HttpStream;
  bool UsesGstreamer() const { return gstreamer_; }
};

class Progress {
 public:
  explicit Progress(unsigned long long predicted)
      : shown_(isatty(STDERR_FILENO) == 1), predicted_(predicted), start_(Clock::now()) {}

  void Add(size_t bytes) {
    total_ += bytes;
    if (!firstByte_) firstByte_ = Seconds();
    if (shown_ && Seconds() - drawn_ >= kProgressSeconds) Draw();
  }

  void Finish() {
    if (!shown_) return;
    Draw();
    fprintf(stderr, "\n");
  }

  unsigned long long Total() const { return total_; }

 private:
  double Seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

  void Draw() {
    drawn_ = Seconds();
    fprintf(stderr, "\r%llu bytes in %.1f s (%.0f kB/s, first byte after %.2f s)", total_, drawn_,
            drawn_ > 0 ? total_ / 1000.0 / drawn_ : 0.0, firstByte_);
    if (predicted_ > 0) {
      fprintf(stderr, ", %.0f%% of %llu predicted", 100.0 * total_ / predicted_, predicted_);
    }
    fprintf(stderr, "   ");
  }

  const bool shown_;
  const unsigned long long predicted_;
  const Clock::time_point start_;
  unsigned long long total_ = 0;
  double firstByte_ = 0;
  double drawn_ = 0;
};

// Starts the run with this process's stderr on /dev/null: the transcoder and
// a monitor inherit it and would draw over the progress line.
bool StartQuietly(LibOrvoVTE::DirectStream& stream, const std::string& transcoder,
                  unsigned long start) {
  const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (saved >= 0 && null >= 0) dup2(null, STDERR_FILENO);
  if (null >= 0) close(null);
  const bool started = stream.Transcoding(transcoder, start);
  if (saved >= 0) {
    dup2(saved, STDERR_FILENO);
    close(saved);
  }
  return started;
}

int Stream(const Arguments& arguments) {
  const std::string& path = arguments[0];
  const std::string& type = arguments[1];
  const bool http = type == "HTTP";
  if (!http && type != "WEBM") {
    std::cerr << "vtetool: stream: the type is HTTP or WEBM, not " << type << std::endl;
    return kUsage;
  }
  char* end = nullptr;
  const unsigned long start =
      arguments.size() > 4 ? strtoul(arguments[4].c_str(), &end, 10) : 0;
  if (end != nullptr && (*end != '\0' || arguments[4].empty())) {
    std::cerr << "vtetool: stream: the start is whole seconds, not " << arguments[4] << std::endl;
    return kUsage;
  }
  const std::string output = arguments.size() > 5 ? arguments[5] : "-";

  const std::string id = LibOrvoVTE::VTEStream::VTE_Init(
      path, type, Json::Value(Json::objectValue), arguments[2], arguments[3], "", 0);
  if (id.empty() || id == LibOrvoVTE::kTransSpaceNotEnough) {
    std::cerr << "vtetool: stream: no " << type << " session for " << path << " ("
              << (id.empty() ? "the system log says why" : id) << ")" << std::endl;
    return kFailed;
  }
  std::unique_ptr<LibOrvoVTE::DirectStream> stream;
  std::string transcoder = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
  unsigned long long predicted = 0;
  if (http) {
    auto httpStream = std::make_unique<ToolHttpStream>(id);
    if (httpStream->UsesGstreamer()) {
      transcoder = librh::machine::Resolve(librh::machine::kPackageGstLaunch);
    }
    predicted = httpStream->VTE_HTTP_PredictTransFileSize();
    stream = std::move(httpStream);
  } else {
    stream = std::make_unique<LibOrvoVTE::WebMStream>(id);
  }

  if (!stream->Init("")) {
    const std::string error = stream->GetErrorString();
    std::cerr << "vtetool: stream: the stream did not open ("
              << (error.empty() ? "no error code; the system log says why" : error) << ")"
              << std::endl;
    stream->Close();
    return kFailed;
  }
  const int out = output == "-"
                      ? STDOUT_FILENO
                      : open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0) {
    std::cerr << "vtetool: stream: " << output << ": " << strerror(errno) << std::endl;
    stream->Close();
    return kFailed;
  }
  if (!StartQuietly(*stream, transcoder, start)) {
    std::cerr << "vtetool: stream: the transcoder did not start at " << start << " s"
              << std::endl;
    stream->Close();
    if (out != STDOUT_FILENO) close(out);
    return kFailed;
  }

  // From here on every way out closes the stream, so nothing is left
  // running: a reader that goes away (EPIPE) or Ctrl-C ends the loop. Set
  // only now, so the transcoder's processes keep the default actions.
  signal(SIGPIPE, SIG_IGN);
  struct sigaction interrupt = {};
  interrupt.sa_handler = Interrupt;
  sigaction(SIGINT, &interrupt, nullptr);
  sigaction(SIGTERM, &interrupt, nullptr);

  Progress progress(predicted);
  char buffer[65536];
  bool written = true;
  while (!gInterrupted && written) {
    const int got = stream->Read(buffer, sizeof(buffer));
    if (got <= 0) break;
    written = toolkit::WriteAll(out, buffer, static_cast<size_t>(got), &gInterrupted);
    progress.Add(static_cast<size_t>(got));
  }
  progress.Finish();
  stream->Close();
  if (out != STDOUT_FILENO) close(out);
  if (gInterrupted) {
    std::cerr << "vtetool: stream: interrupted; the stream is closed" << std::endl;
    return kFailed;
  }
  if (!written) {
    std::cerr << "vtetool: stream: " << output << ": the reader went away; the stream is closed"
              << std::endl;
    return kFailed;
  }
  if (progress.Total() == 0) {
    std::cerr << "vtetool: stream: the transcoder wrote nothing (the system log says why)"
              << std::endl;
    return kFailed;
  }
  return kOk;
}

const CommandRegistration kStream(
    {"stream", "<file> <HTTP|WEBM> <profile file> <profile> [start seconds] [output|-]",
     "transcode a file as a progressive stream into a file or stdout", 4, 6, Stream});

}  // namespace
}  // namespace vtetool
