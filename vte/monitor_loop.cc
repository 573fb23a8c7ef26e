#include "vte/monitor_loop.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "platform/log.h"
#include "vte/utils/trans_loading.h"

namespace LibOrvoVTE {
namespace monitor {
namespace {

constexpr struct timespec kPoll = {2, 0};
// How often a stopping child is looked at: its end is noticed within this.
constexpr int kStopTickMs = 10;
// SIGKILL ends anything but a process stuck in the kernel.
constexpr int kKillWaitMs = 5000;

// Only there to cut the poll's sleep short.
void WakeUp(int) {}

void Release(const Children& children, pid_t pid) {
  if (!children.registered) return;
  LibReelhall::TransLoading registry;
  registry.RemoveTransPIDLock(pid);
}

void Reap(pid_t pid) {
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

// Whether child `pid` has ended within `ms`; it stays unreaped, so its pid
// cannot go to another process while its registry entry is released.
bool EndsWithin(pid_t pid, int ms) {
  for (int waited = 0;; waited += kStopTickMs) {
    siginfo_t info = {};
    const int result = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
    if (result != 0 && errno != EINTR) return true;  // not a child of this process any more
    if (result == 0 && info.si_pid == pid) return true;
    if (waited >= ms) return false;
    const struct timespec tick = {0, kStopTickMs * 1000000L};
    nanosleep(&tick, nullptr);
  }
}

void StopChild(const Children& children, pid_t* pid, bool registered) {
  if (pid == nullptr || *pid <= 0) return;
  const pid_t child = *pid;
  kill(child, SIGINT);
  bool ended = EndsWithin(child, children.stopGraceMs);
  if (!ended) {
    librh::log::Write(LOG_ERR, children.logTag, __LINE__, "Force Kill Transcoding Process %d",
                      static_cast<int>(child));
    kill(child, SIGKILL);
    ended = EndsWithin(child, kKillWaitMs);
  }
  if (registered) Release(children, child);
  if (ended) Reap(child);
  *pid = 0;
}

// Transcoders run as root through and through, and the kernel lets one
// process signal another (its death signal to its children included) only
// when one of its user ids is the other's real or saved one. A monitor of
// an unprivileged request with root saved therefore takes root as its real
// id, and its effective id as its saved one, so that the request's user can
// still signal the monitor.
void ShareRootWithChildren() {
  uid_t real = 0;
  uid_t effective = 0;
  uid_t saved = 0;
  if (getresuid(&real, &effective, &saved) == 0 && saved == 0 && real != 0 && effective != 0) {
    setresuid(0, static_cast<uid_t>(-1), effective);
  }
}

}  // namespace

void Supervise(const Children& children, const volatile sig_atomic_t& signalled,
               const std::function<bool()>& shouldStop) {
  ShareRootWithChildren();
  // The signals that end a poll's sleep stay blocked except in that sleep
  // and in the kind's own checks, so none is lost between a look and the
  // sleep after it.
  struct sigaction wake = {};
  wake.sa_handler = WakeUp;
  sigemptyset(&wake.sa_mask);
  wake.sa_flags = SA_RESTART;
  struct sigaction previousAction;
  sigaction(SIGCHLD, &wake, &previousAction);
  sigset_t wakers;
  sigemptyset(&wakers);
  sigaddset(&wakers, SIGINT);
  sigaddset(&wakers, SIGTERM);
  sigaddset(&wakers, SIGCHLD);
  sigset_t open;
  sigprocmask(SIG_BLOCK, &wakers, &open);

  for (;;) {
    siginfo_t ended = {};
    if (waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) != 0) {
      if (errno == EINTR) continue;
      break;  // no child left
    }
    if (ended.si_pid != 0) {
      const pid_t pid = ended.si_pid;
      const bool segmenting = children.segmenter != nullptr && *children.segmenter > 0;
      if (pid == *children.transcoder) {
        // Released before the reap, while the pid is still its own.
        Release(children, pid);
        Reap(pid);
        *children.transcoder = 0;
        // The segmenter behind it cuts what is still in the pipe, lists the
        // last segment and ends by itself; stopped now, it would leave that
        // segment cut short.
        if (!segmenting) break;
        continue;
      }
      Reap(pid);
      // A segmenter that ended before its transcoder is not stopped again.
      if (segmenting && pid == *children.segmenter) {
        *children.segmenter = 0;
        if (*children.transcoder == 0) break;
      }
      continue;
    }
    sigprocmask(SIG_SETMASK, &open, nullptr);
    const bool stop = shouldStop && shouldStop();
    sigprocmask(SIG_BLOCK, &wakers, nullptr);
    if (stop || signalled) break;
    ppoll(nullptr, 0, &kPoll, &open);
  }

  sigprocmask(SIG_SETMASK, &open, nullptr);
  sigaction(SIGCHLD, &previousAction, nullptr);
}

void Stop(const Children& children) {
  StopChild(children, children.transcoder, children.registered);
  StopChild(children, children.segmenter, false);
}

}  // namespace monitor
}  // namespace LibOrvoVTE
