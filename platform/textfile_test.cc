#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/olibc.h"
#include "tests/support/machine_root.h"

namespace {

// The platform's key=value files, as anyone with a shell may have edited them.
TEST(KeyValueTest, ReadsAndChecksValues) {
  orvotest::MachineRoot root;
  const char kConf[] =
      "# comment line, key=wrong\n"
      "unique=\"reelbox_x86_1019\"\n"
      "spaced   =   value with spaces  \n"
      "quoted = \"  padded  \"\n"
      "empty=\n"
      "dup=first\ndup=second\n"
      "keyprefix=no\n"
      "  indented=yes\n"
      "crlf=value\r\n"
      "trailing=\"abc\" # note\n"
      "unterminated=\"abc\n"
      "equals=a=b\n"
      "nul=ab\0cd\n"
      "no equals sign here\n"
      "last=no newline";
  root.WriteFile("/test.conf", std::string(kConf, sizeof(kConf) - 1));
  const std::string file = root.At("/test.conf");
  const struct {
    const char* key;
    int result;
    const char* value;
  } rows[] = {
      {"unique", 16, "reelbox_x86_1019"}, {"spaced", 17, "value with spaces"},
      {"quoted", 10, "  padded  "},       {"empty", 0, ""},
      {"dup", 5, "first"},                {"key", 0, ""},
      {"prefix", 0, ""},                  {"indented", 3, "yes"},
      {"crlf", 5, "value"},               {"trailing", 3, "abc"},
      {"unterminated", 3, "abc"},         {"equals", 3, "a=b"},
      {"nul", 2, "ab"},                   {"last", 10, "no newline"},
      {"# comment line, key", 0, ""},     {"UNIQUE", 0, ""},
  };
  for (const auto& row : rows) {
    char value[32];
    memset(value, 'x', sizeof(value));
    EXPECT_EQ(row.result, OLIBCFileGetKeyValue(file.c_str(), row.key, value, sizeof(value), 0)) << row.key;
    EXPECT_STREQ(row.value, value) << row.key;
    EXPECT_EQ(row.result > 0 || !strcmp(row.key, "empty") ? 1 : 0,
              OLIBCFileCheckKeyValue(file.c_str(), row.key, row.value, 0)) << row.key;
  }
  // Only the first 5 bytes are the caller's buffer; the rest must stay.
  char value[8];
  memset(value, 'x', sizeof(value));
  EXPECT_EQ(4, OLIBCFileGetKeyValue(file.c_str(), "unique", value, 5, 0));
  EXPECT_EQ(std::string("reel\0xxx", 8), std::string(value, 8));

  OLIBCErrSet(0);
  EXPECT_EQ(-1, OLIBCFileGetKeyValue(root.At("/missing").c_str(), "unique", value, 8, 0));
  EXPECT_EQ(ENOENT, OLIBCErrGet());
  EXPECT_STREQ("", value);
  EXPECT_EQ(-1, OLIBCFileGetKeyValue(root.At("/volume1").c_str(), "a", value, 8, 0)) << "a directory";
  EXPECT_EQ(-1, OLIBCFileGetKeyValue(file.c_str(), "", value, 8, 0));
  EXPECT_EQ(-1, OLIBCFileGetKeyValue(file.c_str(), "unique", value, 0, 0));
  EXPECT_EQ(-1, OLIBCFileCheckKeyValue(file.c_str(), "unique", nullptr, 0));
}

TEST(KeyValueTest, ReadsPidFiles) {
  orvotest::MachineRoot root;
  const std::string path = root.At("/run/x.pid");
  for (const auto& [content, pid] : std::initializer_list<std::pair<const char*, int>>{
           {"1234\n", 1234}, {"  77  \n", 77}, {"88", 88}, {"99\nextra\n", 99}, {"", -1},
           {"0\n", -1}, {"-5\n", -1}, {"12abc\n", -1}, {"1 2\n", -1}, {"99999999999\n", -1}}) {
    root.WriteFile("/run/x.pid", content);
    EXPECT_EQ(pid, OLIBCReadPidFile(path.c_str())) << "content: '" << content << "'";
  }
  EXPECT_EQ(-1, OLIBCReadPidFile(root.At("/run/missing.pid").c_str()));
}

}  // namespace
