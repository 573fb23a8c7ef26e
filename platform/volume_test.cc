#include "platform/volume.h"

#include <sys/stat.h>

#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/machine_root.h"

namespace {

TEST(ChooseVolumeTest, PicksTheRoomiestWritableVolumeThatFits) {
  const VolumeCandidate rw1{"/volume1", 100, true}, rw2{"/volume2", 300, true},
      rw3{"/volume3", 300, true}, ro4{"/volume4", 1000, false};
  const struct {
    std::vector<VolumeCandidate> volumes;
    unsigned long long needed;
    const char* expected;  // "<result> <status> <chosen>"
  } rows[] = {
      {{}, 0, "0 0 -"},           {{rw1}, 100, "1 1 /volume1"},     {{rw1}, 101, "0 1 -"},
      {{rw1, rw2}, 10, "1 1 /volume2"}, {{rw2, rw3}, 10, "1 1 /volume2"}, {{ro4, rw1}, 500, "0 1 -"},
      {{ro4}, 0, "0 5 -"},        {{rw1, rw2}, ULLONG_MAX, "0 1 -"},
  };
  for (const auto& row : rows) {
    VolumeInfo info{"-", 7};
    int status = -1;
    const int result = ChooseVolume(row.volumes, row.needed, &info, &status);
    EXPECT_EQ(row.expected, std::to_string(result) + " " + std::to_string(status) + " " + info.mountPath)
        << row.volumes.size() << " volumes, " << row.needed << " bytes needed";
    EXPECT_TRUE(result == 0 || info.availableBytes != 7) << "size not written";
  }
}

// Only "/volume<digits>" directories under the root count.
TEST(VolumeMountsTest, LooksAtTheVolumesUnderTheMachineRoot) {
  orvotest::MachineRoot root;
  root.AddVolume(12);
  root.WriteFile("/volume2", "a file, not a mount");
  ASSERT_EQ(0, mkdir(root.At("/volume3-old").c_str(), 0755));
  std::vector<std::string> mounts;
  ASSERT_TRUE(VolumeMounts(&mounts));
  EXPECT_EQ((std::vector<std::string>{root.At("/volume1"), root.At("/volume12")}), mounts);
  EXPECT_TRUE(IsVolumeMountPath(root.At("/volume12")));
  for (const std::string& path : {root.At("/volume1/x"), root.At("/volume"), std::string("/volume1")}) {
    EXPECT_FALSE(IsVolumeMountPath(path)) << path;
  }
  VolumeInfo info{"", 0};
  int status = -1;
  EXPECT_EQ(1, VolumeAvailGet(1, &info, &status, 0));
  EXPECT_EQ(root.At("/volume1"), info.mountPath) << "one file system: the tie goes to the first";
  EXPECT_EQ(-1, VolumeAvailGet(1, nullptr, &status, 0));
}

}  // namespace
