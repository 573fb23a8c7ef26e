#include "vte/utils/vteutils.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/machine_root.h"
#include "toolkit/files.h"

// Looking with root rights and handing the caller its ids back is seen
// through every public call in tests/privilege_test.cc.
namespace LibOrvoVTE {
namespace {

// Marker files hold a pid, an id or a flag: at most 4096 bytes up to the
// first NUL are read; a write replaces the whole content, and an empty one
// (which reads back as "no value") is never written.
TEST(MarkerFileTest, ReadsAShortTextAndSavesWholeContentsOnly) {
  orvotest::MachineRoot root;
  const std::string path = root.At("/tmp/marker");
  EXPECT_TRUE(SaveFile(path, std::string(5000, 'x')));
  EXPECT_EQ(std::string(4096, 'x'), ReadFile(path));
  EXPECT_TRUE(SaveFile(path, std::string("ab\0cd", 5)));
  EXPECT_EQ("ab", ReadFile(path));
  EXPECT_FALSE(SaveFile(path, ""));
  EXPECT_EQ(std::string("ab\0cd", 5), toolkit::ReadWholeFile(path));
  EXPECT_FALSE(SaveFile(root.At("/tmp/never"), ""));
  EXPECT_FALSE(VerifyFileExist(root.At("/tmp/never"), 0)) << "no empty file may appear";
  EXPECT_EQ("", ReadFile(root.At("/tmp"))) << "a directory";
}

}  // namespace
}  // namespace LibOrvoVTE
