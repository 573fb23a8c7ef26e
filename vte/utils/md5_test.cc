#include "vte/utils/md5.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"

namespace LibReelhall {
namespace {

struct Vector {
  std::string data;
  const char* digest;
};

// From RFC 1321's test suite (the digest itself is the library's), plus
// bytes a C string would lose (NULs) and a digest that starts with a zero
// byte, which a formatter without padding would shorten.
const Vector kVectors[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {std::string("a\0b", 3), "70350f6027bce3713f6b76473084309b"},
    {std::string(1, '\0'), "93b885adfe0da089cdf634904fd59f71"},
    {std::string(100000, '\0'), "0019d23bef56a136a1891211d7007f6f"},
    {"/volume1/video/movie.mkv", "efb302fc3c453057461a3015aaf07610"},
};

TEST(GetMD5Test, DigestsEveryByteAsLowerCaseHex) {
  for (const Vector& v : kVectors) {
    EXPECT_EQ(v.digest, GetMD5(v.data)) << "data of " << v.data.size() << " bytes";
  }
}

class GetFileMD5Test : public orvotest::MachineRootTest {};

TEST_F(GetFileMD5Test, DigestsTheWholeFile) {
  for (const Vector& v : kVectors) {
    Root().WriteFile("/tmp/content", v.data);
    EXPECT_EQ(v.digest, GetFileMD5(Root().At("/tmp/content")))
        << "file of " << v.data.size() << " bytes";
  }
}

TEST_F(GetFileMD5Test, FailsWithALogLineWhenTheFileCannotBeOpenedOrRead) {
  {
    orvotest::LogCapture logs;
    EXPECT_EQ("", GetFileMD5(Root().At("/tmp/absent")));
    EXPECT_TRUE(logs.Has(LOG_ERR, "md5:22 failed to open file")) << logs.Dump();
  }
  {
    orvotest::LogCapture logs;
    EXPECT_EQ("", GetFileMD5(Root().At("/tmp"))) << "a directory opens but cannot be read";
    EXPECT_TRUE(logs.Has(LOG_ERR, "md5:30 failed to read content")) << logs.Dump();
  }
}

}  // namespace
}  // namespace LibReelhall
