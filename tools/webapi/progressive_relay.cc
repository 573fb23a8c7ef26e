#include "tools/webapi/progressive_relay.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "metadata/vtemetadata.h"
#include "platform/machine_root.h"
#include "tools/webapi/descriptor_passing.h"
#include "tools/webapi/response.h"
#include "tools/webapi/streams.h"
#include "toolkit/child_process.h"
#include "toolkit/files.h"

namespace webapi {
namespace {

using LibOrvoVTE::VTEStream;
using Clock = std::chrono::steady_clock;

constexpr char kRunSuffix[] = "_run";
// In the anchor's session: held while a run is started or let go, so that a
// request never closes the run that replaced its own.
constexpr char kRunLockFile[] = "webapi_run.lock";
// Where the library records the run's transcoder (HTTP) or monitor (WebM).
constexpr char kRecordFile[] = "monitor.pid";
// Starting a run may wait a minute for a transcoding slot.
constexpr std::chrono::seconds kRunStartTimeout{90};
// As long as the library's own read waits: the transcoder's start-up and a
// seek stay well inside it.
constexpr int kFirstBytesMs = 30000;

constexpr size_t kPacketBytes = 188;

// The streams keep their pipe to themselves; a run hands it to the relay.
template <class Stream>
class Run : public Stream {
 public:
  using Stream::Stream;
  int TakePipe() {
    const int pipe = this->fd;
    this->fd = -1;
    return pipe;
  }
};

std::string RunId(const std::string& anchor) { return anchor + kRunSuffix; }

void LogLine(const std::string& type, const std::string& id, const std::string& text) {
  fprintf(stderr, "webapi: %s stream %s: %s\n", type.c_str(), id.c_str(), text.c_str());
}

class AnchorLock {
 public:
  explicit AnchorLock(const VTEStream& anchor) {
    const std::string path = anchor.GetVTEFileFullPath(kRunLockFile);
    fd_ = path.empty() ? -1 : open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd_ >= 0) flock(fd_, LOCK_EX);
  }
  ~AnchorLock() {
    if (fd_ >= 0) close(fd_);
  }
  AnchorLock(const AnchorLock&) = delete;
  AnchorLock& operator=(const AnchorLock&) = delete;

 private:
  int fd_;
};

// Answers a run that did not start, notes why for the page and logs it.
int FailRun(const VTEStream& anchor, const std::string& type, const std::string& code) {
  NoteFailure(anchor, code);
  LogLine(type, anchor.GetStreamID(), "run failed: " + code);
  return FailOpen(code);
}

// Runs `work` in a child whose copy of the response descriptor is closed:
// the transcoder and monitor it starts then never hold the response open.
// The child's exit status, -1 when it could not run or was late.
int RunAwayFromResponse(const std::function<int()>& work) {
  return toolkit::WaitFor(toolkit::StartFunction([&work] {
                            close(ResponseDescriptor());
                            return work();
                          }),
                          kRunStartTimeout);
}

template <class Stream>
int StartRunIn(int socket, const std::string& run, const std::string& audioId,
               const std::string& ffmpeg, unsigned long start) {
  Run<Stream> stream(run);
  if (!stream.Init(audioId)) {
    const std::string code = stream.GetErrorString();
    stream.Close();
    SendDescriptor(socket, -1, code.empty() ? "init_failed" : code);
    return 1;
  }
  if (!stream.Transcoding(ffmpeg, start)) {
    stream.Close();
    SendDescriptor(socket, -1, "transcoding_failed");
    return 1;
  }
  return SendDescriptor(socket, stream.TakePipe()) ? 0 : 1;
}

// Starts a run of `type` in session `run` at `start` seconds; the read end
// of its output pipe, or -1 with the reason in `code`.
int StartRun(const std::string& type, const std::string& run, const std::string& audioId,
             unsigned long start, std::string* code) {
  const std::string ffmpeg = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
    *code = "transcoding_failed";
    return -1;
  }
  const int status = RunAwayFromResponse([&] {
    close(sockets[0]);
    return type == "HTTP"
               ? StartRunIn<LibOrvoVTE::HttpStream>(sockets[1], run, audioId, ffmpeg, start)
               : StartRunIn<LibOrvoVTE::WebMStream>(sockets[1], run, audioId, ffmpeg, start);
  });
  close(sockets[1]);
  const int pipe = ReceiveDescriptor(sockets[0], code);
  close(sockets[0]);
  if (pipe < 0 && code->empty()) *code = status < 0 ? "run_start_timeout" : "transcoding_failed";
  return pipe;
}

