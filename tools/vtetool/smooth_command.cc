// Smooth Streaming sessions by hand: open one (predicting its manifest), ask
// for fragments by their Smooth names as a client would, and close it.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json/json.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>

#include "tools/vtetool/command.h"
#include "vte/smooth_stream.h"

namespace vtetool {
namespace {

using LibOrvoVTE::SmoothStream;

constexpr char kType[] = "SS";
// What the web API would write into the manifest; only the operator reads it.
constexpr char kUrl[] = "/api/stream";
// A fragment request waits at most a minute; this leaves room for the rest.
constexpr int kRequestTimeoutSeconds = 75;

// Runs `body` in a child process, as the web API runs each request, with
// its standard descriptors on /dev/null: the monitor it may fork inherits
// them and must not hold this tool's output. The answer comes back through
// an unlinked file, which the monitor cannot keep from ending as it could a
// pipe. False when the child failed or took too long.
bool AsWebRequest(const std::function<std::string()>& body, std::string* answer) {
  std::string name = (std::filesystem::temp_directory_path() / "vtetool-answer-XXXXXX").string();
  const int file = mkostemp(name.data(), O_CLOEXEC);
  if (file < 0) return false;
  unlink(name.c_str());
  const pid_t pid = fork();
  if (pid == 0) {
    const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(devNull, fd);
    const std::string text = body();
    _exit(pwrite(file, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  int status = -1;
  for (int tenths = 0; pid > 0 && tenths < kRequestTimeoutSeconds * 10; ++tenths) {
    int raw = 0;
    if (waitpid(pid, &raw, WNOHANG) == pid) {
      status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
      break;
    }
    usleep(100000);
  }
  if (pid > 0 && status == -1 && waitpid(pid, nullptr, WNOHANG) == 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  char buffer[4096];
  const ssize_t got = pread(file, buffer, sizeof(buffer), 0);
  close(file);
  if (status != 0 || got < 0) return false;
  answer->assign(buffer, static_cast<size_t>(got));
  return true;
}

int Open(const Arguments& arguments) {
  const std::string device = arguments.size() > 3 ? arguments[3] : "";
  const std::string id = LibOrvoVTE::VTEStream::VTE_Init(
      arguments[0], kType, Json::Value(Json::objectValue), arguments[1], arguments[2], device, 0);
  if (id.empty() || id == LibOrvoVTE::kTransSpaceNotEnough) {
    std::cerr << "vtetool: ss-open: no session for " << arguments[0] << " ("
              << (id.empty() ? "the system log says why" : id) << ")" << std::endl;
    return kFailed;
  }
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
  if (access(stream.GetVTEFileFullPath("").c_str(), F_OK) != 0) {
    std::cerr << "vtetool: ss-close: no Smooth Streaming session " << arguments[0] << std::endl;
    return kFailed;
  }
  stream.Close();
  std::cout << "closed " << arguments[0] << std::endl;
  return kOk;
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
