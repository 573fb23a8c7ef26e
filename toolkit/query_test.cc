#include "toolkit/query.h"

#include <gtest/gtest.h>

namespace toolkit {
namespace {

TEST(QueryTest, PercentDecodingAndQueryStrings) {
  const struct {
    const char* in;
    bool plus;
    const char* out;
  } rows[] = {{"%2Fv%2fMovie.eng.srt", false, "/v/Movie.eng.srt"}, {"a+b", true, "a b"},
              {"a+b", false, "a+b"}, {"100%", false, "100%"}, {"%4", false, "%4"},
              {"%zz1", false, "%zz1"}, {"%e6%97%a5", false, "\xe6\x97\xa5"}};
  for (const auto& row : rows) EXPECT_EQ(row.out, PercentDecode(row.in, row.plus)) << row.in;

  // The last of a repeated key wins; "+" is a space in a query.
  const auto keys = ParseQuery(
      "format=ss&id=ab_12&fragment_id=QualityLevels(1500000)/Fragments(video=50000000)"
      "&subtitle_id=%2Fm%2Fa.eng.srt&flag&&name=a+b&id=last");
  EXPECT_EQ("flag= format=ss fragment_id=QualityLevels(1500000)/Fragments(video=50000000) id=last "
            "name=a b subtitle_id=/m/a.eng.srt ",
            [&] {
              std::string all;
              for (const auto& [key, value] : keys) all += key + "=" + value + " ";
              return all;
            }());
  EXPECT_TRUE(ParseQuery("").empty());
}

}  // namespace
}  // namespace toolkit
