#include "tools/webapi/http_request.h"

#include <gtest/gtest.h>

namespace webapi {
namespace {

TEST(HttpRequestTest, PercentDecoding) {
  struct Case {
    const char* in;
    bool plus;
    const char* out;
  } cases[] = {
      {"a%20b", false, "a b"},
      {"%2Fv%2FMovie.eng.srt", false, "/v/Movie.eng.srt"},
      {"%2fv", false, "/v"},
      {"a+b", true, "a b"},
      {"a+b", false, "a+b"},
      {"100%", false, "100%"},
      {"%4", false, "%4"},
      {"%zz1", false, "%zz1"},
      {"%e6%97%a5", false, "\xe6\x97\xa5"},
  };
  for (const Case& c : cases) EXPECT_EQ(PercentDecode(c.in, c.plus), c.out) << c.in;
}

TEST(HttpRequestTest, QueryStrings) {
  const auto keys = ParseQuery(
      "format=ss&id=ab_12&fragment_id=QualityLevels(1500000)/Fragments(video=50000000)"
      "&subtitle_id=%2Fm%2Fa.eng.srt&flag&&name=a+b&id=last");
  EXPECT_EQ(keys.at("format"), "ss");
  EXPECT_EQ(keys.at("id"), "last");
  EXPECT_EQ(keys.at("fragment_id"), "QualityLevels(1500000)/Fragments(video=50000000)");
  EXPECT_EQ(keys.at("subtitle_id"), "/m/a.eng.srt");
  EXPECT_EQ(keys.at("flag"), "");
  EXPECT_EQ(keys.at("name"), "a b");
  EXPECT_EQ(keys.size(), 6u);
  EXPECT_TRUE(ParseQuery("").empty());
}

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
