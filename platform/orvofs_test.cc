#include "platform/orvofs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "platform/fileop.h"
#include "tests/support/machine_root.h"

namespace {

struct stat StatOf(const std::string& path) {
  struct stat info = {};
  stat(path.c_str(), &info);
  return info;
}

// Session directories are shared by processes of several users: each one
// created gets the mode whatever the umask, and the owner where that is
// allowed.
TEST(OrvofsTest, CreatesEveryMissingDirectoryWithTheModeAndOwner) {
  orvotest::MachineRoot root;
  const mode_t savedUmask = umask(077);
  const std::string existing = root.At("/existing");
  ASSERT_EQ(0, mkdir(existing.c_str(), 0700));
  EXPECT_EQ(0, ORVOFSMkdirP((existing + "//a/b//c/").c_str(), 0, 1, 1024, 100, 0777));
  EXPECT_EQ(0, ORVOFSMkdirP((existing + "/a/b/c").c_str(), 0, 1, -1, -1, 0700)) << "exists";
  for (const char* dir : {"/a", "/a/b", "/a/b/c"}) {
    const struct stat info = StatOf(existing + dir);
    EXPECT_EQ(040777u, info.st_mode) << dir;
    if (geteuid() == 0) {
      EXPECT_EQ("1024:100", std::to_string(info.st_uid) + ":" + std::to_string(info.st_gid)) << dir;
    }
  }
  EXPECT_EQ(0700u, StatOf(existing).st_mode & 07777) << "an existing parent keeps its mode";
  umask(savedUmask);
  root.WriteFile("/file", "not a directory");
  for (const char* path : {"/file", "/file/sub/deeper"}) {
    errno = 0;
    EXPECT_EQ(-1, ORVOFSMkdirP(root.At(path).c_str(), 0, 1, -1, -1, 0777)) << path;
    EXPECT_EQ(ENOTDIR, errno) << path;
  }
  EXPECT_EQ(-1, ORVOFSMkdirP("", 0, 1, -1, -1, 0777));
  EXPECT_EQ(-1, ORVOFSMkdirP(nullptr, 0, 1, -1, -1, 0777));
}

// Only a regular file has a size to stream; a device or a FIFO would be
// read for ever.
TEST(OrvofsTest, CheckFileAndGetSizeAcceptsOnlyRegularFiles) {
  using librh::critical::fileop::CheckFileAndGetSize;
  orvotest::MachineRoot root;
  root.WriteFile("/five", "12345");
  ASSERT_EQ(0, symlink(root.At("/five").c_str(), root.At("/link").c_str()));
  ASSERT_EQ(0, symlink(root.At("/gone").c_str(), root.At("/dangling").c_str()));
  ASSERT_EQ(0, mkfifo(root.At("/fifo").c_str(), 0600));
  const struct {
    std::string path;
    long long size;  // -7: refused, left alone
  } rows[] = {{root.At("/five"), 5},      {root.At("/link"), 5},  {root.At("/dangling"), -7},
              {root.At("/volume1"), -7},  {root.At("/fifo"), -7}, {"/dev/null", -7},
              {"", -7}};
  for (const auto& row : rows) {
    long long size = -7;
    EXPECT_EQ(row.size != -7, CheckFileAndGetSize(row.path, size)) << row.path;
    EXPECT_EQ(row.size, size) << row.path;
  }
}

}  // namespace
