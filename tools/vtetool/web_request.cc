#include "tools/vtetool/web_request.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "tools/vtetool/command.h"
#include "vte/liborvovte.h"

namespace vtetool {

// The answer comes back through an unlinked file once the request has
// ended, whatever the processes it started still hold.
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

std::string NewSession(const std::string& command, const std::string& type,
                       const std::string& path, const std::string& profileFile,
                       const std::string& profile, const std::string& device) {
  const std::string id = LibOrvoVTE::VTEStream::VTE_Init(
      path, type, Json::Value(Json::objectValue), profileFile, profile, device, 0);
  if (!id.empty() && id != LibOrvoVTE::kTransSpaceNotEnough) return id;
  std::cerr << "vtetool: " << command << ": no " << type << " session for " << path << " ("
            << (id.empty() ? "the system log says why" : id) << ")" << std::endl;
  return "";
}

int CloseSession(const std::string& command, const std::string& kind,
                 LibOrvoVTE::AdaptStream& stream, const std::string& id) {
  if (access(stream.GetVTEFileFullPath("").c_str(), F_OK) != 0) {
    std::cerr << "vtetool: " << command << ": no " << kind << " session " << id << std::endl;
    return kFailed;
  }
  stream.Close();
  std::cout << "closed " << id << std::endl;
  return kOk;
}

}  // namespace vtetool
