#include "platform/machine_root.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/machine_root.h"

namespace {

namespace machine = librh::machine;

TEST(MachineRootModuleTest, FixedPathsResolveUnderTheVariable) {
  setenv(machine::kRootVariable, "/outer", 1);
  {
    orvotest::MachineRoot root;
    EXPECT_EQ(root.At(machine::kOrvoInfoConf), machine::Resolve(machine::kOrvoInfoConf));
    // A trailing slash in the variable must not double up.
    setenv(machine::kRootVariable, (root.Path() + "//").c_str(), 1);
    EXPECT_EQ(root.Path() + machine::kCpuInfo, machine::Resolve(machine::kCpuInfo));
  }
  EXPECT_STREQ("/outer", getenv(machine::kRootVariable)) << "the fixture restores the root";
  unsetenv(machine::kRootVariable);
  EXPECT_EQ(machine::kLoadRegistry, machine::Resolve(machine::kLoadRegistry));
}

}  // namespace
