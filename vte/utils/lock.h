// An exclusive advisory lock on a file, held for the object's lifetime.
#pragma once

#include <string>

namespace LibReelhall {

class Lock {
 public:
  // Creates the lock file (and its directory) when missing and takes an
  // exclusive flock on it, waiting when `blocking`, failing at once when not.
  Lock(const std::string& path, bool blocking);
  virtual ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  bool LockFile();
  void UnlockFile();
  bool IsLockSucess() const;

 protected:
  int fd_;
  std::string path_;
  bool blocking_;
  bool locked_;
};

}  // namespace LibReelhall
