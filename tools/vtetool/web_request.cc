#include "tools/vtetool/web_request.h"

#include <fcntl.h>
#include <unistd.h>

#include <iostream>

#include "tools/vtetool/command.h"
#include "toolkit/answer_file.h"
#include "toolkit/child_process.h"
#include "vte/liborvovte.h"

namespace vtetool {

bool AsWebRequest(const std::function<std::string()>& body, std::string* answer) {
  // The answer comes back once the request has ended, whatever the
  // processes it started still hold.
  const toolkit::AnswerFile file;
  const pid_t pid = toolkit::StartFunction([&] {
    const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(devNull, fd);
    return file.Write(body()) ? 0 : 1;
  });
  if (toolkit::WaitFor(pid, kRequestTimeout) != 0) return false;
  *answer = file.Read();
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
