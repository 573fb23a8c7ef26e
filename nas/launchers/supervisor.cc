#include "nas/launchers/supervisor.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace launchers {
namespace {

volatile sig_atomic_t gChild = 0;
// A stop request that came before the child existed.
volatile sig_atomic_t gPending = 0;

void Forward(int signal) {
  if (gChild > 0) {
    kill(gChild, signal);
  } else {
    gPending = signal;
  }
}

void SleepMs(int ms) {
  struct timespec tick = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&tick, nullptr);  // a forwarded signal may cut it short; the loop copes
}

}  // namespace

int Supervise(const std::vector<std::string>& argv, const std::function<void()>& tick,
              int tickMs, std::string* error) {
  // Everything the child touches is made here: after fork it may only make
  // async-signal-safe calls.
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  struct sigaction forward = {};
  forward.sa_handler = Forward;
  sigemptyset(&forward.sa_mask);
  forward.sa_flags = SA_RESTART;
  struct sigaction byDefault = {};
  byDefault.sa_handler = SIG_DFL;
  sigemptyset(&byDefault.sa_mask);
  sigset_t stops, previous;
  sigemptyset(&stops);
  sigaddset(&stops, SIGINT);
  sigaddset(&stops, SIGTERM);

  int execError[2];
  if (pipe2(execError, O_CLOEXEC) != 0) {
    *error = std::string("pipe: ") + strerror(errno);
    return -1;
  }
  sigaction(SIGINT, &forward, nullptr);
  sigaction(SIGTERM, &forward, nullptr);
  sigprocmask(SIG_BLOCK, &stops, &previous);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // the launcher died before prctl took hold
    sigaction(SIGINT, &byDefault, nullptr);
    sigaction(SIGTERM, &byDefault, nullptr);
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    execv(words[0], words.data());
    const int failure = errno;
    ssize_t ignored = write(execError[1], &failure, sizeof(failure));
    (void)ignored;
    _exit(127);
  }
  close(execError[1]);
  if (pid < 0) {
    *error = std::string("fork: ") + strerror(errno);
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    close(execError[0]);
    return -1;
  }
  gChild = pid;
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  if (gPending != 0) kill(pid, gPending);

  // The pipe closes at exec; data in it means exec failed.
  int failure = 0;
  ssize_t got;
  do {
    got = read(execError[0], &failure, sizeof(failure));
  } while (got < 0 && errno == EINTR);
  close(execError[0]);
  int status = 0;
  if (got == static_cast<ssize_t>(sizeof(failure))) {
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    gChild = 0;
    *error = "cannot run " + argv[0] + ": " + strerror(failure);
    return -1;
  }
  for (;;) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid || (done < 0 && errno != EINTR)) break;
    tick();
    SleepMs(tickMs);
  }
  gChild = 0;
  tick();
  return status;
}

void ExitLike(int waitStatus) {
  if (WIFSIGNALED(waitStatus)) {
    const int signal = WTERMSIG(waitStatus);
    struct sigaction byDefault = {};
    byDefault.sa_handler = SIG_DFL;
    sigaction(signal, &byDefault, nullptr);
    raise(signal);
    exit(128 + signal);
  }
  exit(WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 1);
}

}  // namespace launchers
