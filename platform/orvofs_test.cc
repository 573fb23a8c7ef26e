#include "platform/orvofs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/machine_root.h"

namespace {

// Session directories are shared by processes of several users: each one
// created gets the mode whatever the umask, and the owner where that is
// allowed; an existing parent is left as it is.
TEST(OrvofsTest, CreatesEveryMissingDirectoryWithTheModeAndOwner) {
  orvotest::MachineRoot root;
  const mode_t savedUmask = umask(077);
  const std::string existing = root.At("/existing");
  ASSERT_EQ(0, mkdir(existing.c_str(), 0700));
  EXPECT_EQ(0, ORVOFSMkdirP((existing + "//a/b//c/").c_str(), 0, 1, 1024, 100, 0777));
  EXPECT_EQ(0, ORVOFSMkdirP((existing + "/a/b/c").c_str(), 0, 1, -1, -1, 0700)) << "exists";
  umask(savedUmask);
  for (const char* dir : {"", "/a", "/a/b", "/a/b/c"}) {
    struct stat info = {};
    stat((existing + dir).c_str(), &info);
    const std::string owner = *dir == '\0' || geteuid() != 0 ? "" : "1024:100";
    EXPECT_EQ(*dir == '\0' ? 040700u : 040777u, info.st_mode) << dir;
    EXPECT_EQ(owner, owner.empty() ? "" : std::to_string(info.st_uid) + ":" + std::to_string(info.st_gid))
        << dir;
  }
  root.WriteFile("/file", "not a directory");
  errno = 0;
  EXPECT_EQ(-1, ORVOFSMkdirP(root.At("/file/sub/deeper").c_str(), 0, 1, -1, -1, 0777));
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_EQ(-1, ORVOFSMkdirP(nullptr, 0, 1, -1, -1, 0777));
}

}  // namespace
