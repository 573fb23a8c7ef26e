#include "toolkit/child_process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace toolkit {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What a child told to stop gets before it is killed.
constexpr milliseconds kStopGrace{1000};
constexpr milliseconds kPollTick{10};
constexpr int kExecFailed = 127;

enum class State { kEnded, kRunning, kGone };

State Reap(pid_t pid, int* status) {
  pid_t done;
  do {
    done = waitpid(pid, status, WNOHANG);
  } while (done < 0 && errno == EINTR);
  if (done == pid) return State::kEnded;
  return done == 0 ? State::kRunning : State::kGone;
}

int MillisUntil(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<long long>(0, std::min<long long>(left, 1 << 30)));
}

// A pidfd turns the wait into one poll, so a wait's length is not rounded up
// to a tick; kernels without it get the tick.
State AwaitEnd(pid_t pid, Clock::time_point deadline, int* status) {
  // Called directly: glibc 2.36 declares pidfd_open without C linkage for C++.
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  State state;
  while ((state = Reap(pid, status)) == State::kRunning) {
    const int left = MillisUntil(deadline);
    if (left == 0) break;
    if (pidfd >= 0) {
      struct pollfd ended = {pidfd, POLLIN, 0};
      poll(&ended, 1, left);
    } else {
      const int tick = std::min<int>(left, kPollTick.count());
      const struct timespec pause = {0, tick * 1000L * 1000L};
      nanosleep(&pause, nullptr);
    }
  }
  if (pidfd >= 0) close(pidfd);
  return state;
}

// Runs in the child between fork and exec: async-signal-safe calls only.
void PointAt(int source, int target, int devNull) {
  if (source == kInherit) return;
  if (source == kDevNull) source = devNull;
  if (source == target) {
    fcntl(target, F_SETFD, 0);
  } else {
    dup2(source, target);
  }
}

}  // namespace

pid_t StartProgram(const std::vector<std::string>& argv, const Wiring& wiring, std::string* error) {
  auto fail = [error](const std::string& why) {
    if (error != nullptr) *error = why;
    return -1;
  };
  if (argv.empty()) return fail("nothing to run");
  // Everything the child touches is made before fork.
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
  int failure[2];
  if (devNull < 0 || pipe2(failure, O_CLOEXEC) != 0) {
    const std::string why = strerror(errno);
    if (devNull >= 0) close(devNull);
    return fail("cannot prepare " + argv[0] + ": " + why);
  }
  // No handler of this process may run in the child before its exec.
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    if (wiring.dieWithParent) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(kExecFailed);  // the parent died before prctl took hold
    }
    if (wiring.rootIfHeld && seteuid(0) == 0 &&
        (setresgid(0, 0, 0) != 0 || setresuid(0, 0, 0) != 0)) {
      _exit(kExecFailed);
    }
    for (int number = 1; number < NSIG; ++number) {
      struct sigaction now;
      if (sigaction(number, nullptr, &now) == 0 && now.sa_handler != SIG_DFL &&
          now.sa_handler != SIG_IGN) {
        signal(number, SIG_DFL);
      }
    }
    PointAt(wiring.in, STDIN_FILENO, devNull);
    PointAt(wiring.out, STDOUT_FILENO, devNull);
    PointAt(wiring.err, STDERR_FILENO, devNull);
    // What the program was not meant to get closes at exec (kernels before
    // close_range's flag leave that to each descriptor's own flag).
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    for (const int fd : wiring.kept) fcntl(fd, F_SETFD, 0);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    execvp(words[0], words.data());
    const int code = errno;
    ssize_t ignored = write(failure[1], &code, sizeof(code));
    (void)ignored;
    _exit(kExecFailed);
  }
  const int forkError = errno;
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  close(failure[1]);
  close(devNull);
  if (pid < 0) {
    close(failure[0]);
    return fail("cannot fork for " + argv[0] + ": " + strerror(forkError));
  }
  // The pipe closes at exec; a number in it means the exec failed.
  int code = 0;
  ssize_t got;
  do {
    got = read(failure[0], &code, sizeof(code));
  } while (got < 0 && errno == EINTR);
  close(failure[0]);
  if (got == static_cast<ssize_t>(sizeof(code))) {
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return fail("cannot run " + argv[0] + ": " + strerror(code));
  }
  return pid;
}

pid_t StartFunction(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  _exit(body());
}

int WaitFor(pid_t pid, milliseconds timeout) {
  if (pid <= 0) return -1;
  int status = 0;
  State state = AwaitEnd(pid, Clock::now() + timeout, &status);
  if (state == State::kGone) return -1;
  if (state == State::kRunning) {
    kill(pid, SIGTERM);
    if (AwaitEnd(pid, Clock::now() + kStopGrace, &status) == State::kRunning) {
      kill(pid, SIGKILL);
      while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunProgram(const std::vector<std::string>& argv, milliseconds timeout, const OutputSink& sink,
               Wiring wiring) {
  const Clock::time_point deadline = Clock::now() + timeout;
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return -1;
  wiring.out = out[1];
  const pid_t pid = StartProgram(argv, wiring);
  close(out[1]);
  if (pid < 0) {
    close(out[0]);
    return -1;
  }
  char chunk[65536];
  for (;;) {
    struct pollfd readable = {out[0], POLLIN, 0};
    const int left = MillisUntil(deadline);
    const int ready = left > 0 ? poll(&readable, 1, left) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    const ssize_t got = read(out[0], chunk, sizeof(chunk));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    if (sink) sink(chunk, static_cast<size_t>(got));
  }
  close(out[0]);
  return WaitFor(pid, milliseconds(MillisUntil(deadline)));
}

int RunProgram(const std::vector<std::string>& argv, milliseconds timeout, std::string* output,
               Wiring wiring) {
  return RunProgram(
      argv, timeout, [output](const char* data, size_t size) { output->append(data, size); },
      std::move(wiring));
}

}  // namespace toolkit
