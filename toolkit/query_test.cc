#include "toolkit/query.h"

#include <gtest/gtest.h>

namespace toolkit {
namespace {

TEST(QueryTest, PercentDecoding) {
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

TEST(QueryTest, QueryStrings) {
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

}  // namespace
}  // namespace toolkit
