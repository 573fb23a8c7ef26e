#include "platform/volume.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/olibc.h"
#include "tests/support/machine_root.h"

namespace {

constexpr int kFound = kVolumeStatusFound;

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

// Only "/volume<digits>" directories under the root count.
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

  orvotest::RemoveTree(volume1);
  orvotest::RemoveTree(root.At("/volume12"));
  EXPECT_EQ(0, VolumeAvailGet(0, &info, &status, 0));
  EXPECT_EQ(0, status);
}

}  // namespace
