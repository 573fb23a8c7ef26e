#include "tests/support/child.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "toolkit/answer_file.h"

namespace orvotest {

bool WaitUntil(const std::function<bool()>& condition, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

std::string TextFromChild(const std::function<std::string()>& body, int timeoutSeconds) {
  const toolkit::AnswerFile answer;
  const int status = RunInChild([&] { return answer.Write(body()) ? 0 : 1; }, timeoutSeconds);
  return status == 0 ? answer.Read() : "<child failed with status " + std::to_string(status) + ">";
}

void SendOutputTo(const std::string& log) {
  const int fd = open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  dup2(fd, STDOUT_FILENO);
  dup2(fd, STDERR_FILENO);
  close(fd);
}

namespace {

bool BecomeNobody(bool keepRootSaved) {
  const struct passwd* nobody = getpwnam("nobody");
  const uid_t uid = nobody ? nobody->pw_uid : 65534;
  const gid_t gid = nobody ? nobody->pw_gid : 65534;
  return setgroups(0, nullptr) == 0 && setresgid(gid, gid, keepRootSaved ? 0 : gid) == 0 &&
         setresuid(uid, uid, keepRootSaved ? 0 : uid) == 0 && geteuid() == uid && getuid() == uid;
}

}  // namespace

bool DropToUnprivilegedUser() { return BecomeNobody(false); }

bool BecomeWebServerUser() { return BecomeNobody(true); }

}  // namespace orvotest
