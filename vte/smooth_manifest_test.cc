#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "toolkit/files.h"
#include "vte/smooth_manifest.h"
#include "vte/smooth_stream.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

using smooth::QualityValues;

const std::string kProfileFile = std::string(ORVOVTE_SAMPLE_PROFILES) + "/smooth.json";

// A source at each aspect class: 4:3, 16:9 and 2.35:1.
const float kClassRatios[] = {4.0f / 3, 16.0f / 9, 2.35f};

TEST(SmoothManifest, RendersTheDocumentByteForByte) {
  QualityValues values;
  ASSERT_TRUE(smooth::ProfileValues("smoothstreaming_240p_x264_vb200_vf15_aac_ab40", false,
                                    4.0f / 3, values));
  const std::string url = "/api/stream?format=ss&amp;id=abc";
  // The same three chunks close either stream index.
  const std::string chunks =
      "<c n=\"0\" d=\"50000000\" />\n<c n=\"1\" d=\"50000000\" />\n<c n=\"2\" d=\"20000000\" />\n"
      "</StreamIndex>\n";
  EXPECT_EQ(smooth::RenderManifest(12, url, values),
            "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
            "<SmoothStreamingMedia MajorVersion=\"2\" MinorVersion=\"0\" Duration=\"120000000\">\n"
            "<StreamIndex Type=\"video\" QualityLevels=\"1\" Chunks=\"3\" "
            "Url=\"/api/stream?format=ss&amp;id=abc&amp;fragment_id=QualityLevels({bitrate})/"
            "Fragments(video={start time})\">\n"
            "<QualityLevel Index=\"0\" Bitrate=\"200000\" FourCC=\"H264\" MaxWidth=\"320\" "
            "MaxHeight=\"240\" CodecPrivateData=\"000000016742c01eda0507e840000003004000000783c58b"
            "a80000000168ce1f20\" />\n" +
                chunks +
            "<StreamIndex Type=\"audio\" QualityLevels=\"1\" Chunks=\"3\" "
            "Url=\"/api/stream?format=ss&amp;id=abc&amp;fragment_id=QualityLevels({bitrate})/"
            "Fragments(audio={start time})\">\n"
            "<QualityLevel Index=\"0\" Bitrate=\"40000\" FourCC=\"AACL\" SamplingRate=\"48000\" "
            "Channels=\"2\" BitsPerSample=\"16\" PacketSize=\"4\" AudioTag=\"255\" "
            "CodecPrivateData=\"1190\" />\n" +
                chunks + "</SmoothStreamingMedia>\n");

  // Chunk counts, the last chunk and the single-precision total.
  const struct {
    float seconds;
    const char* duration;
    const char* chunks;
    const char* lastChunk;
  } cases[] = {
      {10, "100000000", "Chunks=\"2\"", "<c n=\"1\" d=\"50000000\" />\n</StreamIndex>"},
      {3, "30000000", "Chunks=\"1\"", "<c n=\"0\" d=\"30000000\" />\n</StreamIndex>"},
      {7201, "72009998336", "Chunks=\"1441\"", "<c n=\"1440\" d=\"10000000\" />\n</StreamIndex>"},
  };
  for (const auto& c : cases) {
    const std::string manifest = smooth::RenderManifest(c.seconds, url, values);
    EXPECT_NE(manifest.find(std::string("Duration=\"") + c.duration + "\""), std::string::npos)
        << c.seconds;
    EXPECT_NE(manifest.find(c.chunks), std::string::npos) << c.seconds;
    // Twice: once per stream index.
    const size_t first = manifest.find(c.lastChunk);
    ASSERT_NE(first, std::string::npos) << c.seconds;
    EXPECT_NE(manifest.find(c.lastChunk, first + 1), std::string::npos) << c.seconds;
  }
  // Durations no file really has: none, or beyond a month (a fuzzed one
  // overflowed the chunk count).
  for (const float seconds : {0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::infinity(), 1e30f, 2678401.0f}) {
    EXPECT_EQ(smooth::RenderManifest(seconds, url, values), "") << seconds;
  }
  EXPECT_NE(smooth::RenderManifest(2678400.0f, url, values), "");
  // A URL that cannot fit the line buffer gives no manifest rather than a
  // cut one; one that would break the attribute is escaped, references
  // already written are kept.
  EXPECT_EQ(smooth::RenderManifest(12, std::string(5000, 'u'), values), "");
  EXPECT_NE(smooth::RenderManifest(3, "/s?a=1&amp;b=\"><x&y&#38;", values)
                .find("Url=\"/s?a=1&amp;b=&quot;>&lt;x&amp;y&#38;&amp;fragment_id="),
            std::string::npos);
}

