#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/olibc.h"
#include "tests/support/machine_root.h"

namespace {

// The platform's key=value and pid files, as anyone with a shell may have
// edited them.
TEST(KeyValueTest, ReadsAndChecksValuesAndPids) {
  orvotest::MachineRoot root;
  const char kConf[] =
      "# comment line, key=wrong\n"
      "unique=\"reelbox_x86_1019\"\n"
      "spaced   =   value with spaces  \n"
      "quoted = \"  padded  \"\n"
      "empty=\n"
      "dup=first\ndup=second\n"
      "keyprefix=no\n"
      "crlf=value\r\n"
      "trailing=\"abc\" # note\n"
      "equals=a=b\n"
      "nul=ab\0cd\n"
      "last=no newline";
  root.WriteFile("/test.conf", std::string(kConf, sizeof(kConf) - 1));
  const std::string file = root.At("/test.conf");
  const char* rows[][2] = {
      {"unique", "reelbox_x86_1019"}, {"spaced", "value with spaces"}, {"quoted", "  padded  "},
      {"empty", ""},                  {"dup", "first"},                {"key", nullptr},
      {"crlf", "value"},              {"trailing", "abc"},             {"equals", "a=b"},
      {"nul", "ab"},                  {"last", "no newline"},          {"# comment line, key", nullptr},
  };
  for (const auto& [key, expected] : rows) {
    char value[32];
    memset(value, 'x', sizeof(value));
    const int length = expected ? static_cast<int>(strlen(expected)) : 0;
    EXPECT_EQ(length, OLIBCFileGetKeyValue(file.c_str(), key, value, sizeof(value), 0)) << key;
    EXPECT_STREQ(expected ? expected : "", value) << key;
    EXPECT_EQ(expected ? 1 : 0, OLIBCFileCheckKeyValue(file.c_str(), key, expected ? expected : "", 0))
        << key;
  }
  // Only the first 5 bytes are the caller's buffer; the rest must stay.
  char value[8];
  memset(value, 'x', sizeof(value));
  EXPECT_EQ(4, OLIBCFileGetKeyValue(file.c_str(), "unique", value, 5, 0));
  EXPECT_EQ(std::string("reel\0xxx", 8), std::string(value, 8));
  OLIBCErrSet(0);
  EXPECT_EQ(-1, OLIBCFileGetKeyValue(root.At("/missing").c_str(), "unique", value, 8, 0));
  EXPECT_EQ(ENOENT, OLIBCErrGet());
  EXPECT_EQ(-1, OLIBCFileCheckKeyValue(root.At("/volume1").c_str(), "a", "", 0)) << "a directory";

  for (const auto& [content, pid] : std::initializer_list<std::pair<const char*, int>>{
           {"  77  \n", 77}, {"88", 88}, {"99\nextra\n", 99}, {"", -1}, {"0\n", -1}, {"-5\n", -1},
           {"12abc\n", -1}, {"99999999999\n", -1}}) {
    root.WriteFile("/run/x.pid", content);
    EXPECT_EQ(pid, OLIBCReadPidFile(root.At("/run/x.pid").c_str())) << "'" << content << "'";
  }
}

}  // namespace
