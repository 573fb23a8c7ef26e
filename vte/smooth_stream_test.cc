#include "vte/smooth_stream.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/documents.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "toolkit/files.h"
#include "vte/smooth_manifest.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

// Fragment requests judged against staged session files: no transcoder runs
// here (the playback test runs real ones).
namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;

constexpr char kProfile[] = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";

class StagedSmooth : public SmoothStream {
 public:
  using SmoothStream::SmoothStream;
  std::string Arguments(long seek, bool hardware) {
    seekTime = seek;
    hardware_ = hardware;
    return orvotest::JoinWords(CalculateFFmpegArgument());
  }
};

std::string Fragment(const std::string& type, const std::string& time) {
  return "QualityLevels(200000)/Fragments(" + type + "=" + time + ")";
}

class SmoothRequests : public orvotest::MachineRootTest {
 protected:
  void SetUp() override {
    MachineRootTest::SetUp();
    ASSERT_EQ("req", orvotest::CreateSession(orvotest::Media::kH264AacMp4, "SS", "smooth.json", kProfile, "req"));
  }
  std::string File(const std::string& name) { return orvotest::SessionPath("SS", "req", name); }
  // Video fragments of one whole box each at `times` (100 ns).
  void Stage(const std::string& seekTime, const std::vector<long long>& times) {
    fs::remove_all(File("smooth"));
    fs::remove(File("seek_time"));
    if (!seekTime.empty()) SaveFile(File("seek_time"), seekTime);
    fs::create_directories(File("smooth/QualityLevels(200000)"));
    for (long long time : times) {
      std::ofstream(File("smooth/" + Fragment("video", std::to_string(time)))) << std::string("\0\0\0\x08" "free", 8);
    }
  }
};

TEST_F(SmoothRequests, SeeksOnlyFarAheadOrBehindTheRun) {
  SmoothStream stream("req");
  const std::vector<long long> upTo60 = {0, 50000000, 550000000, 600000000};
  const struct {
    const char* seekTime;  // "" for none
    std::vector<long long> fragments;
    std::string request;
    bool seek;
  } cases[] = {
      {"", {}, Fragment("video", "0"), true},  // nothing started yet
      {"0", {}, Fragment("video", "0"), false},
      {"0", upTo60, Fragment("video", "1100000000"), false},  // exactly 50 s ahead
      {"0", upTo60, Fragment("video", "1100000001"), true},
      {"0", upTo60, Fragment("audio", "1200000000"), true},  // no audio yet: from the start
      {"0", {}, Fragment("video", "500000000"), false},
      {"0", {}, Fragment("video", "500000001"), true},
      {"120", {}, Fragment("video", "1200000000"), false},
      {"120", {}, Fragment("video", "1199999999"), true},  // before the run
      {"0", upTo60, Fragment("video", "9223372036854775807"), true},
      {"0", upTo60, "garbage", false},  // ids without a time count as time 0
      {"120", {}, Fragment("video", "abc"), true},
  };
  for (const auto& c : cases) {
    Stage(c.seekTime, c.fragments);
    EXPECT_EQ(stream.IsNeedToSeek(c.request), c.seek)
        << c.request << " with seek_time \"" << c.seekTime << "\" and " << c.fragments.size() << " fragments";
  }
  EXPECT_EQ(stream.CalculateSeekTime(Fragment("video", "1234567890")), 123);
  EXPECT_EQ(ReadFile(File("seek_time")), "123");
}

