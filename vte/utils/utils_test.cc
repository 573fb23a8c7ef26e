#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/documents.h"
#include "tests/support/machine_root.h"
#include "toolkit/files.h"
#include "vte/utils/lock.h"
#include "vte/utils/trans_loading.h"
#include "vte/utils/vteutils.h"

namespace LibReelhall {
namespace {

namespace vte = LibOrvoVTE;
namespace machine = librh::machine;

std::string Registry() { return toolkit::ReadWholeFile(machine::Resolve(machine::kLoadRegistry)); }

std::string Entry(int pid, bool hardware, bool offline) {
  return "{\"PID\":" + std::to_string(pid) + ",\"hardware_transcode\":" +
         (hardware ? "true" : "false") + ",\"offline_conversion\":" + (offline ? "true" : "false") +
         "}";
}

// Other processes (the conversion service among them) read this file: its
// text, its mode, and which entries outlive which.
TEST(TransLoadingTest, EntriesAreWrittenOpenToAllAndGoWithTheirProcessOrSession) {
  orvotest::MachineRoot root;
  const pid_t dead = orvotest::StartChild([] { return 0; });
  ASSERT_EQ(0, orvotest::WaitForChild(dead, 10));
  const int me = getpid(), parent = getppid();
  const mode_t savedUmask = umask(022);
  {
    TransLoading registry;
    registry.SaveTransPID(me, true, false);
    registry.SaveTransPID(parent, false, true);
    registry.SaveTransPID(dead, false, false);  // saving does not check liveness
  }
  umask(savedUmask);
  struct stat info;
  ASSERT_EQ(0, stat(root.At(machine::kLoadRegistry).c_str(), &info));
  EXPECT_EQ(0777u, info.st_mode & 07777);
  EXPECT_EQ("[" + Entry(me, true, false) + "," + Entry(parent, false, true) + "," +
                Entry(dead, false, false) + "]\n",
            Registry());
  // A session's place outlives each run of its transcoder, not the session.
  std::filesystem::create_directories(root.At(machine::kTempRoot) + "/HLS/s");
  {
    TransLoading registry;  // drops the dead pid
    EXPECT_TRUE(registry.RemoveTransPIDLock(parent));
    EXPECT_TRUE(registry.AdmitSession("HLS/s", false));
    EXPECT_TRUE(registry.TakeSessionEntry("HLS/s", me));
    EXPECT_TRUE(registry.RemoveTransPIDLock(me));
  }
  EXPECT_EQ(R"([{"PID":0,"hardware_transcode":false,"offline_conversion":false,"session":"HLS/s"}])"
            "\n",
            Registry());
  std::filesystem::remove(root.At(machine::kTempRoot) + "/HLS/s");
  { TransLoading emptied; }
  EXPECT_EQ("[]\n", Registry());
}

// Racing processes each ask and register under this process's pid (which
// outlives the race): the lock keeps each read-modify-write whole.
TEST(TransLoadingRace, AdmitsNoMoreThanTheLimit) {
  const struct {
    const char* platform;
    int hardwareHeld;
    const char* racers;    // what each asks for: S(oftware) or H(ardware)
    const char* admitted;  // "<software> <hardware>"
  } rows[] = {
      {"x86", 0, "SHSHSHSHSHSH", "1 0"},     // no engine: never a hardware transcoder
      {"monaco", 0, "SSSSSSSSSSSS", "1 0"},  // an empty registry admits one past a 0 limit
      {"monaco", 1, "SSSSHHHH", "0 0"},
      {"evansport", 0, "SHSHSHSHSHSH", "1 1"},
      {"braswell", 90, "HHHHHHHHHHHHHHHH", "0 10"},  // the 101st is refused
  };
  for (const auto& row : rows) {
    orvotest::MachineRoot root(orvotest::PlatformFiles{row.platform, 2, 4800, ""});
    for (int i = 0; i < row.hardwareHeld; ++i) TransLoading().SaveTransPID(getpid(), true, false);
    int start[2];  // the racers start together when it closes
    ASSERT_EQ(0, pipe2(start, O_CLOEXEC));
    std::vector<pid_t> racers;
    for (const char* ask = row.racers; *ask != '\0'; ++ask) {
      const bool hardware = *ask == 'H';
      racers.push_back(orvotest::StartChild([&] {
        close(start[1]);
        char byte;
        if (read(start[0], &byte, 1) != 0) return 9;
        TransLoading registry;
        if (!registry.TransEnable(hardware) || !registry.SaveTransPID(getppid(), hardware, false)) return 0;
        return hardware ? 2 : 1;
      }));
    }
    close(start[1]);
    close(start[0]);
    int verdicts[4] = {};  // 0 refused, 1 software, 2 hardware, 3 failed
    for (pid_t racer : racers) {
      const int status = orvotest::WaitForChild(racer, 30);
      ++verdicts[status >= 0 && status <= 2 ? status : 3];
    }
    SCOPED_TRACE(std::string(row.platform) + " " + row.racers);
    EXPECT_EQ(row.admitted, std::to_string(verdicts[1]) + " " + std::to_string(verdicts[2]));
    EXPECT_EQ(0, verdicts[3]) << "failed racers";
    EXPECT_EQ(row.hardwareHeld + verdicts[1] + verdicts[2],
              static_cast<int>(orvotest::ParseJson(Registry()).size())) << Registry();
  }
}

class InspectedLock : public Lock {
 public:
  using Lock::Lock;
  int Fd() const { return fd_; }
};

// A transcoder started while the lock is held must not inherit it.
TEST(LockTest, HoldsOneCloseOnExecDescriptorUntilUnlocked) {
  orvotest::MachineRoot root;
  InspectedLock lock(root.At("/tmp/Reelhall/HLS/session/filelock"));
  ASSERT_TRUE(lock.IsLockSucess());
  const int fd = lock.Fd();
  EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
  lock.UnlockFile();
  EXPECT_FALSE(lock.IsLockSucess());
  EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "descriptor " << fd << " still open";
}

// Marker files: an empty write (which reads back as "no value") never
// lands.
TEST(MarkerFileTest, ReadsAShortTextAndSavesWholeContentsOnly) {
  orvotest::MachineRoot root;
  const std::string path = root.At("/tmp/marker");
  EXPECT_TRUE(vte::SaveFile(path, std::string(5000, 'x')));
  EXPECT_EQ(std::string(4096, 'x'), vte::ReadFile(path));
  EXPECT_TRUE(vte::SaveFile(path, std::string("ab\0cd", 5)));
  EXPECT_EQ("ab", vte::ReadFile(path));
  EXPECT_FALSE(vte::SaveFile(path, ""));
  EXPECT_EQ(std::string("ab\0cd", 5), toolkit::ReadWholeFile(path));
  EXPECT_EQ("", vte::ReadFile(root.At("/tmp"))) << "a directory";
}

}  // namespace
}  // namespace LibReelhall
