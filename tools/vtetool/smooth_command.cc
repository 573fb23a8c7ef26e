// Smooth Streaming sessions by hand: open one (predicting its manifest), ask
// for fragments by their Smooth names as a client would, and close it.

#include <json/json.h>

#include <chrono>
#include <iostream>
#include <string>

#include "tools/vtetool/command.h"
#include "tools/vtetool/web_request.h"
#include "vte/smooth_stream.h"

namespace vtetool {
namespace {

using LibOrvoVTE::SmoothStream;

constexpr char kType[] = "SS";
// What the web API would write into the manifest; only the operator reads it.
constexpr char kUrl[] = "/api/stream";

int Open(const Arguments& arguments) {
  const std::string device = arguments.size() > 3 ? arguments[3] : "";
  const std::string id =
      NewSession("ss-open", kType, arguments[0], arguments[1], arguments[2], device);
  if (id.empty()) return kFailed;
  Json::Value params;
  params["url"] = kUrl;
  params["format"] = "ss";
  SmoothStream stream(id);
  if (!stream.Init(params, Json::Value(), "", "")) {
    const std::string error = stream.GetErrorString();
    std::cerr << "vtetool: ss-open: the stream did not open, its session is gone ("
              << (error.empty() ? "no error code; the system log says why" : error) << ")"
              << std::endl;
    return kFailed;
  }
  std::cout << "stream id: " << id << "\n"
            << "manifest: " << stream.GetMainfest() << std::endl;
  return kOk;
}

// Each fragment is one request in a process of its own, in the order given.
int Fragments(const Arguments& arguments) {
  const std::string& id = arguments[0];
  int result = kOk;
  for (size_t i = 1; i < arguments.size(); ++i) {
    const std::string& fragment = arguments[i];
    const auto start = std::chrono::steady_clock::now();
    std::string path;
    const bool answered = AsWebRequest(
        [&] {
          SmoothStream stream(id);
          return stream.Transcoding(fragment) ? stream.ReadFragment(fragment) : std::string();
        },
        &path);
    const long long elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::steady_clock::now() - start)
                                    .count();
    if (!answered || path.empty()) {
      std::cerr << "vtetool: ss-fragment: " << fragment << " of " << id
                << " was not served (after " << elapsedMs << " ms)" << std::endl;
      result = kFailed;
      continue;
    }
    std::cout << fragment << ": " << path << " (" << elapsedMs << " ms)" << std::endl;
  }
  return result;
}

int Close(const Arguments& arguments) {
  SmoothStream stream(arguments[0]);
  return CloseSession("ss-close", "Smooth Streaming", stream, arguments[0]);
}

const CommandRegistration kOpen({"ss-open", "<file> <profile file> <profile> [device]",
                                 "create and open a Smooth Streaming stream; prints its id and "
                                 "the predicted manifest",
                                 3, 4, Open});
const CommandRegistration kFragment({"ss-fragment",
                                     "<stream id> <fragment id> [fragment id...]",
                                     "request fragments by their Smooth names "
                                     "(QualityLevels(b)/Fragments(video=t)), each in a process "
                                     "of its own, and print their paths",
                                     2, 64, Fragments});
const CommandRegistration kClose({"ss-close", "<stream id>",
                                  "end a Smooth Streaming stream: stop its processes, remove "
                                  "its session",
                                  1, 1, Close});

}  // namespace
}  // namespace vtetool
