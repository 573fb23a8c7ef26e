#include "vte/utils/recorded_process.h"

#include <poll.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sstream>

#include "platform/olibc.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

constexpr char kPidSuffix[] = ".pid";
constexpr char kIdentitySuffix[] = ".start";
// Changes at every boot: a record that survived a reboot on a data volume
// names no process of this boot, whatever its start time.
constexpr char kBootIdFile[] = "/proc/sys/kernel/random/boot_id";
// Fields of /proc/<pid>/stat after the command name: state is the first,
// the start time (clock ticks since boot) the twentieth. Ticks are coarse,
// but a pid comes round again only after the whole pid space has been
// handed out.
constexpr int kStartTimeField = 20;
// Where there are no pidfds, how often an end is looked for.
constexpr int kPollTickMs = 20;

// Called directly: glibc 2.36 declares pidfd_open without C linkage for C++.
int OpenPidfd(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

bool SendThroughPidfd(int pidfd, int signal) {
  return syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0) == 0;
}

// The identity of process `pid`: the boot id and its start time; "" when
// the process does not exist.
std::string IdentityOf(pid_t pid) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  // The command name may hold spaces and parentheses: the fields follow
  // the last ')'.
  const size_t nameEnd = stat.rfind(')');
  if (nameEnd == std::string::npos) return "";
  std::istringstream fields(stat.substr(nameEnd + 1));
  std::string field;
  for (int number = 0; number < kStartTimeField && fields >> field; ++number) {
  }
  if (!fields || field.empty()) return "";
  std::string boot = ReadFile(kBootIdFile);
  while (!boot.empty() && (boot.back() == '\n' || boot.back() == ' ')) boot.pop_back();
  return boot + " " + field;
}

int MsLeft(const struct timespec& deadline) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long left = (deadline.tv_sec - now.tv_sec) * 1000LL +
                         (deadline.tv_nsec - now.tv_nsec) / 1000000LL;
  return left > 0 ? static_cast<int>(left) : 0;
}

struct timespec DeadlineIn(int ms) {
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += ms / 1000;
  deadline.tv_nsec += (ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

}  // namespace

std::string IdentityFileOf(const std::string& pidFile) {
  const std::string suffix = kPidSuffix;
  if (pidFile.size() > suffix.size() &&
      pidFile.compare(pidFile.size() - suffix.size(), suffix.size(), suffix) == 0) {
    return pidFile.substr(0, pidFile.size() - suffix.size()) + kIdentitySuffix;
  }
  return pidFile + kIdentitySuffix;
}

bool RecordProcess(const std::string& pidFile, pid_t pid) {
  if (pidFile.empty() || pid < 1) return false;
  // The identity first: until the pid follows, a reader pairs the old pid
  // with the new identity, and takes the old process for gone.
  const std::string identityFile = IdentityFileOf(pidFile);
  const std::string identity = IdentityOf(pid);
  bool identified = true;
  if (identity.empty()) {
    unlink(identityFile.c_str());
  } else {
    identified = SaveFile(identityFile, identity);
  }
  return SaveFile(pidFile, std::to_string(pid)) && identified;
}

void RemoveProcessRecord(const std::string& pidFile) {
  if (pidFile.empty()) return;
  unlink(pidFile.c_str());
  unlink(IdentityFileOf(pidFile).c_str());
}

RecordedProcess::RecordedProcess(const std::string& pidFile) {
  if (pidFile.empty()) return;
  const std::string text = ReadFile(pidFile);
  if (text.empty()) return;
  pid_ = static_cast<pid_t>(strtol(text.c_str(), nullptr, 10));
  if (pid_ < 1) {
    pid_ = -1;
    return;
  }
  identity_ = ReadFile(IdentityFileOf(pidFile));
  // A pid recorded without an identity cannot be told from a reused one.
  if (identity_.empty()) return;
  // Held before the identity is compared: if the process with this pid is
  // still there after the comparison, the comparison was about it.
  pidfd_ = OpenPidfd(pid_);
  if (pidfd_ < 0 && errno == ESRCH) return;
  if (IdentityOf(pid_) != identity_) {
    if (pidfd_ >= 0) close(pidfd_);
    pidfd_ = -1;
    return;
  }
  recorded_ = true;
}

RecordedProcess::~RecordedProcess() {
  if (pidfd_ >= 0) close(pidfd_);
}

bool RecordedProcess::IsRunning() const {
  if (!recorded_) return false;
  if (pidfd_ >= 0) {
    struct pollfd ended = {pidfd_, POLLIN, 0};
    return poll(&ended, 1, 0) == 0;
  }
  return OLIBCProcAlive(pid_) && IdentityOf(pid_) == identity_;
}

bool RecordedProcess::Signal(int signal) const {
  if (!IsRunning()) return false;
  if (pidfd_ >= 0) return SendThroughPidfd(pidfd_, signal);
  return kill(pid_, signal) == 0;
}

bool RecordedProcess::WaitForEnd(int timeoutMs) const {
  if (!recorded_) return true;
  const struct timespec deadline = DeadlineIn(timeoutMs);
  if (pidfd_ >= 0) {
    struct pollfd ended = {pidfd_, POLLIN, 0};
    int ready;
    do {
      ready = poll(&ended, 1, MsLeft(deadline));
    } while (ready < 0 && errno == EINTR);
    return ready != 0;
  }
  while (IsRunning()) {
    const int left = MsLeft(deadline);
    if (left == 0) return false;
    const int tick = left < kPollTickMs ? left : kPollTickMs;
    struct timespec pause = {0, tick * 1000000L};
    nanosleep(&pause, nullptr);
  }
  return true;
}

}  // namespace LibOrvoVTE
