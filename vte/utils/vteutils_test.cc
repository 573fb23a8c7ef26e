#include "vte/utils/vteutils.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "toolkit/files.h"

// Looking with root rights and handing the caller its ids back is seen
// through every public call in tests/privilege_test.cc.
namespace LibOrvoVTE {
namespace {

// Marker files hold a pid, an id or a flag: a short text up to its first
// NUL is read; an empty one is never written, and a write replaces the
// whole content or nothing.
TEST(MarkerFileTest, ReadsAShortTextAndSavesWholeContentsOnly) {
  orvotest::MachineRoot root;
  const struct {
    std::string bytes, read;
  } reads[] = {{"12345\n", "12345\n"},
               {std::string(5000, 'x'), std::string(4096, 'x')},
               {std::string("ab\0cd", 5), "ab"},
               {"", ""}};
  for (const auto& row : reads) {
    root.WriteFile("/tmp/marker", row.bytes);
    EXPECT_EQ(row.read, ReadFile(root.At("/tmp/marker"))) << row.bytes.size() << " bytes";
  }
  EXPECT_EQ("", ReadFile(root.At("/tmp"))) << "a directory";
  EXPECT_EQ("", ReadFile(""));

  const std::string path = root.At("/tmp/saved");
  const struct {
    std::string path, content;
    bool saved;
    std::string after;
  } saves[] = {
      {path, "123456", true, "123456"},
      {path, std::string("a\0b", 3), true, std::string("a\0b", 3)},
      {path, "", false, std::string("a\0b", 3)},
      {"", "content", false, std::string("a\0b", 3)},
      {root.At("/tmp/missing-dir/file"), "content", false, std::string("a\0b", 3)},
  };
  for (const auto& row : saves) {
    EXPECT_EQ(row.saved, SaveFile(row.path, row.content)) << row.path << " '" << row.content << "'";
    EXPECT_EQ(row.after, toolkit::ReadWholeFile(path)) << row.path << " '" << row.content << "'";
  }
  EXPECT_FALSE(SaveFile(root.At("/tmp/never"), ""));
  EXPECT_FALSE(VerifyFileExist(root.At("/tmp/never"), 0)) << "no empty file may appear";
}

volatile sig_atomic_t gTermReceived = 0;

// kill(0) would reach the whole process group and kill(-5) the group 5: the
// test runs in a group of its own with a sibling that must survive, and a
// signal that reaches the caller is counted.
TEST(KillProcessTest, RefusesPidsBelowOneWithoutSendingAnything) {
  const int status = orvotest::RunInChild([] {
    if (setpgid(0, 0) != 0) return 10;
    const pid_t sibling = orvotest::StartChild([] {
      pause();
      return 0;
    });
    signal(SIGTERM, [](int) { gTermReceived = 1; });
    int failure = 0;
    for (int pid : {0, -5}) {
      errno = 0;
      if (KillProcess(pid) != -1 || errno != 0) failure = 20;
    }
    usleep(100 * 1000);
    const bool siblingAlive = waitpid(sibling, nullptr, WNOHANG) == 0;
    kill(sibling, SIGKILL);
    waitpid(sibling, nullptr, 0);
    return failure != 0 ? failure : gTermReceived ? 22 : siblingAlive ? 0 : 23;
  });
  EXPECT_EQ(0, status) << "20 called kill, 22 caller signalled, 23 sibling died";
}

}  // namespace
}  // namespace LibOrvoVTE
