#include "vte/utils/lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/support/child.h"
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
  const std::string path = root.At("/tmp/Reelhall/HLS/session/filelock");
  InspectedLock lock(path, true);
  ASSERT_TRUE(lock.IsLockSucess());
  const int fd = lock.Fd();
  EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
  lock.UnlockFile();
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "descriptor " << fd << " still open";
  EXPECT_TRUE(InspectedLock(path, false).IsLockSucess()) << "the unlocked file is free again";

  root.WriteFile("/tmp/plain-file", "x");
  for (const std::string& bad : {std::string("name"), root.At("/tmp/plain-file/sub/lock"), root.At("/tmp")}) {
    InspectedLock failed(bad, true);
    EXPECT_FALSE(failed.IsLockSucess()) << bad;
    EXPECT_EQ(-1, failed.Fd()) << bad;
  }
}

// The holder is another process; it lets go at most ten seconds on, so a
// lock that waited when it must not shows as taken.
TEST(LockTest, NonBlockingLockFailsWhileAnotherProcessHoldsItAndNotOnceItDied) {
  orvotest::MachineRoot root;
  const std::string path = root.At("/tmp/Reelhall/enabled");
  int held[2];
  ASSERT_EQ(0, pipe2(held, O_CLOEXEC));
  const pid_t holder = orvotest::StartChild([&] {
    Lock lock(path, true);
    if (!lock.IsLockSucess() || write(held[1], "x", 1) != 1) return 1;
    poll(nullptr, 0, 10000);
    return 0;
  });
  close(held[1]);
  char byte;
  ASSERT_EQ(1, read(held[0], &byte, 1)) << "the holder never took the lock";
  close(held[0]);
  EXPECT_FALSE(Lock(path, false).IsLockSucess());
  kill(holder, SIGKILL);
  orvotest::WaitForChild(holder, 10);
  EXPECT_TRUE(Lock(path, false).IsLockSucess()) << "the lock ends with its holder";
}

}  // namespace
}  // namespace LibReelhall