TEST_F(SmoothRequests, FragmentIsReadyOnceALaterOneStartedAndServedOnlyWhole) {
  SmoothStream stream("req");
  Stage("0", {0, 50000000, 100000000});
  // A live monitor: this test's own process.
  ASSERT_TRUE(stream.SaveMonitorPid(getpid(), false));
  const struct {
    std::string id;
    unsigned int ahead;
    bool ready;
  } cases[] = {
      {Fragment("video", "50000000"), 0, true},
      {Fragment("video", "100000000"), 0, false},  // still being written
      {Fragment("video", "50000000"), 1, false},
      {Fragment("video", "12345"), 0, true},  // not on the 5-second grid
      {Fragment("audio", "0"), 0, false},
      // The largest multiple of 5 s that a long long holds: no wrap-around.
      {Fragment("video", "9223372036850000000"), 0, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(stream.VerifyFragmentIsReady(c.id, c.ahead), c.ready) << c.id << " +" << c.ahead;
  }
  // With the transcoder ended, what exists is all there will be.
  SaveFile(File("monitor.pid"), "999999999");
  EXPECT_TRUE(stream.VerifyFragmentIsReady(Fragment("video", "100000000"), 0));
  // One cut short by a full volume (its mdat announces more) is removed.
  const std::string path = File("smooth/" + Fragment("video", "0"));
  EXPECT_EQ(stream.ReadFragment(Fragment("video", "0")), path);
  std::ofstream(path, std::ios::app) << std::string("\0\0\0\x64mdat", 8) << "short";
  EXPECT_EQ(stream.ReadFragment(Fragment("video", "0")), "");
  EXPECT_FALSE(fs::exists(path));
}

// A quarter-turned picture is fitted with bars by a profile without filters
// too (the playback test sees the software profile's).
TEST_F(SmoothRequests, TranscoderArgumentsCarryThePredictedSize) {
  const std::string head = "-vcodec libx264 -preset veryfast";
  const std::string software = StagedSmooth("req").Arguments(120, false);
  EXPECT_EQ(head, software.substr(0, head.size()));
  EXPECT_NE(software.find(" -bufsize 400000 -s 320x240 -vf setsar=0/1 "), std::string::npos) << software;
  EXPECT_EQ(" -ac 2 -fragment_length 5 -seek_time 120", software.substr(software.find(" -ac 2 ")));
  const std::string hardware = StagedSmooth("req").Arguments(120, true);
  EXPECT_EQ(" -ac 2 -fragment_length 5 -seek_time 120 -filled 1", hardware.substr(hardware.find(" -ac 2 ")));
  ASSERT_EQ("turned", orvotest::CreateSession(orvotest::Media::kRotatedMp4, "SS", "smooth.json",
                                              "smoothstreaming_240p_h264_smd_vb200_aac_ab40", "turned"));
  const std::string turned = StagedSmooth("turned").Arguments(0, false);
  EXPECT_EQ(" -ac 2 -vf scale=w='if(gt(dar,320/240),320,2*trunc(240*dar/2))':"
            "h='if(gt(dar,320/240),2*trunc(320/dar/2),240)',pad=320:240:-1:-1 -fragment_length 5 -seek_time 0",
            turned.substr(turned.find(" -ac 2 ")));
}

using smooth::QualityValues;

// Chunks of 5 s, the last one what is left; the total in single precision;
// the nearer aspect class and the hardware list.
TEST(SmoothManifest, ChunksDurationsUrlAttributeAspectClassesAndHardwareSets) {
  QualityValues values;
  ASSERT_TRUE(smooth::ProfileValues("smoothstreaming_240p_x264_vb200_vf15_aac_ab40", false, 4.0f / 3, values));
  const std::string url = "/api/stream?format=ss&amp;id=abc";
  const std::string longest = smooth::RenderManifest(7201, url, values);
  EXPECT_NE(longest.find("Duration=\"72009998336\""), std::string::npos);
  EXPECT_NE(longest.find("Chunks=\"1441\""), std::string::npos);
  EXPECT_NE(longest.find("<c n=\"1440\" d=\"10000000\" />\n</StreamIndex>"), std::string::npos);
  // Durations no file has; beyond a month, a fuzzed one overflowed.
  for (const float seconds : {0.0f, std::numeric_limits<float>::quiet_NaN(), 2678401.0f}) {
    EXPECT_EQ(smooth::RenderManifest(seconds, url, values), "") << seconds;
  }
  // A URL too long gives no manifest, not a cut one; references kept.
  EXPECT_EQ(smooth::RenderManifest(12, std::string(5000, 'u'), values), "");
  // The hardware sets cannot be regenerated here: one row stands for them.
  ASSERT_TRUE(smooth::ProfileValues("smoothstreaming_hd720_h264_smd_vb1500_aac_ab128", true, 2.35f, values));
  EXPECT_EQ("1280x540 000000016742c029da0140117efff00510050100000303e90000bb800f1832a00000000168ce1f20",
            values.width + "x" + values.height + " " + values.codecPrivateData);
  EXPECT_EQ("1.33 1.77 1.77 2.35 ", smooth::AspectClass(1.55f) + " " + smooth::AspectClass(1.56f) + " " +
                                        smooth::AspectClass(2.06f) + " " + smooth::AspectClass(2.07f) + " ");
  EXPECT_NE(smooth::RenderManifest(3, "/s?a=1&amp;b=\"><x&y&#38;", values)
                .find("Url=\"/s?a=1&amp;b=&quot;>&lt;x&amp;y&#38;&amp;fragment_id="),
            std::string::npos);
}

// The software rows are what x264 really emits with the profiles' settings:
// every size, encoded by the stock encoder in one run.
TEST(SmoothManifest, SoftwareParameterSetsAreWhatTheEncoderWrites) {
  std::string dir = (std::filesystem::temp_directory_path() / "smooth-sps-XXXXXX").string();
  ASSERT_NE(mkdtemp(dir.data()), nullptr);
  Json::Value profiles;
  ASSERT_TRUE(LibReelhall::ReadJsonFromFile(std::string(ORVOVTE_SAMPLE_PROFILES) + "/smooth.json", profiles));
  std::vector<std::string> argv =
      orvotest::SplitWords("ffmpeg -nostdin -y -v error -f lavfi -i testsrc=size=320x240:rate=25:duration=1");
  std::vector<std::pair<std::string, QualityValues>> outputs;
  for (const std::string& name : profiles.getMemberNames()) {
    if (name.find("_h264_smd_") != std::string::npos) continue;
    for (float ratio : {4.0f / 3, 16.0f / 9, 2.35f}) {
      QualityValues values;
      ASSERT_TRUE(smooth::ProfileValues(name, false, ratio, values)) << name;
      const std::string out = dir + "/" + std::to_string(outputs.size()) + ".h264";
      outputs.emplace_back(out, values);
      // The profile's video options, with the height key as the size.
      const std::vector<std::string> words = StringExplode(profiles[name].asString(), " ");
      for (size_t i = 0; i < words.size() && words[i] != "-acodec"; ++i) {
        argv.push_back(i > 0 && words[i - 1] == "-s" ? values.width + "x" + values.height : words[i]);
      }
      argv.insert(argv.end(), {"-pix_fmt", "yuv420p", "-frames:v", "1", "-f", "h264", out});
    }
  }
  ASSERT_EQ(orvotest::RunQuietly(argv, 60), 0);
  for (const auto& [path, values] : outputs) {
    // SPS and PPS open the stream; x264's own SEI follows.
    const std::string sets = orvotest::BytesFromHex(values.codecPrivateData);
    EXPECT_EQ(sets, toolkit::ReadWholeFile(path).substr(0, sets.size())) << values.width << "x" << values.height;
  }
  orvotest::RemoveTree(dir);
}

// The manifest of the 2-second 4:3 clip, with the caller's optional keys of
// the right type, escaped; no hardware encoder for a hardware profile (the
// software list has no 1080 row), or no url, removes the session.
TEST(SmoothInit, WritesTheManifestOrRemovesTheSession) {
  orvotest::MachineRoot root;
  Json::Value params = orvotest::ParseJson(
      R"({"url": "/api/stream", "format": "ss", "api": "A.S", "version": 18446744073709551615, "method": 3,
          "hls_header": true, "token": "t\"k", "_sid": null, "OrvoToken": "o", "sharing_id": 1.5})");
  const std::string profile = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";
  ASSERT_EQ("ss1", orvotest::CreateSession(orvotest::Media::kH264AacMp4, "SS", "smooth.json", profile, "ss1"));
  SmoothStream stream("ss1");
  ASSERT_TRUE(stream.Init(params, Json::Value(), "", "")) << stream.GetErrorString();
  const std::string url =
      "Url=\"/api/stream?format=ss&amp;id=ss1&amp;api=A.S&amp;version=18446744073709551615&amp;hls_header=1&amp;"
      "token=t&quot;k&amp;OrvoToken=o&amp;fragment_id=QualityLevels({bitrate})/";
  const std::string chunk = "<c n=\"0\" d=\"20000000\" />\n</StreamIndex>\n";
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
            "<SmoothStreamingMedia MajorVersion=\"2\" MinorVersion=\"0\" Duration=\"20000000\">\n"
            "<StreamIndex Type=\"video\" QualityLevels=\"1\" Chunks=\"1\" " +
                url + "Fragments(video={start time})\">\n"
                "<QualityLevel Index=\"0\" Bitrate=\"200000\" FourCC=\"H264\" MaxWidth=\"320\" "
                "MaxHeight=\"240\" CodecPrivateData=\"000000016742c01eda0507e840000003004000000783c58b"
                "a80000000168ce1f20\" />\n" +
                chunk + "<StreamIndex Type=\"audio\" QualityLevels=\"1\" Chunks=\"1\" " + url +
                "Fragments(audio={start time})\">\n"
                "<QualityLevel Index=\"0\" Bitrate=\"40000\" FourCC=\"AACL\" SamplingRate=\"48000\" "
                "Channels=\"2\" BitsPerSample=\"16\" PacketSize=\"4\" AudioTag=\"255\" "
                "CodecPrivateData=\"1190\" />\n" +
                chunk + "</SmoothStreamingMedia>\n",
            toolkit::ReadWholeFile(stream.GetMainfest()));
  EXPECT_TRUE(stream.Close());
  for (const auto& [failing, url] : {std::make_pair("smoothstreaming_hd1080_h264_smd_vb4500_aac_ab128", "/api/stream"),
                                     std::make_pair("smoothstreaming_240p_x264_vb200_vf15_aac_ab40", "")}) {
    ASSERT_EQ("ss2", orvotest::CreateSession(orvotest::Media::kH264AacMp4, "SS", "smooth.json", failing, "ss2"));
    params["url"] = url;
    SmoothStream refused("ss2");
    EXPECT_FALSE(refused.Init(params, Json::Value(), "", "")) << failing;
    EXPECT_FALSE(VerifyFileExist(refused.GetVTEFileFullPath(""), 0)) << failing;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