// At most `size` bytes from `pipe`, waiting at most `waitMs` for them: the
// count, 0 at the end of the output, -1 when nothing came in time.
ssize_t ReadWithin(int pipe, char* buffer, size_t size, int waitMs) {
  pollfd readable = {pipe, POLLIN, 0};
  int ready;
  do {
    ready = poll(&readable, 1, waitMs);
  } while (ready < 0 && errno == EINTR && !Stopped());
  if (ready <= 0) return -1;
  ssize_t got;
  do {
    got = read(pipe, buffer, size);
  } while (got < 0 && errno == EINTR);
  return got < 0 ? 0 : got;
}

// Sends `count` bytes of MPEG-TS null packets, the first beginning `offset`
// bytes into a packet (the rest of a cut packet is filler).
bool SendPadding(long long count, long long offset) {
  static const std::vector<char> packets = [] {
    std::vector<char> block(kPacketBytes * 348, static_cast<char>(0xFF));
    for (size_t at = 0; at < block.size(); at += kPacketBytes) {
      // Sync byte, PID 0x1FFF (null), payload only.
      block[at] = 0x47;
      block[at + 1] = 0x1F;
      block[at + 3] = 0x10;
    }
    return block;
  }();
  const long long partial = offset % kPacketBytes;
  if (partial != 0) {
    const std::vector<char> filler(static_cast<size_t>(std::min<long long>(
                                       count, static_cast<long long>(kPacketBytes) - partial)),
                                   static_cast<char>(0xFF));
    if (!WriteAll(filler.data(), filler.size())) return false;
    count -= static_cast<long long>(filler.size());
  }
  while (count > 0) {
    const size_t n = static_cast<size_t>(std::min<long long>(count, packets.size()));
    if (!WriteAll(packets.data(), n)) return false;
    count -= static_cast<long long>(n);
  }
  return true;
}

struct Reply {
  int status = 200;
  std::string type;
  long long length = -1;  // < 0: sent as it comes, to the end of the output
  std::vector<std::string> extra;
  long long offset = 0;   // of the answer's first byte in the whole stream
};

// What an "HTTP" request asks for, against the predicted length; false when
// it was answered already (416).
bool PlanHttp(LibOrvoVTE::HttpStream& anchor, unsigned int duration, Reply* answer,
              unsigned long* start, bool* pastTheEnd) {
  const long long size = static_cast<long long>(anchor.VTE_HTTP_PredictTransFileSize());
  const ByteRange range = ResolveRange(RequestHeader("HTTP_RANGE"), size);
  if (range.kind == ByteRange::kUnsatisfiable) {
    Head(416, "application/json", -1, {"Content-Range: bytes */" + std::to_string(size)});
    WriteAll(ErrorBody("range_not_satisfiable") + "\n");
    return false;
  }
  const bool part = range.kind == ByteRange::kPart;
  answer->type = "video/mp2t";
  answer->extra = {"Accept-Ranges: bytes"};
  answer->offset = part ? range.first : 0;
  const long long seconds =
      answer->offset > 0 ? anchor.ConvertByteRangeToTimeRange(answer->offset) : 0;
  *start = static_cast<unsigned long>(std::max(seconds, 0LL));
  *pastTheEnd = size > 0 && seconds >= static_cast<long long>(duration);
  if (size > 0) {
    const long long last = part ? range.last : size - 1;
    answer->length = last - answer->offset + 1;
    if (part) {
      answer->status = 206;
      answer->extra.push_back("Content-Range: bytes " + std::to_string(answer->offset) + "-" +
                              std::to_string(last) + "/" + std::to_string(size));
    }
  }
  return true;
}

// Closes the run unless a later request has replaced it since `record` was
// its own, in which case that request owns the session now.
void LetGo(const VTEStream& anchor, const std::string& type, const std::string& run,
           const std::string& record) {
  AnchorLock lock(anchor);
  const std::unique_ptr<LibOrvoVTE::DirectStream> stream = Progressive(type, run);
  if (record.empty() || toolkit::ReadWholeFile(stream->GetVTEFileFullPath(kRecordFile)) == record) {
    stream->Close();
  }
}

bool Replaced(const std::string& type, const std::string& run, const std::string& record) {
  const std::unique_ptr<LibOrvoVTE::DirectStream> stream = Progressive(type, run);
  return toolkit::ReadWholeFile(stream->GetVTEFileFullPath(kRecordFile)) != record;
}

