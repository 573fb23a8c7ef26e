#include "tools/webapi/http_request.h"

#include <gtest/gtest.h>

#include <string>

namespace webapi {
namespace {

TEST(HttpRequestTest, RangeHeaders) {
  const struct {
    const char* header;
    long long length;  // 0: not known yet
    const char* range;
  } rows[] = {
      {"", 1000, "whole"},                 {"bytes=100-199", 1000, "100-199"}, {"bytes=-100", 0, "whole"},
      {"bytes=900-5000", 1000, "900-999"}, {"bytes=-100", 1000, "900-999"},    {"bytes=-5000", 1000, "0-999"},
      {"bytes=500-", 0, "500--1"},         {"bytes=500-600", 0, "500-600"},    {"bytes=5-x", 1000, "whole"},
      {"bytes=200-100", 1000, "whole"},    {"bytes=0-1,5-6", 1000, "whole"},   {"bytes= 5-", 1000, "whole"},
      {"bytes=1000-", 1000, "unsatisfiable"},
  };
  for (const auto& row : rows) {
    const ByteRange range = ResolveRange(row.header, row.length);
    std::string resolved = std::to_string(range.first) + "-" + std::to_string(range.last);
    if (range.kind != ByteRange::kPart) resolved = range.kind == ByteRange::kWhole ? "whole" : "unsatisfiable";
    EXPECT_EQ(row.range, resolved) << row.header << " of " << row.length;
  }
}

}  // namespace
}  // namespace webapi
