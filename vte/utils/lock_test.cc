#include "vte/utils/lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "tests/support/child.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"

namespace LibReelhall {
namespace {

// Exposes the descriptor so the tests can see what the lock keeps open.
class InspectedLock : public Lock {
 public:
  using Lock::Lock;
  int Fd() const { return fd_; }
};

// A one-shot signal between a test and its child: Notify writes a byte, Wait
// reads it, and a closed peer ends the wait too, so no wait outlives the
// child.
class Signal {
 public:
  Signal() { valid_ = pipe2(fds_, O_CLOEXEC) == 0; }
  ~Signal() {
    CloseReader();
    CloseWriter();
  }
  bool Valid() const { return valid_; }
  bool Notify() { return write(fds_[1], "x", 1) == 1; }
  bool Wait() {
    char byte;
    return read(fds_[0], &byte, 1) == 1;
  }
  void CloseReader() { Close(fds_[0]); }
  void CloseWriter() { Close(fds_[1]); }

 private:
  static void Close(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
  int fds_[2] = {-1, -1};
  bool valid_ = false;
};

class LockTest : public orvotest::MachineRootTest {
 protected:
  std::string LockPath() { return Root().At("/tmp/Reelhall/enabled"); }
};

TEST_F(LockTest, FailsAndLogsForAPathWithoutADirectory) {
  orvotest::LogCapture logs;
  InspectedLock lock("name", true);
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_EQ(-1, lock.Fd());
  EXPECT_TRUE(logs.Has(LOG_ERR, "lock:38 Find dir path failed name")) << logs.Dump();
}

TEST_F(LockTest, CreatesTheMissingDirectoriesOpenToAll) {
  const mode_t oldMask = umask(022);  // the mode must not depend on the caller's umask
  const std::string outer = Root().At("/tmp/Reelhall/HLS");
  const std::string inner = outer + "/session";
  InspectedLock lock(inner + "/filelock", false);
  umask(oldMask);

  EXPECT_TRUE(lock.IsLockSucess());
  for (const std::string& dir : {outer, inner}) {
    struct stat st;
    ASSERT_EQ(0, stat(dir.c_str(), &st)) << dir;
    EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
    EXPECT_EQ(0777u, st.st_mode & 07777) << dir;
    if (geteuid() == 0) {
      EXPECT_EQ(1024u, st.st_uid) << dir;
      EXPECT_EQ(100u, st.st_gid) << dir;
    }
  }
  struct stat st;
  ASSERT_EQ(0, stat((inner + "/filelock").c_str(), &st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
}

TEST_F(LockTest, FailsWhenTheDirectoryOrFileCannotBeMade) {
  const std::string blocker = Root().At("/tmp/plain-file");
  std::ofstream(blocker) << "x";
  {
    orvotest::LogCapture logs;
    InspectedLock lock(blocker + "/sub/lock", true);
    EXPECT_FALSE(lock.IsLockSucess());
    EXPECT_TRUE(logs.Has(LOG_ERR, "lock:46 Fail to create dir [" + blocker + "/sub]"))
        << logs.Dump();
  }
  // The lock path is a directory: open fails, the lock is not held.
  InspectedLock lock(Root().At("/tmp"), true);
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_EQ(-1, lock.Fd());
}

// A transcoder started while the lock is held must not inherit it, and an
// unlocked object must hold nothing.
TEST_F(LockTest, KeepsOneCloseOnExecDescriptorUntilUnlocked) {
  InspectedLock lock(LockPath(), true);
  ASSERT_TRUE(lock.IsLockSucess());
  const int fd = lock.Fd();
  ASSERT_GE(fd, 0);
  EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);

  lock.UnlockFile();
  EXPECT_EQ(-1, lock.Fd());
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "descriptor " << fd << " still open";
  InspectedLock next(LockPath(), false);
  EXPECT_TRUE(next.IsLockSucess()) << "the unlocked file is free again";
  struct stat st;
  EXPECT_EQ(0, stat(LockPath().c_str(), &st)) << "the lock file stays on disk";
}

// The blocking lock across processes is the load registry's
// (vte/utils/trans_loading_test.cc).
TEST_F(LockTest, NonBlockingLockFailsWhileAnotherProcessHoldsIt) {
  const std::string path = LockPath();
  Signal held;
  Signal release;
  ASSERT_TRUE(held.Valid() && release.Valid());
  pid_t holder = orvotest::StartChild([&] {
    held.CloseReader();
    release.CloseWriter();
    Lock lock(path, true);
    if (!lock.IsLockSucess() || !held.Notify()) return 1;
    release.Wait();
    return 0;
  });
  ASSERT_GT(holder, 0);
  held.CloseWriter();
  release.CloseReader();
  ASSERT_TRUE(held.Wait()) << "the holder never took the lock";

  Lock refused(path, false);
  EXPECT_FALSE(refused.IsLockSucess());

  release.Notify();
  EXPECT_EQ(0, orvotest::WaitForChild(holder, 10));
  Lock granted(path, false);
  EXPECT_TRUE(granted.IsLockSucess()) << "the lock ends with its holder";
}

}  // namespace
}  // namespace LibReelhall
