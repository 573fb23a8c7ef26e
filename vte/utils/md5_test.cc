#include "vte/utils/md5.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/machine_root.h"

namespace LibReelhall {
namespace {

// Every byte counts (a C string would stop at the NUL), a digest starting
// with a zero byte keeps its leading "00", and a file longer than one read
// is read whole.
TEST(Md5Test, DigestsEveryByteOfAStringOrAFileAsLowerCaseHex) {
  orvotest::MachineRoot root;
  const struct {
    std::string data;
    const char* digest;
  } rows[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {std::string("a\0b", 3), "70350f6027bce3713f6b76473084309b"},
      {std::string(100000, '\0'), "0019d23bef56a136a1891211d7007f6f"},
  };
  for (const auto& row : rows) {
    root.WriteFile("/tmp/content", row.data);
    EXPECT_EQ(row.digest, GetMD5(row.data)) << row.data.size() << " bytes";
    EXPECT_EQ(row.digest, GetFileMD5(root.At("/tmp/content"))) << row.data.size() << " bytes";
  }
  EXPECT_EQ("", GetFileMD5(root.At("/tmp/absent")));
  EXPECT_EQ("", GetFileMD5(root.At("/tmp"))) << "a directory opens but cannot be read";
}

}  // namespace
}  // namespace LibReelhall
