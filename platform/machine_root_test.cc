#include "platform/machine_root.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "platform/olibc.h"
#include "tests/support/machine_root.h"

namespace {

namespace machine = librh::machine;

TEST(MachineRootModuleTest, FixtureFilesResolveThroughTheVariable) {
  setenv(machine::kRootVariable, "/outer", 1);
  {
    orvotest::MachineRoot root(orvotest::PlatformFiles{"armada", 4, 100.0, "hostchip"});
    EXPECT_EQ(machine::Root(), root.Path());
    EXPECT_EQ(machine::Resolve(machine::kOrvoInfoConf), root.At(machine::kOrvoInfoConf));

    char unique[256] = {};
    const std::string conf = machine::Resolve(machine::kOrvoInfoConf);
    EXPECT_GT(OLIBCFileGetKeyValue(conf.c_str(), "unique", unique, sizeof(unique), 0), 0);
    EXPECT_STREQ(unique, "reelbox_armada_1019");
    const std::string codecs = machine::Resolve(machine::kCodecsConf);
    EXPECT_EQ(OLIBCFileCheckKeyValue(codecs.c_str(), "support_codec_dts", "no", 0), 1);

    // A trailing slash in the variable must not double up.
    setenv(machine::kRootVariable, (root.Path() + "//").c_str(), 1);
    EXPECT_EQ(machine::Resolve(machine::kCpuInfo), root.Path() + machine::kCpuInfo);
  }
  EXPECT_STREQ(getenv(machine::kRootVariable), "/outer") << "the fixture restores the root";

  unsetenv(machine::kRootVariable);
  EXPECT_EQ(machine::Root(), "");
  EXPECT_EQ(machine::Resolve(machine::kLoadRegistry), machine::kLoadRegistry);
}

}  // namespace
