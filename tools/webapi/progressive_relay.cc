#include "tools/webapi/progressive_relay.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <vector>

#include "metadata/vtemetadata.h"
#include "platform/machine_root.h"
#include "tools/webapi/descriptor_passing.h"
#include "tools/webapi/response.h"
#include "tools/webapi/streams.h"
#include "toolkit/child_process.h"

namespace webapi {
namespace {

using LibOrvoVTE::VTEStream;

// The anchor's file in which each data request notes its run before making
// it, so that closing the anchor finds the runs a killed request left.
constexpr char kRunsFile[] = "webapi_runs";
// Starting a run may wait a minute for a transcoding slot.
constexpr std::chrono::seconds kRunStartTimeout{90};

// WebMStream keeps its pipe to itself; a run hands it across processes.
class WebMRun : public LibOrvoVTE::WebMStream {
 public:
  using WebMStream::WebMStream;
  int TakePipe() {
    const int pipe = fd;
    fd = -1;
    return pipe;
  }
};

// Runs `work` in a child whose copy of the response descriptor is closed:
// the progressive run it starts then never holds the response open. The
// child's exit status, -1 when it could not run or was late.
int RunAwayFromResponse(const std::function<int()>& work) {
  return toolkit::WaitFor(toolkit::StartFunction([&work] {
                            close(ResponseDescriptor());
                            return work();
                          }),
                          kRunStartTimeout);
}

// Copies a run's output to the client until it ends, the client goes, or
// `limit` bytes (< 0: no limit) are sent.
void Relay(const std::function<int(char*, unsigned int)>& read, long long limit) {
  char buffer[65536];
  while (!Stopped() && limit != 0) {
    const unsigned int want = limit < 0 ? sizeof(buffer)
                                        : static_cast<unsigned int>(
                                              std::min<long long>(limit, sizeof(buffer)));
    const int n = read(buffer, want);
    if (n <= 0 || !WriteAll(buffer, static_cast<size_t>(n))) break;
    if (limit > 0) limit -= n;
  }
}

int RelayHttp(const std::string& run, const std::string& audioId, const std::string& ffmpeg) {
  LibOrvoVTE::HttpStream stream(run);
  if (!stream.Init(audioId)) return FailOpen(stream.GetErrorString());
  const long long size = static_cast<long long>(stream.VTE_HTTP_PredictTransFileSize());
  const ByteRange range = ResolveRange(Env("HTTP_RANGE"), size);
  if (range.kind == ByteRange::kUnsatisfiable) {
    stream.Close();
    Head(416, "application/json", -1, {"Content-Range: bytes */" + std::to_string(size)});
    WriteAll(ErrorBody("range_not_satisfiable") + "\n");
    return 0;
  }
  const long long first = range.kind == ByteRange::kPart ? range.first : 0;
  const long long start = first > 0 ? stream.ConvertByteRangeToTimeRange(first) : 0;
  if (!stream.Transcoding(ffmpeg, static_cast<unsigned long>(std::max(start, 0LL)))) {
    stream.Close();
    return Fail(500, "transcoding_failed");
  }
  signal(SIGPIPE, SIG_IGN);
  long long length = -1;
  std::vector<std::string> extra = {"Accept-Ranges: bytes"};
  if (size > 0) {
    const long long last = range.kind == ByteRange::kPart ? range.last : size - 1;
    length = last - first + 1;
    if (range.kind == ByteRange::kPart) {
      extra.push_back("Content-Range: bytes " + std::to_string(first) + "-" +
                      std::to_string(last) + "/" + std::to_string(size));
    }
  }
  Head(range.kind == ByteRange::kPart && size > 0 ? 206 : 200, "video/mp2t", length, extra);
  Relay([&stream](char* buffer, unsigned int n) { return stream.Read(buffer, n); }, length);
  stream.Close();
  return 0;
}

// WebM's monitor is forked without exec, so the run starts in a child away
// from the response and hands back the pipe's read end.
int RelayWebM(const std::string& run, const std::string& audioId, const std::string& ffmpeg,
              unsigned long start) {
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
    return Fail(500, "transcoding_failed");
  }
  const int status = RunAwayFromResponse([&] {
    close(sockets[0]);
    WebMRun stream(run);
    if (!stream.Init(audioId) || !stream.Transcoding(ffmpeg, start)) {
      SendDescriptor(sockets[1], -1);
      return 1;
    }
    return SendDescriptor(sockets[1], stream.TakePipe()) ? 0 : 1;
  });
  close(sockets[1]);
  const int pipe = status == 0 ? ReceiveDescriptor(sockets[0]) : -1;
  close(sockets[0]);
  WebMRun stream(run);
  if (pipe < 0) {
    stream.Close();
    return Fail(500, "transcoding_failed");
  }
  signal(SIGPIPE, SIG_IGN);
  Head(200, "video/webm", -1, {"Accept-Ranges: none"});
  Relay([pipe](char* buffer, unsigned int n) { return static_cast<int>(read(pipe, buffer, n)); },
        -1);
  close(pipe);
  stream.Close();
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
  Json::Value params;
  params["stream_id"] = id + "_r" + std::to_string(getpid());
  std::ofstream(anchor->GetVTEFileFullPath(kRunsFile), std::ios::app)
      << params["stream_id"].asString() << "\n";
  const std::string run = VTEStream::VTE_Init(source.GetFilePath(), type, params,
                                              ProfileFile(type), source.GetProfileKey(),
                                              source.GetDevice(), 0);
  if (run != params["stream_id"].asString()) return Fail(500, run.empty() ? "open_failed" : run);
  const std::string ffmpeg = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
  const std::string audioId = Key(query, "audio");
  if (type == "HTTP") return RelayHttp(run, audioId, ffmpeg);
  return RelayWebM(run, audioId, ffmpeg, strtoul(Key(query, "start").c_str(), nullptr, 10));
}

void CloseRuns(const std::string& type, const std::string& id) {
  const std::unique_ptr<LibOrvoVTE::DirectStream> anchor = Progressive(type, id);
  if (anchor->GetStreamID().empty()) return;
  std::vector<std::string> runs;
  {
    std::ifstream noted(anchor->GetVTEFileFullPath(kRunsFile));
    for (std::string run; std::getline(noted, run);) runs.push_back(run);
  }
  for (const std::string& run : runs) Progressive(type, run)->Close();
}

}  // namespace webapi
