#include "vte/utils/lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/machine_root.h"

namespace LibReelhall {
namespace {

class InspectedLock : public Lock {
 public:
  using Lock::Lock;
  int Fd() const { return fd_; }
};

// A transcoder started while the lock is held must not inherit it, and an
// unlocked or failed object holds nothing.
TEST(LockTest, HoldsOneCloseOnExecDescriptorUntilUnlocked) {
  orvotest::MachineRoot root;
  InspectedLock lock(root.At("/tmp/Reelhall/HLS/session/filelock"));
  ASSERT_TRUE(lock.IsLockSucess());
  const int fd = lock.Fd();
  EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
  lock.UnlockFile();
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "descriptor " << fd << " still open";
  root.WriteFile("/tmp/plain-file", "x");
  for (const std::string& bad : {std::string("name"), root.At("/tmp/plain-file/sub/lock"), root.At("/tmp")}) {
    InspectedLock failed(bad);
    EXPECT_FALSE(failed.IsLockSucess()) << bad;
    EXPECT_EQ(-1, failed.Fd()) << bad;
  }
}

}  // namespace
}  // namespace LibReelhall
