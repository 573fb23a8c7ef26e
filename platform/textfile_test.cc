#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/machine_root.h"

namespace {

class KeyValueTest : public orvotest::MachineRootTest {
 protected:
  void SetUp() override {
    MachineRootTest::SetUp();
    Root().WriteFile("/test.conf",
                     "# comment line, key=wrong\n"
                     "unique=\"reelbox_x86_1019\"\n"
                     "spaced   =   value with spaces  \n"
                     "quoted = \"  padded  \"\n"
                     "empty=\n"
                     "emptyquoted=\"\"\n"
                     "dup=first\n"
                     "dup=second\n"
                     "keyprefix=no\n"
                     "  indented=yes\n"
                     "crlf=value\r\n"
                     "trailing=\"abc\" # note\n"
                     "unterminated=\"abc\n"
                     "equals=a=b\n"
                     "no equals sign here\n"
                     "last=no newline");
    file_ = Root().At("/test.conf");
  }
  std::string file_;
};

TEST_F(KeyValueTest, ReadsValues) {
  struct Case {
    const char* key;
    int result;
    const char* value;
  } cases[] = {
      {"unique", 16, "reelbox_x86_1019"}, {"spaced", 17, "value with spaces"},
      {"quoted", 10, "  padded  "},       {"empty", 0, ""},
      {"emptyquoted", 0, ""},             {"dup", 5, "first"},
      {"key", 0, ""},                     {"prefix", 0, ""},
      {"indented", 3, "yes"},             {"crlf", 5, "value"},
      {"trailing", 3, "abc"},             {"unterminated", 3, "abc"},
      {"equals", 3, "a=b"},               {"last", 10, "no newline"},
      {"# comment line, key", 0, ""},     {"no equals sign here", 0, ""},
      {"UNIQUE", 0, ""},
  };
  for (const Case& c : cases) {
    char value[256];
    memset(value, 'x', sizeof(value));
    EXPECT_EQ(OLIBCFileGetKeyValue(file_.c_str(), c.key, value, sizeof(value), 0), c.result)
        << c.key;
    EXPECT_STREQ(value, c.value) << c.key;
  }
}

TEST_F(KeyValueTest, TruncatesToTheBuffer) {
  char value[8];
  memset(value, 'x', sizeof(value));
  // Only the first 5 bytes are the caller's buffer; the rest must stay.
  EXPECT_EQ(OLIBCFileGetKeyValue(file_.c_str(), "unique", value, 5, 0), 4);
  EXPECT_STREQ(value, "reel");
  EXPECT_EQ(std::string(value + 5, 3), "xxx");

  EXPECT_EQ(OLIBCFileGetKeyValue(file_.c_str(), "unique", value, 1, 0), 0);
  EXPECT_STREQ(value, "");
}

// Found by fuzzing: a NUL inside a value made the length returned disagree
// with the C string written.
TEST_F(KeyValueTest, ValueEndsAtANul) {
  Root().WriteFile("/nul.conf", std::string("k=ab\0cd\nnext=1\n", 16));
  const std::string file = Root().At("/nul.conf");
  char value[16];
  EXPECT_EQ(OLIBCFileGetKeyValue(file.c_str(), "k", value, sizeof(value), 0), 2);
  EXPECT_STREQ(value, "ab");
  EXPECT_EQ(OLIBCFileCheckKeyValue(file.c_str(), "k", "ab", 0), 1);
  EXPECT_EQ(OLIBCFileGetKeyValue(file.c_str(), "next", value, sizeof(value), 0), 1);
}

TEST_F(KeyValueTest, RejectsUnreadableFilesAndBadArguments) {
  const std::string missing = Root().At("/missing.conf");
  char value[16] = "untouched";
  OLIBCErrSet(0);
  EXPECT_EQ(OLIBCFileGetKeyValue(missing.c_str(), "unique", value, sizeof(value), 0), -1);
  EXPECT_EQ(OLIBCErrGet(), ENOENT);
  EXPECT_STREQ(value, "");

  struct Case {
    const char* name;
    const char* file;
    const char* key;
    char* buffer;
    int size;
  } cases[] = {
      {"null file", nullptr, "unique", value, 16}, {"null key", file_.c_str(), nullptr, value, 16},
      {"empty key", file_.c_str(), "", value, 16}, {"null buffer", file_.c_str(), "unique", nullptr, 16},
      {"zero size", file_.c_str(), "unique", value, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(OLIBCFileGetKeyValue(c.file, c.key, c.buffer, c.size, 0), -1) << c.name;
  }
  // A directory opens but cannot be read.
  EXPECT_EQ(OLIBCFileGetKeyValue(Root().At("/volume1").c_str(), "a", value, 16, 0), -1);
}

TEST_F(KeyValueTest, ChecksValues) {
  struct Case {
    const char* key;
    const char* value;
    int result;
  } cases[] = {
      {"unique", "reelbox_x86_1019", 1}, {"unique", "reelbox_x86", 0}, {"unique", "REELBOX_X86_1019", 0},
      {"quoted", "  padded  ", 1},       {"dup", "second", 0},          {"dup", "first", 1},
      {"empty", "", 1},                  {"absent", "", 0},             {"absent", "yes", 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(OLIBCFileCheckKeyValue(file_.c_str(), c.key, c.value, 0), c.result)
        << c.key << "=" << c.value;
  }
  EXPECT_EQ(OLIBCFileCheckKeyValue(Root().At("/missing").c_str(), "unique", "x", 0), -1);
  EXPECT_EQ(OLIBCFileCheckKeyValue(file_.c_str(), "unique", nullptr, 0), -1);
}

TEST_F(KeyValueTest, ReadsPidFiles) {
  struct Case {
    const char* content;
    int pid;
  } cases[] = {
      {"1234\n", 1234}, {"1\n", 1},      {"  77  \n", 77},   {"88", 88},         {"99\nextra\n", 99},
      {"", -1},         {"\n", -1},      {"0\n", -1},        {"-5\n", -1},       {"abc\n", -1},
      {"12abc\n", -1},  {"1 2\n", -1},   {"99999999999\n", -1},
  };
  for (const Case& c : cases) {
    Root().WriteFile(librh::machine::kConversionPidFile, c.content);
    const std::string path = librh::machine::Resolve(librh::machine::kConversionPidFile);
    EXPECT_EQ(OLIBCReadPidFile(path.c_str()), c.pid) << "content: '" << c.content << "'";
  }
  EXPECT_EQ(OLIBCReadPidFile(Root().At("/run/missing.pid").c_str()), -1);
  EXPECT_EQ(OLIBCReadPidFile(nullptr), -1);
}

}  // namespace
