#include "nas/launchers/supervisor.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>

#include "toolkit/child_process.h"

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
  struct sigaction forward = {};
  forward.sa_handler = Forward;
  sigemptyset(&forward.sa_mask);
  forward.sa_flags = SA_RESTART;
  sigaction(SIGINT, &forward, nullptr);
  sigaction(SIGTERM, &forward, nullptr);
  toolkit::Wiring wiring;
  wiring.in = toolkit::kInherit;
  wiring.dieWithParent = true;
  const pid_t pid = toolkit::StartProgram(argv, wiring, error);
  if (pid < 0) return -1;
  gChild = pid;
  if (gPending != 0) kill(pid, gPending);
  int status = 0;
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