TEST(SmoothManifest, PicksTheNearerAspectClassAndItsSize) {
  const struct {
    float ratio;
    const char* aspect;
  } classes[] = {{1.0f, "1.33"}, {1.55f, "1.33"}, {1.56f, "1.77"}, {2.06f, "1.77"},
                 {2.07f, "2.35"}, {3.0f, "2.35"}};
  for (const auto& c : classes) EXPECT_EQ(c.aspect, smooth::AspectClass(c.ratio)) << c.ratio;
  std::string width = "kept", height = "kept";
  EXPECT_FALSE(smooth::TransResolution("360", 1.77f, width, height));
  EXPECT_FALSE(smooth::TransResolution("720", 0.0f, width, height));
  EXPECT_EQ("keptkept", width + height);
}

// The hardware list is the engine's own: its parameter sets cannot be
// regenerated here, so one row stands for them.
TEST(SmoothManifest, HardwareRowAndTheListsKeepToTheirEncoder) {
  QualityValues wide;
  ASSERT_TRUE(smooth::ProfileValues("smoothstreaming_hd720_h264_smd_vb1500_aac_ab128", true,
                                    2.35f, wide));
  EXPECT_EQ(wide.width + "x" + wide.height, "1280x540");
  EXPECT_EQ(wide.codecPrivateData,
            "000000016742c029da0140117efff00510050100000303e90000bb800f1832a00000000168ce1f20");
  EXPECT_FALSE(smooth::ProfileValues("smoothstreaming_hd1080_x264_vb4500_vf15_aac_ab128", false,
                                     1.77f, wide));
}

// The software rows are what x264 really emits with the profiles' settings:
// every size, encoded by the stock encoder in one run.
TEST(SmoothManifest, SoftwareParameterSetsAreWhatTheEncoderWrites) {
  std::string dir = (std::filesystem::temp_directory_path() / "smooth-sps-XXXXXX").string();
  ASSERT_NE(mkdtemp(dir.data()), nullptr);
  Json::Value profiles;
  ASSERT_TRUE(LibReelhall::ReadJsonFromFile(kProfileFile, profiles));

  std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-y",   "-v",
                                   "error",  "-f",       "lavfi", "-i",
                                   "testsrc=size=320x240:rate=25:duration=1"};
  std::vector<std::pair<std::string, QualityValues>> outputs;
  for (const std::string& name : profiles.getMemberNames()) {
    if (name.find("_h264_smd_") != std::string::npos) continue;
    for (float ratio : kClassRatios) {
      QualityValues values;
      ASSERT_TRUE(smooth::ProfileValues(name, false, ratio, values)) << name;
      const std::string out = dir + "/" + std::to_string(outputs.size()) + ".h264";
      outputs.emplace_back(out, values);
      // The profile's video options, with the height key as the size.
      const std::vector<std::string> words = StringExplode(profiles[name].asString(), " ");
      for (size_t i = 0; i < words.size() && words[i] != "-acodec"; ++i) {
        argv.push_back(i > 0 && words[i - 1] == "-s" ? values.width + "x" + values.height
                                                     : words[i]);
      }
      argv.insert(argv.end(), {"-pix_fmt", "yuv420p", "-frames:v", "1", "-f", "h264", out});
    }
  }
  ASSERT_EQ(orvotest::RunQuietly(argv, 60), 0);
  for (const auto& [path, values] : outputs) {
    std::string hex;
    for (unsigned char byte : toolkit::ReadWholeFile(path)) {
      static const char kDigits[] = "0123456789abcdef";
      hex += kDigits[byte >> 4];
      hex += kDigits[byte & 15];
    }
    // SPS and PPS open the stream; x264's own SEI follows.
    EXPECT_EQ(hex.substr(0, values.codecPrivateData.size()), values.codecPrivateData)
        << values.width << "x" << values.height;
  }
  orvotest::RemoveTree(dir);
}

// Init on real sessions from the 2-second 4:3 clip: the manifest is written
// with the session's URL, escaped; a hardware profile where there is no
// hardware encoder (the software list has no 1080 row), or a missing url,
// removes the session.
TEST(SmoothInit, WritesTheManifestOrRemovesTheSession) {
  orvotest::MachineRoot root;
  Json::Value params(Json::objectValue);
  params["url"] = "/api/stream";
  params["format"] = "ss";
  params["token"] = "t\"k";
  const std::string profile = "smoothstreaming_320p_x264_vb500_vf15_aac_ab64";
  ASSERT_EQ("ss1", orvotest::CreateSession(orvotest::Media::kH264AacMp4, "SS", "smooth.json", profile, "ss1"));
  SmoothStream stream("ss1");
  ASSERT_TRUE(stream.Init(params, Json::Value(), "", "")) << stream.GetErrorString();
  QualityValues values;
  ASSERT_TRUE(smooth::ProfileValues(profile, false, 4.0f / 3, values));
  EXPECT_EQ(smooth::RenderManifest(2, "/api/stream?format=ss&amp;id=ss1&amp;token=t&quot;k", values),
            toolkit::ReadWholeFile(stream.GetMainfest()));
  EXPECT_EQ(stream.GetVTEFileFullPath("manifest_predict"), stream.GetMainfest());
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
