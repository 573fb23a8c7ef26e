#include "tests/support/child.h"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace orvotest {

pid_t StartChild(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  int status = 1;
  status = body();
  _exit(status);
}

int WaitForChild(pid_t pid, int timeoutSeconds) {
  if (pid < 0) return -1;
  const long long deadlineMs = timeoutSeconds * 1000LL;
  for (long long waitedMs = 0;; waitedMs += 10) {
    int status = 0;
    pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (done < 0) return -1;
    if (waitedMs >= deadlineMs) break;
    struct timespec tick = {0, 10 * 1000 * 1000};
    nanosleep(&tick, nullptr);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

int RunInChild(const std::function<int()>& body, int timeoutSeconds) {
  return WaitForChild(StartChild(body), timeoutSeconds);
}

bool DropToUnprivilegedUser() {
  const struct passwd* nobody = getpwnam("nobody");
  uid_t uid = nobody ? nobody->pw_uid : 65534;
  gid_t gid = nobody ? nobody->pw_gid : 65534;
  if (setgroups(0, nullptr) != 0) return false;
  if (setresgid(gid, gid, gid) != 0) return false;
  if (setresuid(uid, uid, uid) != 0) return false;
  return geteuid() == uid && getuid() == uid;
}

}  // namespace orvotest
