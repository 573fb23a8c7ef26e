// The turn a restart of an adaptive stream takes, and how a later request
// tells a restart under way from one that died before its monitor started.
#include <fcntl.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "vte/adapt_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

constexpr char kStartLockFile[] = "start_lock";
constexpr mode_t kStartLockMode = 0660;
// As long as a request waits for its fragment.
constexpr int kStartLockTenths = 600;

}  // namespace

int AdaptStream::TakeStartLock() const {
  const std::string path = GetVTEFileFullPath(kStartLockFile);
  const int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, kStartLockMode);
  if (fd < 0) return -1;
  // Polled, so that a turn held by a stuck request is not waited for longer.
  for (int tenth = 0; tenth < kStartLockTenths; ++tenth) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
    if (errno != EWOULDBLOCK && errno != EINTR) break;
    struct timespec wait = {0, 100 * 1000 * 1000};
    nanosleep(&wait, nullptr);
  }
  close(fd);
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

bool AdaptStream::IsStartLockFree() const {
  const int fd = TryStartLock();
  if (fd < 0) return false;
  close(fd);
  return true;
}

bool AdaptStream::NoRunWillWrite(const std::string& fragmentFile) const {
  return !VerifyFileExist(fragmentFile, 0) && !IsFFmpegRun();
}

bool AdaptStream::IsStartAbandoned(const std::string& fragmentFile) const {
  // Asked after the lock: a monitor records itself before its turn ends.
  return IsStartLockFree() && NoRunWillWrite(fragmentFile);
}

}  // namespace LibOrvoVTE
