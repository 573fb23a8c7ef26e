#include "platform/volume.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/machine_root.h"

namespace {

constexpr int kFound = kVolumeStatusFound;
constexpr int kReadOnly = kVolumeStatusReadOnly;

// "<result> <status> <chosen>", e.g. "1 1 /volume2".
std::string Chosen(const std::vector<VolumeCandidate>& volumes, unsigned long long needed) {
  VolumeInfo info{"-", 7};
  int status = -1;
  const int result = ChooseVolume(volumes, needed, &info, &status);
  return std::to_string(result) + " " + std::to_string(status) + " " + info.mountPath +
         (result == 1 && info.availableBytes == 7 ? " (size not written)" : "");
}

TEST(ChooseVolumeTest, PicksTheRoomiestWritableVolumeThatFits) {
  const VolumeCandidate rw1{"/volume1", 100, true}, rw2{"/volume2", 300, true},
      rw3{"/volume3", 300, true}, ro4{"/volume4", 1000, false}, ro5{"/volume5", 50, false};
  const struct {
    std::vector<VolumeCandidate> volumes;
    unsigned long long needed;
    const char* expected;
  } rows[] = {
      {{}, 0, "0 0 -"},
      {{rw1}, 100, "1 1 /volume1"},
      {{rw1}, 101, "0 1 -"},
      {{rw1, rw2}, 10, "1 1 /volume2"},
      {{rw2, rw3}, 10, "1 1 /volume2"},
      {{ro4, rw1}, 500, "0 1 -"},
      {{ro4, ro5}, 0, "0 5 -"},
      {{rw1, rw2}, ULLONG_MAX, "0 1 -"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.expected, Chosen(row.volumes, row.needed))
        << row.volumes.size() << " volumes, " << row.needed << " bytes needed";
  }
}

unsigned long long FreeBytes(const std::string& path) {
  struct statvfs fs = {};
  statvfs(path.c_str(), &fs);
  return static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
}

// Only "/volume<digits>" directories under the root count; a volume that
// cannot be written is reported, a root that cannot be listed is a failure.
TEST(VolumeAvailGetTest, LooksAtTheVolumesUnderTheMachineRoot) {
  orvotest::MachineRoot root;
  const std::string volume1 = root.At("/volume1");
  root.AddVolume(12);
  root.WriteFile("/volume2", "a file, not a mount");
  ASSERT_EQ(0, mkdir(root.At("/volume3-old").c_str(), 0755));
  VolumeInfo info{"", 0};
  int status = -1;
  const unsigned long long before = FreeBytes(volume1);
  ASSERT_EQ(1, VolumeAvailGet(1, &info, &status, 0));
  const unsigned long long after = FreeBytes(volume1);
  // One file system: the tie goes to the first in order. Other work on the
  // machine moves the free space a little meanwhile.
  EXPECT_EQ(volume1, info.mountPath);
  EXPECT_EQ(kFound, status);
  EXPECT_GE(info.availableBytes + (64ull << 20), std::min(before, after));
  EXPECT_LE(info.availableBytes, std::max(before, after) + (64ull << 20));
  EXPECT_EQ(-1, VolumeAvailGet(1, nullptr, &status, 0));
  EXPECT_EQ(EINVAL, OLIBCErrGet());

  orvotest::RemoveTree(root.At("/volume12"));
  ASSERT_EQ(0, chmod(volume1.c_str(), 0555));
  ASSERT_EQ(0, chmod(root.Path().c_str(), 0755));
  const auto unprivileged = [&] {
    if (geteuid() == 0 && !orvotest::DropToUnprivilegedUser()) return std::string("no drop");
    VolumeInfo seen{"", 0};
    int bits = -1;
    OLIBCErrSet(0);
    const int result = VolumeAvailGet(1, &seen, &bits, 0);
    return std::to_string(result) + " " + std::to_string(result < 0 ? OLIBCErrGet() : bits);
  };
  EXPECT_EQ("0 " + std::to_string(kFound | kReadOnly), orvotest::TextFromChild(unprivileged));
  ASSERT_EQ(0, chmod(root.Path().c_str(), 0311));
  EXPECT_EQ("-1 " + std::to_string(EIO), orvotest::TextFromChild(unprivileged));
  chmod(root.Path().c_str(), 0755);

  orvotest::RemoveTree(volume1);
  EXPECT_EQ(0, VolumeAvailGet(0, &info, &status, 0));
  EXPECT_EQ(0, status);
}

// Full means too little left for another segment, judged on the volume the
// path lies on; a path that cannot be examined is not called full.
TEST(VolumeAvailGetTest, FullWhenLessThanAMegabyteIsLeft) {
  orvotest::MachineRoot root;
  const std::string volume = root.At("/volume1");
  if (mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=1536k") != 0) {
    GTEST_SKIP() << "cannot mount a small volume here: " << strerror(errno);
  }
  EXPECT_FALSE(VolumeFull(volume)) << "1.5 MiB free";
  root.WriteFile("/volume1/filler", std::string(700 * 1024, 'x'));
  EXPECT_TRUE(VolumeFull(volume + "/filler")) << "about 800 KiB free";
  EXPECT_FALSE(VolumeFull(volume + "/missing")) << "a path that is not there";
  umount2(volume.c_str(), MNT_DETACH);
}

}  // namespace
