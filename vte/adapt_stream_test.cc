#include "vte/adapt_stream.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;

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

void Touch(const std::string& path, long secondsAgo) {
  std::ofstream(path).put('x');
  const time_t when = time(nullptr) - secondsAgo;
  struct utimbuf times = {when, when};
  ASSERT_EQ(utime(path.c_str(), &times), 0) << path;
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

TEST_F(AdaptStreamTest, IdleTimeCountsFromTheLastAccess) {
  const std::string dir = orvotest::MakeSession("HLS", "s1");
  BareStream stream("s1", "HLS");
  // Never accessed: never idle, however long.
  EXPECT_FALSE(stream.VTEIsTimeout(0));

  const std::string access = dir + "/access_status";
  const struct {
    long secondsAgo;
    unsigned long limit;
    bool idle;
  } cases[] = {{29, 30, false}, {30, 30, true}, {900, 900, true}, {-60, 0, false}};
  for (const auto& c : cases) {
    Touch(access, c.secondsAgo);
    EXPECT_EQ(stream.VTEIsTimeout(c.limit), c.idle) << c.secondsAgo << " s ago, limit " << c.limit;
  }
  EXPECT_FALSE(BareStream("", "HLS").VTEIsTimeout(0));
}

TEST_F(AdaptStreamTest, SeekingStopsTheMonitorAndDeletesTheFragmentsThroughTheLink) {
  for (const char* format : {"HLS", "SS"}) {
    const std::string link = orvotest::MakeSession(format, std::string("s-") + format);
    BareStream stream(std::string("s-") + format, format);
    const std::string target = fs::read_symlink(link);
    fs::create_directories(target + "/smooth/QualityLevels(300000)");
    for (const char* name : {"slice-00000.ts", "slice-00001.ts", "seek_time", "video.m3u8",
                             "smooth/QualityLevels(300000)/Fragments(video=0)"}) {
      std::ofstream(target + "/" + name) << "x";
    }

    const pid_t monitor = orvotest::StartChild([] {
      for (;;) pause();
      return 0;
    });
    ASSERT_GT(monitor, 0);
    ASSERT_TRUE(stream.SaveMonitorPid(monitor, false));

    EXPECT_TRUE(stream.SeekingHandler()) << format;
    const bool ended = orvotest::Ends(monitor);
    if (!ended) kill(monitor, SIGKILL);
    int status = 0;
    waitpid(monitor, &status, 0);
    EXPECT_TRUE(ended && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM)
        << format << " " << status;

    const bool hls = std::string(format) == "HLS";
    EXPECT_EQ(fs::exists(target + "/slice-00000.ts"), !hls) << format;
    EXPECT_EQ(fs::exists(target + "/slice-00001.ts"), !hls) << format;
    EXPECT_EQ(fs::exists(target + "/smooth"), hls) << format;
    EXPECT_TRUE(fs::exists(target + "/seek_time")) << format;
    EXPECT_TRUE(fs::exists(target + "/video.m3u8")) << format;
  }
  EXPECT_FALSE(BareStream("", "HLS").SeekingHandler());
}

}  // namespace
}  // namespace LibOrvoVTE
