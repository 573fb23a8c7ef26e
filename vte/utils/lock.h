// An exclusive advisory lock on a file, held for the object's lifetime.
#pragma once

#include <string>

namespace LibReelhall {

class Lock {
 public:
  // Creates the lock file (and its directory) when missing and takes an
  // exclusive flock on it, waiting for it.
  explicit Lock(const std::string& path);
  virtual ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  bool LockFile();
  void UnlockFile();
  bool IsLockSucess() const;

 protected:
  int fd_;
  std::string path_;
  bool locked_;
};

}  // namespace LibReelhall
