#include "vte/utils/lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/log.h"
#include "platform/orvofs.h"

namespace LibReelhall {
namespace {

constexpr char kLogTag[] = "lock";

// Lock directories are shared by the web-API processes and the monitors,
// which run as different users: they belong to the application's user and
// group and are open to all.
constexpr uid_t kLockDirUid = 1024;
constexpr gid_t kLockDirGid = 100;
constexpr mode_t kLockDirMode = 0777;

}  // namespace

Lock::Lock(const std::string& path) : fd_(-1), path_(path), locked_(false) {
  locked_ = LockFile();
}

Lock::~Lock() { UnlockFile(); }

bool Lock::LockFile() {
  const std::string::size_type slash = path_.rfind('/');
  if (slash == std::string::npos) {
    librh::log::Write(LOG_ERR, kLogTag, 38, "Find dir path failed %s", path_.c_str());
    return false;
  }
  const std::string dir = path_.substr(0, slash);
  struct stat st;
  if (stat(dir.c_str(), &st) != 0 &&
      ORVOFSMkdirP(dir.c_str(), 0, 1, kLockDirUid, kLockDirGid, kLockDirMode) < 0) {
    librh::log::Write(LOG_ERR, kLogTag, 46, "Fail to create dir [%s]", dir.c_str());
    return false;
  }
  // A transcoder started while the lock is held must not inherit it, or the
  // lock would live as long as the transcoder.
  fd_ = open(path_.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0777);
  if (fd_ < 0) return false;
  return flock(fd_, LOCK_EX) == 0;
}

void Lock::UnlockFile() {
  if (fd_ < 0) return;
  if (locked_) flock(fd_, LOCK_UN);
  close(fd_);
  fd_ = -1;
}

bool Lock::IsLockSucess() const { return locked_ && fd_ >= 0; }

}  // namespace LibReelhall