int RelayRun(const LibOrvoVTE::DirectStream& anchor, const LibOrvoVTE::VTEMetaData& source,
             const std::string& type, const Query& query, const Reply& answer,
             unsigned long start) {
  const std::string id = anchor.GetStreamID();
  const std::string run = RunId(id);
  std::string record;
  int pipe = -1;
  char buffer[65536];
  ssize_t got = -1;
  {
    AnchorLock lock(anchor);
    Json::Value params;
    params["stream_id"] = run;
    const std::string made = VTEStream::VTE_Init(source.GetFilePath(), type, params,
                                                 ProfileFile(type), source.GetProfileKey(),
                                                 source.GetDevice(), 0);
    if (made != run) return FailRun(anchor, type, made.empty() ? "open_failed" : made);
    std::string code;
    pipe = StartRun(type, run, Key(query, "audio"), start, &code);
    if (pipe < 0) return FailRun(anchor, type, code);
    const Clock::time_point asked = Clock::now();
    got = ReadWithin(pipe, buffer, sizeof(buffer), kFirstBytesMs);
    record = toolkit::ReadWholeFile(Progressive(type, run)->GetVTEFileFullPath(kRecordFile));
    if (got <= 0) {
      const long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                               Clock::now() - asked).count();
      close(pipe);
      Progressive(type, run)->Close();
      LogLine(type, id, "transcoder gave no output within " + std::to_string(ms) + " ms");
      return FailRun(anchor, type, got == 0 ? kTranscoderExited : kTranscoderSilent);
    }
  }
  signal(SIGPIPE, SIG_IGN);
  Head(answer.status, answer.type, answer.length, answer.extra);
  long long left = answer.length;
  long long sent = 0;
  bool ended = false;
  while (!Stopped() && left != 0) {
    const size_t n = left < 0 ? static_cast<size_t>(got)
                              : static_cast<size_t>(std::min<long long>(left, got));
    if (!WriteAll(buffer, n)) break;
    sent += static_cast<long long>(n);
    if (left > 0) left -= static_cast<long long>(n);
    if (left == 0) break;
    got = ReadWithin(pipe, buffer, sizeof(buffer), kFirstBytesMs);
    if (got <= 0) {
      ended = true;
      break;
    }
  }
  close(pipe);
  // A run cut short by a seek goes no further: its client has gone to the
  // new one. One that ended by itself keeps its announced length.
  if (ended && left > 0 && !Stopped() && !Replaced(type, run, record)) {
    LogLine(type, id, "output ended " + std::to_string(left) + " bytes short; padded");
    SendPadding(left, answer.offset + sent);
  }
  LetGo(anchor, type, run, record);
  return 0;
}

}  // namespace

bool CheckAnchor(const std::string& type, const std::string& id, const std::string& audioId,
                 std::string* code) {
  const std::unique_ptr<LibOrvoVTE::DirectStream> check = Progressive(type, id);
  if (check->InitStreamCommon(audioId, false)) return true;
  *code = check->GetErrorString();
  check->Close();
  return false;
}

int StreamProgressive(const std::string& type, const std::string& id, const Query& query) {
  const std::unique_ptr<LibOrvoVTE::DirectStream> anchor = Progressive(type, id);
  if (anchor->GetStreamID().empty()) return Fail(404, "stream_not_found");
  LibOrvoVTE::VTEMetaData source(anchor->GetStreamID(), type);
  if (!source.LoadMetaData() || source.GetFilePath().empty() || source.GetProfileKey().empty()) {
    return Fail(404, "stream_not_found");
  }
  TouchAccess(*anchor);
  if (Key(query, "last_error") == "1") return AnswerLastFailure(*anchor);
  Reply answer;
  unsigned long start = 0;
  if (type == "HTTP") {
    bool pastTheEnd = false;
    LibOrvoVTE::HttpStream prediction(id);
    if (!PlanHttp(prediction, source.GetDuration(), &answer, &start, &pastTheEnd)) return 0;
    if (pastTheEnd) {
      // Bytes announced past the source's end are padding already: no
      // transcoder is started for them.
      signal(SIGPIPE, SIG_IGN);
      Head(answer.status, answer.type, answer.length, answer.extra);
      SendPadding(answer.length, answer.offset);
      return 0;
    }
  } else {
    answer.type = "video/webm";
    answer.extra = {"Accept-Ranges: none"};
    start = strtoul(Key(query, "start").c_str(), nullptr, 10);
  }
  return RelayRun(*anchor, source, type, query, answer, start);
}

void CloseRuns(const std::string& type, const std::string& id) {
  const std::unique_ptr<LibOrvoVTE::DirectStream> anchor = Progressive(type, id);
  if (anchor->GetStreamID().empty()) return;
  Progressive(type, RunId(id))->Close();
}

}  // namespace webapi
