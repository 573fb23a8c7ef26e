// HLS sessions by hand: open one, ask for a segment as a client would, look
// at what a session holds and which processes serve it, and close it.
#include <unistd.h>

#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tools/vtetool/command.h"
#include "tools/vtetool/output.h"
#include "tools/vtetool/web_request.h"
#include "toolkit/files.h"
#include "toolkit/process_table.h"
#include "vte/http_live_stream.h"
#include "vte/utils/json_utils.h"

namespace vtetool {
namespace {

using LibOrvoVTE::HttpLiveStream;

constexpr char kType[] = "HLS";
// What the web API would put in the playlists; only the operator reads them.
constexpr char kUrl[] = "/api/stream";

int Open(const Arguments& arguments) {
  const std::string device = arguments.size() > 3 ? arguments[3] : "";
  const std::string audioFormat = arguments.size() > 4 ? arguments[4] : "";
  const std::string id =
      NewSession("hls-open", kType, arguments[0], arguments[1], arguments[2], device);
  if (id.empty()) return kFailed;
  Json::Value params;
  params["url"] = kUrl;
  params["format"] = "hls";
  HttpLiveStream stream(id);
  if (!stream.Init(params, Json::Value(), "", audioFormat)) {
    const std::string error = stream.GetErrorString();
    std::cerr << "vtetool: hls-open: the stream did not open ("
              << (error.empty() ? "no error code; the system log says why" : error) << ")"
              << std::endl;
    return kFailed;
  }
  std::cout << "stream id: " << id << "\n"
            << "playlist: " << stream.GetMainfest("", "") << std::endl;
  return kOk;
}

int Segment(const Arguments& arguments) {
  const std::string id = arguments[0];
  const std::string fragment = arguments[1];
  const auto start = std::chrono::steady_clock::now();
  std::string path;
  const bool answered = AsWebRequest(
      [&] {
        HttpLiveStream stream(id);
        if (!stream.Transcoding(fragment)) return std::string();
        return stream.ReadFragment(fragment);
      },
      &path);
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  if (!answered || path.empty()) {
    std::cerr << "vtetool: hls-segment: segment " << fragment << " of " << id
              << " was not served (after " << elapsed.count() << " ms)" << std::endl;
    return kFailed;
  }
  std::cout << path << "\n"
            << "served in " << elapsed.count() << " ms" << std::endl;
  return kOk;
}

int State(const Arguments& arguments) {
  HttpLiveStream stream(arguments[0]);
  const std::string dir = stream.GetVTEFileFullPath("");
  if (access(dir.c_str(), F_OK) != 0) {
    std::cerr << "vtetool: hls-state: no HLS session " << arguments[0] << std::endl;
    return kFailed;
  }
  PrintSessionDirectory(dir);
  for (const char* name : {"seek_time", "request_fragment_id", "request_sequence", "audio_format"}) {
    const std::string value = toolkit::ReadWholeFile(stream.GetVTEFileFullPath(name));
    std::cout << name << ": " << (value.empty() ? "-" : value) << "\n";
  }

  const int monitor = OLIBCReadPidFile(stream.GetVTEFileFullPath("monitor.pid").c_str());
  std::vector<int> pids;
  if (monitor > 0 && OLIBCProcAlive(monitor)) {
    std::cout << "monitor: " << monitor << " (running)\n";
    for (const toolkit::ProcessEntry& child : toolkit::ChildrenOf(monitor)) {
      std::cout << "  child " << child.pid << " " << child.name << "\n";
      pids.push_back(child.pid);
    }
  } else {
    std::cout << "monitor: " << (monitor > 0 ? std::to_string(monitor) + " (ended)" : "none")
              << "\n";
  }

  // Read, not taken: looking must not drop other streams' entries.
  Json::Value registry;
  LibReelhall::ReadJsonFromFile(librh::machine::Resolve(librh::machine::kLoadRegistry), registry);
  Json::Value mine(Json::arrayValue);
  if (registry.isArray()) {
    for (const Json::Value& entry : registry) {
      if (!entry.isObject() || !entry["PID"].isInt()) continue;
      for (int pid : pids) {
        if (entry["PID"].asInt() == pid) mine.append(entry);
      }
    }
  }
  std::cout << "registry entries of its transcoder:\n";
  PrintJson(mine);
  return kOk;
}

int Close(const Arguments& arguments) {
  HttpLiveStream stream(arguments[0]);
  return CloseSession("hls-close", "HLS", stream, arguments[0]);
}

const CommandRegistration kOpen({"hls-open",
                                 "<file> <profile file> <profile> [device] [audio format]",
                                 "create and open an HLS stream; prints its id and playlist", 3,
                                 5, Open});
const CommandRegistration kSegment({"hls-segment", "<stream id> <fragment id>",
                                    "request a segment as a client would (restarting the "
                                    "transcoder when needed) and print its path",
                                    2, 2, Segment});
const CommandRegistration kState({"hls-state", "<stream id>",
                                  "show an HLS session: files, seek memory, monitor and "
                                  "transcoder pids, registry entries",
                                  1, 1, State});
const CommandRegistration kClose({"hls-close", "<stream id>",
                                  "end an HLS stream: stop its processes, remove its session", 1,
                                  1, Close});

}  // namespace
}  // namespace vtetool
