#include <fcntl.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "platform/olibc.h"

namespace {

constexpr char kDevNull[] = "/dev/null";
// The kernel's own process table, never a platform file: it is not resolved
// under the machine root, since the pids asked about are real processes.
constexpr char kProcStatFormat[] = "/proc/%d/stat";

// Everything the child needs, prepared before fork: after fork in a threaded
// process the child may not allocate or take locks.
struct ChildPlan {
  const char* path;
  char* const* argv;
  int devNull;
  int errorPipe;  // write end; close-on-exec, so a successful exec closes it
  int maxFd;      // highest descriptor the fallback close loop visits
  struct sigaction defaultAction;
  sigset_t emptyMask;
};

int RetryWaitPid(pid_t pid, int* status) {
  int result;
  do {
    result = waitpid(pid, status, 0);
  } while (result < 0 && errno == EINTR);
  return result;
}

// Child side, async-signal-safe only: the parent reads `error` from the pipe.
[[noreturn]] void FailChild(int errorPipe, int error) {
  ssize_t ignored = write(errorPipe, &error, sizeof(error));
  (void)ignored;
  _exit(127);
}

// Closes every descriptor above stderr except the error pipe, which
// close-on-exec takes care of.
void CloseSuperfluousFds(const ChildPlan& plan) {
  unsigned pipeFd = static_cast<unsigned>(plan.errorPipe);
  if (pipeFd >= 3) {
    if (pipeFd > 3 && close_range(3, pipeFd - 1, 0) != 0) {
      for (int fd = 3; fd < plan.errorPipe; ++fd) close(fd);
    }
    if (close_range(pipeFd + 1, ~0U, 0) != 0) {
      for (int fd = plan.errorPipe + 1; fd <= plan.maxFd; ++fd) close(fd);
    }
  } else if (close_range(3, ~0U, 0) != 0) {
    for (int fd = 3; fd <= plan.maxFd; ++fd) close(fd);
  }
}

// Runs in the child after fork; async-signal-safe calls only.
[[noreturn]] void ExecChild(const ChildPlan& plan) {
  // Handlers and ignored signals of the engine are not the program's; the
  // parent blocked everything around fork, which is undone here too.
  for (int sig = 1; sig < NSIG; ++sig) sigaction(sig, &plan.defaultAction, nullptr);
  sigprocmask(SIG_SETMASK, &plan.emptyMask, nullptr);

  if (plan.devNull == STDIN_FILENO) {
    // dup2 onto itself would keep close-on-exec and leave the program
    // without a standard input.
    if (fcntl(STDIN_FILENO, F_SETFD, 0) != 0) FailChild(plan.errorPipe, errno);
  } else if (dup2(plan.devNull, STDIN_FILENO) < 0) {
    FailChild(plan.errorPipe, errno);
  }
  CloseSuperfluousFds(plan);
  execv(plan.path, plan.argv);
  FailChild(plan.errorPipe, errno);
}

// Reads what the child reported: 0 when the exec succeeded (the pipe closed
// empty), otherwise the child's errno.
int ReadChildError(int readFd) {
  int error = 0;
  ssize_t n;
  do {
    n = read(readFd, &error, sizeof(error));
  } while (n < 0 && errno == EINTR);
  if (n == static_cast<ssize_t>(sizeof(error))) return error != 0 ? error : EIO;
  return n == 0 ? 0 : EIO;
}

int HighestFd() {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 4096;
  // Only used where close_range is missing; a huge limit would make the
  // child loop for seconds.
  return limit.rlim_cur > 65536 ? 65536 : static_cast<int>(limit.rlim_cur);
}

int Fail(int error) {
  OLIBCErrSet(error);
  errno = error;
  return -1;
}

// Starts `path` with `argv`, waits for it and returns its exit status.
int Spawn(const char* path, const char* const argv[]) {
  if (path == nullptr || argv == nullptr || argv[0] == nullptr) return Fail(EINVAL);

  ChildPlan plan;
  plan.path = path;
  plan.argv = const_cast<char* const*>(argv);
  plan.maxFd = HighestFd();
  memset(&plan.defaultAction, 0, sizeof(plan.defaultAction));
  plan.defaultAction.sa_handler = SIG_DFL;
  sigemptyset(&plan.defaultAction.sa_mask);
  sigemptyset(&plan.emptyMask);

  plan.devNull = open(kDevNull, O_RDONLY | O_CLOEXEC);
  if (plan.devNull < 0) return Fail(errno);
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    int error = errno;
    close(plan.devNull);
    return Fail(error);
  }
  plan.errorPipe = pipeFds[1];

  // With every signal blocked across fork, no engine handler can run in the
  // child before ExecChild has reset the dispositions.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  pid_t pid = fork();
  if (pid == 0) ExecChild(plan);
  int forkError = errno;
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  close(pipeFds[1]);
  close(plan.devNull);
  if (pid < 0) {
    close(pipeFds[0]);
    return Fail(forkError);
  }

  int childError = ReadChildError(pipeFds[0]);
  close(pipeFds[0]);
  int status = 0;
  int reaped = RetryWaitPid(pid, &status);
  if (childError != 0) return Fail(childError);
  // ECHILD: SIGCHLD is ignored or someone else reaped the child, so its
  // status is gone.
  if (reaped < 0) return Fail(errno);
  if (!WIFEXITED(status)) return Fail(ECHILD);
  return WEXITSTATUS(status);
}

}  // namespace

int OLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4) {
  // execv stops at the first null, which is how callers shorten the list.
  const char* const argv[] = {path, arg1, arg2, arg3, arg4, nullptr};
  return Spawn(path, argv);
}

int OLIBCExecv(const char* path, const char* const argv[], int wait) {
  if (wait == 0) return Fail(EINVAL);
  return Spawn(path, argv);
}

int OLIBCProcForkChildNoWait() {
  pid_t pid = fork();
  if (pid < 0) return Fail(errno);
  if (pid == 0) {
    pid_t grandchild = fork();
    if (grandchild == 0) return 0;
    _exit(grandchild < 0 ? 1 : 0);
  }
  int status = 0;
  if (RetryWaitPid(pid, &status) < 0) {
    // The intermediate was reaped elsewhere (SIGCHLD ignored, or a wait()
    // for any child in this process); its fork is all that can be known.
    return errno == ECHILD ? 1 : Fail(errno);
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return Fail(EAGAIN);
  return 1;
}

bool OLIBCProcAlive(pid_t pid) {
  if (pid < 1) return false;
  if (kill(pid, 0) != 0 && errno != EPERM) return false;
  // kill() still reaches a zombie, but a zombie has finished its work.
  char path[64];
  snprintf(path, sizeof(path), kProcStatFormat, static_cast<int>(pid));
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno != ENOENT;  // no /proc to ask: trust kill()
  char stat[512];
  ssize_t n;
  do {
    n = read(fd, stat, sizeof(stat) - 1);
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return false;
  stat[n] = '\0';
  // "pid (comm) S ...": comm may hold spaces and parentheses, so the state
  // follows the last ')'.
  const char* commEnd = strrchr(stat, ')');
  if (commEnd == nullptr || commEnd[1] != ' ') return true;
  char state = commEnd[2];
  return state != 'Z' && state != 'X' && state != 'x';
}
