#include "tests/support/child.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
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

std::string TextFromChild(const std::function<std::string()>& body, int timeoutSeconds) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return "<child failed with status -1>";
  const pid_t pid = StartChild([&] {
    close(fds[0]);
    const std::string text = body();
    size_t done = 0;
    while (done < text.size()) {
      const ssize_t wrote = write(fds[1], text.data() + done, text.size() - done);
      if (wrote <= 0) return 1;
      done += wrote;
    }
    return 0;
  });
  close(fds[1]);
  // The child may hang with the pipe open, so reading is bounded as well.
  std::string text;
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (;;) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long leftMs = timeoutSeconds * 1000LL - ((now.tv_sec - start.tv_sec) * 1000LL +
                                                        (now.tv_nsec - start.tv_nsec) / 1000000);
    struct pollfd readable = {fds[0], POLLIN, 0};
    if (pid < 0 || leftMs <= 0 || poll(&readable, 1, static_cast<int>(leftMs)) <= 0) break;
    char chunk[4096];
    const ssize_t got = read(fds[0], chunk, sizeof(chunk));
    if (got <= 0) break;
    text.append(chunk, got);
  }
  close(fds[0]);
  const int status = WaitForChild(pid, 1);
  return status == 0 ? text : "<child failed with status " + std::to_string(status) + ">";
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
