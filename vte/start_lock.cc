// The turn a restart of an adaptive stream takes, and how a later request
// tells a restart under way from one that died before its monitor started.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "vte/adapt_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

constexpr char kStartLockFile[] = "start_lock";
constexpr mode_t kStartLockMode = 0660;
// As long as a request waits for its fragment, looking often enough to take
// the turn within tens of milliseconds of its release.
constexpr int kStartLockTickMs = 20;
constexpr int kStartLockTicks = 60 * 1000 / kStartLockTickMs;
// Where a restart announces the run it starts, and where the run's monitor
// records itself.
constexpr char kSeekTimeFile[] = "seek_time";
constexpr char kMonitorPidFile[] = "monitor.pid";

// Whether `later` was last written no earlier than `earlier`, or `earlier`
// was never written.
bool WrittenSince(const std::string& later, const std::string& earlier) {
  struct stat first;
  struct stat second;
  if (stat(earlier.c_str(), &first) != 0) return true;
  if (stat(later.c_str(), &second) != 0) return false;
  if (second.st_mtim.tv_sec != first.st_mtim.tv_sec) {
    return second.st_mtim.tv_sec > first.st_mtim.tv_sec;
  }
  return second.st_mtim.tv_nsec >= first.st_mtim.tv_nsec;
}

// Takes `operation` (LOCK_EX, LOCK_SH) on `fd`, polled, so that a turn held
// by a stuck request is not waited for longer than a restart may take.
bool PollLock(int fd, int operation) {
  for (int tick = 0; tick < kStartLockTicks; ++tick) {
    if (flock(fd, operation | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    struct timespec wait = {0, kStartLockTickMs * 1000 * 1000};
    nanosleep(&wait, nullptr);
  }
  return false;
}

}  // namespace

int AdaptStream::TakeStartLock() const {
  const std::string path = GetVTEFileFullPath(kStartLockFile);
  const int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, kStartLockMode);
  if (fd >= 0 && PollLock(fd, LOCK_EX)) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

int AdaptStream::TryStartLock() const {
  // Without the lock file no restart ever took a turn here.
  const int fd = open(GetVTEFileFullPath(kStartLockFile).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  if (flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
  close(fd);
  return -1;
}

void AdaptStream::WaitForStartTurn() const {
  const int fd = open(GetVTEFileFullPath(kStartLockFile).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  PollLock(fd, LOCK_SH);
  close(fd);
}

bool AdaptStream::IsStartLockFree() const {
  const int fd = TryStartLock();
  if (fd < 0) return false;
  close(fd);
  return true;
}

bool AdaptStream::NoRunWillWrite(const std::string& fragmentFile) const {
  if (VerifyFileExist(fragmentFile, 0)) return false;
  // Only the monitor of the run the newest restart announced writes what
  // was asked for: it records itself after the announcement. One recorded
  // before is a run that restart is stopping, or has given up stopping
  // because its request died on the way.
  return !IsFFmpegRun() || !WrittenSince(GetVTEFileFullPath(kMonitorPidFile),
                                         GetVTEFileFullPath(kSeekTimeFile));
}

bool AdaptStream::IsStartAbandoned(const std::string& fragmentFile) const {
  // Asked after the lock: a monitor records itself before its turn ends.
  return IsStartLockFree() && NoRunWillWrite(fragmentFile);
}

}  // namespace LibOrvoVTE
