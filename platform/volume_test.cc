#include "platform/volume.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/machine_root.h"

namespace {

constexpr int kFound = kVolumeStatusFound;
constexpr int kReadOnly = kVolumeStatusReadOnly;

TEST(ChooseVolumeTest, PicksTheRoomiestWritableVolumeThatFits) {
  const VolumeCandidate rw1{"/volume1", 100, true};
  const VolumeCandidate rw2{"/volume2", 300, true};
  const VolumeCandidate rw3same{"/volume3", 300, true};
  const VolumeCandidate ro4big{"/volume4", 1000, false};
  const VolumeCandidate ro5{"/volume5", 50, false};
  struct Case {
    const char* name;
    std::vector<VolumeCandidate> volumes;
    unsigned long long needed;
    int result;
    int status;
    const char* chosen;  // "" when none
  } cases[] = {
      {"no volumes", {}, 0, 0, 0, ""},
      {"one that fits", {rw1}, 50, 1, kFound, "/volume1"},
      {"exactly enough", {rw1}, 100, 1, kFound, "/volume1"},
      {"one byte short", {rw1}, 101, 0, kFound, ""},
      {"roomiest wins though the first fits", {rw1, rw2}, 10, 1, kFound, "/volume2"},
      {"tie goes to the earlier", {rw2, rw3same}, 10, 1, kFound, "/volume2"},
      {"read-only room does not count", {ro4big, rw1}, 50, 1, kFound, "/volume1"},
      {"only read-only could fit", {ro4big, rw1}, 500, 0, kFound, ""},
      {"all read-only", {ro4big, ro5}, 1, 0, kFound | kReadOnly, ""},
      {"need nothing, all read-only", {ro5}, 0, 0, kFound | kReadOnly, ""},
      {"need everything", {rw1, rw2}, ULLONG_MAX, 0, kFound, ""},
  };
  for (const Case& c : cases) {
    VolumeInfo info{"unset", 7};
    int status = -1;
    EXPECT_EQ(ChooseVolume(c.volumes, c.needed, &info, &status), c.result) << c.name;
    EXPECT_EQ(status, c.status) << c.name;
    if (c.result == 1) {
      EXPECT_EQ(info.mountPath, c.chosen) << c.name;
      EXPECT_NE(info.availableBytes, 7u) << c.name;
    } else {
      EXPECT_EQ(info.mountPath, "unset") << c.name;
    }
  }
}

class VolumeAvailGetTest : public orvotest::MachineRootTest {};

unsigned long long FreeBytes(const std::string& path) {
  struct statvfs fs = {};
  statvfs(path.c_str(), &fs);
  return static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
}

TEST_F(VolumeAvailGetTest, FindsTheVolumesUnderTheMachineRoot) {
  const std::string volume1 = Root().At("/volume1");
  Root().AddVolume(12);
  VolumeInfo info{"", 0};
  int status = -1;
  const unsigned long long before = FreeBytes(volume1);
  ASSERT_EQ(VolumeAvailGet(1, &info, &status, 0), 1);
  const unsigned long long after = FreeBytes(volume1);
  // Both volumes share one file system; the tie goes to the first in order.
  EXPECT_EQ(info.mountPath, volume1);
  EXPECT_EQ(status, kFound);
  // Other work on the machine moves the free space a little meanwhile.
  const unsigned long long slack = 64ull << 20;
  EXPECT_GE(info.availableBytes + slack, std::min(before, after));
  EXPECT_LE(info.availableBytes, std::max(before, after) + slack);

  EXPECT_EQ(VolumeAvailGet(ULLONG_MAX, &info, &status, 0), 0);
  EXPECT_EQ(status, kFound);
  EXPECT_EQ(VolumeAvailGet(1, nullptr, &status, 0), -1);
  EXPECT_EQ(OLIBCErrGet(), EINVAL);
}

TEST_F(VolumeAvailGetTest, IgnoresWhatIsNotAVolume) {
  orvotest::RemoveTree(Root().At("/volume1"));
  Root().WriteFile("/volume2", "a file, not a mount");
  ASSERT_EQ(mkdir(Root().At("/volume3-old").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(Root().At("/volumes").c_str(), 0755), 0);
  VolumeInfo info{"unset", 0};
  int status = -1;
  EXPECT_EQ(VolumeAvailGet(0, &info, &status, 0), 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(info.mountPath, "unset");

  orvotest::RemoveTree(Root().Path());  // the root itself gone: no match
  EXPECT_EQ(VolumeAvailGet(0, &info, &status, 0), 0);
  EXPECT_EQ(status, 0);
}

TEST_F(VolumeAvailGetTest, ReportsVolumesItCannotWriteAndRootsItCannotList) {
  const std::string volume1 = Root().At("/volume1");
  ASSERT_EQ(chmod(volume1.c_str(), 0555), 0);
  const std::string root = Root().Path();
  int status = orvotest::RunInChild([&] {
    if (geteuid() == 0 && !orvotest::DropToUnprivilegedUser()) return 10;
    VolumeInfo info{"", 0};
    int bits = -1;
    if (VolumeAvailGet(1, &info, &bits, 0) != 0) return 11;
    return bits == (kFound | kReadOnly) ? 0 : 12;
  });
  EXPECT_EQ(status, 0);

  // A root that cannot be listed is a failure to look.
  ASSERT_EQ(chmod(root.c_str(), 0311), 0);
  status = orvotest::RunInChild([&] {
    if (geteuid() == 0 && !orvotest::DropToUnprivilegedUser()) return 10;
    VolumeInfo info{"", 0};
    int bits = -1;
    OLIBCErrSet(0);
    if (VolumeAvailGet(1, &info, &bits, 0) != -1) return 11;
    return OLIBCErrGet() == EIO ? 0 : 12;
  });
  chmod(root.c_str(), 0755);
  EXPECT_EQ(status, 0);
}

// Full means too little left for another segment, judged on the volume the
// path lies on; a path that cannot be examined is not called full.
TEST_F(VolumeAvailGetTest, FullWhenLessThanAMegabyteIsLeft) {
  const std::string volume = Root().At("/volume1");
  ASSERT_TRUE(mkdir(volume.c_str(), 0755) == 0 || errno == EEXIST);
  if (mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=1536k") != 0) {
    GTEST_SKIP() << "cannot mount a small volume here: " << strerror(errno);
  }
  EXPECT_FALSE(VolumeFull(volume)) << "1.5 MiB free";
  Root().WriteFile("/volume1/filler", std::string(700 * 1024, 'x'));
  EXPECT_TRUE(VolumeFull(volume + "/filler")) << "about 800 KiB free";
  EXPECT_FALSE(VolumeFull(volume + "/missing")) << "a path that is not there";
  umount2(volume.c_str(), MNT_DETACH);
}

}  // namespace
