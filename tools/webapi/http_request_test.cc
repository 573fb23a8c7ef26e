#include "tools/webapi/http_request.h"

#include <gtest/gtest.h>

namespace webapi {
namespace {

TEST(HttpRequestTest, RangeHeaders) {
  using K = ByteRange::Kind;
  struct Case {
    const char* header;
    long long length;
    K kind;
    long long first, last;
  } cases[] = {
      {"", 1000, K::kWhole, 0, 0},
      {"bytes=0-", 1000, K::kPart, 0, 999},
      {"bytes=100-199", 1000, K::kPart, 100, 199},
      {"bytes=900-5000", 1000, K::kPart, 900, 999},
      {"bytes=-100", 1000, K::kPart, 900, 999},
      {"bytes=-5000", 1000, K::kPart, 0, 999},
      {"bytes=1000-", 1000, K::kUnsatisfiable, 0, 0},
      {"bytes=500-", 0, K::kPart, 500, -1},
      {"bytes=500-600", 0, K::kPart, 500, 600},
      {"bytes=-100", 0, K::kWhole, 0, 0},
      {"bytes=200-100", 1000, K::kWhole, 0, 0},
      {"bytes=0-1,5-6", 1000, K::kWhole, 0, 0},
      {"bytes= 5-", 1000, K::kWhole, 0, 0},
      {"bytes=-", 1000, K::kWhole, 0, 0},
      {"bytes=5-x", 1000, K::kWhole, 0, 0},
      {"items=0-5", 1000, K::kWhole, 0, 0},
  };
  for (const Case& c : cases) {
    const ByteRange range = ResolveRange(c.header, c.length);
    EXPECT_EQ(range.kind, c.kind) << c.header << " of " << c.length;
    if (c.kind == K::kPart) {
      EXPECT_EQ(range.first, c.first) << c.header << " of " << c.length;
      EXPECT_EQ(range.last, c.last) << c.header << " of " << c.length;
    }
  }
}

TEST(HttpRequestTest, ErrorBodiesAreJson) {
  EXPECT_EQ(ErrorBody("TransAudioNotSupported"), R"({"error":"TransAudioNotSupported"})");
  EXPECT_EQ(ErrorBody("say \"no\""), R"({"error":"say \"no\""})");
}

}  // namespace
}  // namespace webapi
