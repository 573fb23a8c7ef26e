#include "platform/orvofs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "platform/fileop.h"
#include "tests/support/child.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"

namespace {

class OrvofsTest : public orvotest::MachineRootTest {
 protected:
  void TearDown() override {
    umask(savedUmask_);
    MachineRootTest::TearDown();
  }
  // A umask that would strip every bit but the owner's from a plain mkdir.
  void RestrictUmask() { savedUmask_ = umask(077); }

  mode_t savedUmask_ = umask(022);
};

struct stat StatOf(const std::string& path) {
  struct stat info = {};
  stat(path.c_str(), &info);
  return info;
}

TEST_F(OrvofsTest, CreatesEveryMissingDirectoryWithTheModeDespiteTheUmask) {
  RestrictUmask();
  const std::string existing = Root().At("/existing");
  ASSERT_EQ(mkdir(existing.c_str(), 0700), 0);

  ASSERT_EQ(ORVOFSMkdirP((existing + "/a/b/c").c_str(), 0, 1, -1, -1, 0777), 0);
  for (const char* dir : {"/a", "/a/b", "/a/b/c"}) {
    struct stat info = StatOf(existing + dir);
    EXPECT_TRUE(S_ISDIR(info.st_mode)) << dir;
    EXPECT_EQ(info.st_mode & 07777, 0777u) << dir;
  }
  EXPECT_EQ(StatOf(existing).st_mode & 07777, 0700u) << "an existing parent keeps its mode";

  // Doubled and trailing slashes add no components.
  ASSERT_EQ(ORVOFSMkdirP((existing + "//d//e/").c_str(), 0, 1, -1, -1, 0750), 0);
  EXPECT_EQ(StatOf(existing + "/d/e").st_mode & 07777, 0750u);

  // Asking again for what exists is success and changes nothing.
  EXPECT_EQ(ORVOFSMkdirP((existing + "/a/b/c").c_str(), 0, 1, -1, -1, 0700), 0);
  EXPECT_EQ(StatOf(existing + "/a/b/c").st_mode & 07777, 0777u);
}

TEST_F(OrvofsTest, GivesCreatedDirectoriesTheOwner) {
  if (geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
  const std::string base = Root().At("/owned");
  ASSERT_EQ(mkdir(base.c_str(), 0755), 0);
  ASSERT_EQ(ORVOFSMkdirP((base + "/x/y").c_str(), 0, 1, 1024, 100, 0777), 0);
  for (const char* dir : {"/x", "/x/y"}) {
    struct stat info = StatOf(base + dir);
    EXPECT_EQ(info.st_uid, 1024u) << dir;
    EXPECT_EQ(info.st_gid, 100u) << dir;
  }
  EXPECT_EQ(StatOf(base).st_uid, 0u) << "an existing parent keeps its owner";
}

TEST_F(OrvofsTest, OwnershipIsBestEffortWithoutRoot) {
  const std::string shared = Root().At("/shared");
  ASSERT_EQ(mkdir(shared.c_str(), 0777), 0);
  chmod(shared.c_str(), 0777);
  int status = orvotest::RunInChild([&] {
    if (geteuid() == 0 && !orvotest::DropToUnprivilegedUser()) return 10;
    if (ORVOFSMkdirP((shared + "/p/q").c_str(), 0, 1, 1024, 100, 0755) != 0) return 11;
    struct stat info = StatOf(shared + "/p/q");
    if (!S_ISDIR(info.st_mode) || (info.st_mode & 07777) != 0755) return 12;
    return info.st_uid == geteuid() ? 0 : 13;
  });
  EXPECT_EQ(status, 0);
}

TEST_F(OrvofsTest, FailsWhereAFileIsInTheWay) {
  Root().WriteFile("/file", "not a directory");
  struct Case {
    const char* path;
    int error;
  } cases[] = {{"/file", ENOTDIR}, {"/file/sub", ENOTDIR}, {"/file/sub/deeper", ENOTDIR}};
  for (const Case& c : cases) {
    errno = 0;
    EXPECT_EQ(ORVOFSMkdirP(Root().At(c.path).c_str(), 0, 1, -1, -1, 0777), -1) << c.path;
    EXPECT_EQ(errno, c.error) << c.path;
  }
  EXPECT_EQ(ORVOFSMkdirP("", 0, 1, -1, -1, 0777), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ORVOFSMkdirP(nullptr, 0, 1, -1, -1, 0777), -1);
}

TEST_F(OrvofsTest, ApplicationTreesAreCreatedOrLogged) {
  using librh::critical::orvosdk::ORVOFSMkdirPReelhall;
  RestrictUmask();
  const std::string tree = Root().At("/volume1/@tmp/Reelhall/HLS/stream1");
  EXPECT_TRUE(ORVOFSMkdirPReelhall(tree, 0777));
  EXPECT_EQ(StatOf(tree).st_mode & 07777, 0777u);
  EXPECT_EQ(StatOf(Root().At("/volume1/@tmp")).st_mode & 07777, 0777u);
  EXPECT_TRUE(ORVOFSMkdirPReelhall(tree, 0777)) << "existing tree";

  Root().WriteFile("/volume1/blocker", "");
  orvotest::LogCapture logs;
  const std::string blocked = Root().At("/volume1/blocker/HLS");
  EXPECT_FALSE(ORVOFSMkdirPReelhall(blocked, 0777));
  EXPECT_TRUE(logs.Contains("orvofs:")) << logs.Dump();
  EXPECT_TRUE(logs.Contains(blocked)) << logs.Dump();
}

TEST_F(OrvofsTest, CheckFileAndGetSizeAcceptsOnlyRegularFiles) {
  using librh::critical::fileop::CheckFileAndGetSize;
  Root().WriteFile("/five", "12345");
  Root().WriteFile("/empty", "");
  ASSERT_EQ(symlink(Root().At("/five").c_str(), Root().At("/link").c_str()), 0);
  ASSERT_EQ(symlink(Root().At("/gone").c_str(), Root().At("/dangling").c_str()), 0);
  struct Case {
    std::string path;
    bool ok;
    long long size;  // what `size` holds afterwards (-7: left alone)
  } cases[] = {
      {Root().At("/five"), true, 5},     {Root().At("/empty"), true, 0},
      {Root().At("/link"), true, 5},     {Root().At("/dangling"), false, -7},
      {Root().At("/volume1"), false, -7}, {Root().At("/missing"), false, -7},
      {"/dev/null", false, -7},           {"", false, -7},
  };
  for (const Case& c : cases) {
    long long size = -7;
    EXPECT_EQ(CheckFileAndGetSize(c.path, size), c.ok) << c.path;
    EXPECT_EQ(size, c.size) << c.path;
  }
}

}  // namespace
