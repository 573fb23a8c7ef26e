#include "vte/adapt_stream.h"


#include <gtest/gtest.h>

#include <string>

#include "tests/support/machine_root.h"

namespace LibOrvoVTE {
namespace {

// The base alone, under either format word.
class BareStream : public AdaptStream {
 public:
  BareStream(const std::string& id, const std::string& format) : AdaptStream(id, format) {}
  bool Init(const Json::Value&, const Json::Value&, const std::string&,
            const std::string&) override {
    return false;
  }
  bool Transcoding(const std::string&) override { return false; }
  std::string ReadFragment(const std::string&) override { return ""; }
};

Json::Value Parse(const std::string& text) {
  Json::Value value;
  Json::Reader().parse(text, value);
  return value;
}

using AdaptStreamTest = orvotest::MachineRootTest;

TEST_F(AdaptStreamTest, StreamUrlCarriesTheOptionalKeysOfTheRightType) {
  const char kAll[] =
      R"({"url": "/api/stream", "format": "hls", "api": "A.Stream", "version": 2,
          "method": "stream", "hls_header": true, "token": "t", "_sid": "s",
          "OrvoToken": "o", "sharing_id": "h"})";
  const struct {
    const char* format;
    const char* params;
    const char* url;
  } cases[] = {
      {"HLS", R"({"url": "/api/stream", "format": "hls", "api": "A.Stream", "version": 1,
                 "method": "stream"})",
       "/api/stream?format=hls&id=s1&api=A.Stream&version=1&method=stream"},
      {"HLS", kAll,
       "/api/stream?format=hls&id=s1&api=A.Stream&version=2&method=stream&hls_header=1"
       "&token=t&_sid=s&OrvoToken=o&sharing_id=h"},
      {"SS", kAll,
       "/api/stream?format=hls&amp;id=s1&amp;api=A.Stream&amp;version=2&amp;method=stream"
       "&amp;hls_header=1&amp;token=t&amp;_sid=s&amp;OrvoToken=o&amp;sharing_id=h"},
      // Wrong types are left out, values are not escaped.
      {"HLS", R"({"url": "u", "format": "f", "api": 3, "version": "2", "method": true,
                 "hls_header": false, "token": "a b&c", "_sid": null, "OrvoToken": ["o"],
                 "sharing_id": 1.5})",
       "u?format=f&id=s1&token=a b&c"},
      {"HLS", R"({"url": "u", "format": "f", "version": 2.5})", "u?format=f&id=s1"},
      // Decimal at either end of 64 bits, signed or not.
      {"HLS", R"({"url": "u", "format": "f", "version": 18446744073709551615})",
       "u?format=f&id=s1&version=18446744073709551615"},
      {"SS", R"({"url": "u", "format": "f", "version": -9223372036854775808})",
       "u?format=f&amp;id=s1&amp;version=-9223372036854775808"},
      {"HLS", R"({"url": "", "format": "hls"})", ""}, {"HLS", R"({"url": "u"})", ""},
      {"HLS", R"({"url": 7, "format": "hls"})", ""},  {"HLS", R"(["u", "hls"])", ""},
      {"HLS", R"("u")", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(BareStream("s1", c.format).GetStreamURL(Parse(c.params)), c.url)
        << c.format << " " << c.params;
  }
  EXPECT_EQ(BareStream("", "HLS").GetStreamURL(Parse(kAll)), "");
  EXPECT_EQ(BareStream("s1", "").GetStreamURL(Parse(kAll)), "");
}

}  // namespace
}  // namespace LibOrvoVTE
