#include "decisions/argument_helper.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/documents.h"
#include "tests/support/machine_root.h"

namespace LibOrvoVTE {
namespace {

using orvotest::DocumentMetaData;

// A Matroska file with the video tracks `video` and the audio list `audio`.
std::string File(const std::string& video, const std::string& audio = "[]") {
  return R"({"container_type":"matroska,webm","track_info":{"video":[)" + video +
         R"(],"audio":)" + audio + R"(,"subtitle":[]}})";
}

// The engine's answer (an HWTranscodeResult) for the first video track, on
// each platform at its bounds.
TEST(ArgumentHelperTest, HardwareEngineOfThePlatformJudgesTheFirstVideoTrack) {
  const struct {
    const char* platform;
    std::string video;  // "" : no document at all
    unsigned int expected;
  } rows[] = {
      {"evansport", R"({"codec":"vp8","resolutionx":640,"resolutiony":480})", 0},
      {"evansport", R"({"codec":"vp8","resolutionx":720,"resolutiony":481})", 1},
      {"evansport", R"({"codec":"rv40","resolutionx":1280,"resolutiony":720})", 0},
      {"evansport", R"({"codec":"rv40","resolutionx":1280,"resolutiony":721})", 1},
      {"evansport", R"({"codec":"h264","resolutionx":3840,"resolutiony":2160})", 0},
      {"monaco", R"({"codec":"h264","resolutionx":3840,"resolutiony":2160,"framerate":24.05})", 0},
      // 24.1 read as a float is a little above 24.1.
      {"monaco", R"({"codec":"h264","resolutionx":3840,"resolutiony":2160,"framerate":24.1})", 5},
      {"monaco", R"({"codec":"h264","resolutionx":1920,"resolutiony":1080,"framerate":60})", 0},
      {"monaco", R"({"codec":"h264","resolutionx":3840,"resolutiony":2161})", 3},
      {"monaco", R"({"codec":"h264","resolutionx":3841,"resolutiony":2160})", 3},
      {"monaco", R"({"codec":"hevc","resolutionx":2160,"resolutiony":3840})", 3},
      {"monaco", R"({"codec":"mpeg2","resolutionx":1920,"resolutiony":1080})", 0},
      {"monaco", R"({"codec":"mpeg2","resolutionx":1080,"resolutiony":1921})", 3},
      {"monaco", R"({"codec":"mpeg2","resolutionx":1081,"resolutiony":1081})", 3},
      {"monaco", R"({"codec":"mpeg4","codec_tag":"DIVX","resolutionx":3840,"resolutiony":2160})", 2},
      {"monaco", R"({"codec":"mpeg4","codec_tag":"divx","resolutionx":640,"resolutiony":480})", 0},
      {"monaco", R"({"codec":"h264","profile":"High 10","resolutionx":4096,"resolutiony":2160})", 4},
      {"monaco", R"({"codec":"hevc","profile":"Main 10","resolutionx":1280,"resolutiony":720})", 4},
      {"monaco", R"({"codec":"vp9","resolutionx":1280,"resolutiony":720},{"codec":"h264"})", 2},
      {"monaco", R"({"codec":"h264","resolutionx":1280,"resolutiony":0})", 1},
      {"monaco", "", 1},
      {"braswell", R"({"codec":"vp9","resolutionx":4096,"resolutiony":2160})", 0},
      {"x86", R"({"codec":"h264","resolutionx":1280,"resolutiony":720})", 1},
  };
  orvotest::MachineRoot root;
  for (const auto& row : rows) {
    orvotest::PlatformFiles platform;
    platform.name = row.platform;
    root.Play(platform);
    ArgumentHelper helper{DocumentMetaData(row.video.empty() ? "" : File(row.video))};
    EXPECT_EQ(row.expected, helper.AbleToTranscodeTheVideo(true)) << row.platform << " " << row.video;
    EXPECT_EQ(0u, helper.AbleToTranscodeTheVideo(false)) << row.platform << " " << row.video;
  }
}

TEST(ArgumentHelperTest, OutputSizeFitsTheBoxWithTheDisplayAspect) {
  const struct {
    std::string video;  // width height sar_num sar_den; "" : no document
    const char* name;
    bool exact;
    unsigned int rotate;
    const char* size;  // "7x9": nothing written
  } rows[] = {
      {"1920 800 1 1", "hd720", false, 0, "1280x532"},
      {"1920 800 1 1", "hd720", false, 180, "1280x532"},
      {"1920 800 1 1", "hd720", true, 0, "1280x720"},
      {"1920 800 1 1", "hd720", true, 90, "720x1280"},
      {"1920 800 1 1", "hd1080", true, 270, "1080x1920"},
      {"1920 800 1 1", "320x240", true, 0, "320x240"},
      {"1920 800 1 1", "HD720", true, 0, "0x0"},
      {"1920 800 1 1", "HD720", false, 0, "7x9"},
      {"1920 800 1 1", "", true, 0, "7x9"},
      {"1000 400 1 1", "hd480", false, 0, "852x340"},
      {"1000 400 1 1", "hd720", false, 90, "288x720"},
      {"1000 400 1 1", "hd720", false, 270, "288x720"},
      {"500 400 1 1", "hd720", false, 0, "900x720"},
      {"1010 1000 1 1", "480x360", false, 0, "362x360"},
      {"640 480 2 1", "hd480", false, 0, "852x318"},
      {"1440 1080 4 3", "hd480", false, 0, "852x478"},
      {"1440 1080 0 0", "hd480", false, 0, "640x480"},
      {"1440 1080 4 0", "hd480", false, 0, "640x480"},
      {"1280 0 1 1", "hd720", false, 0, "7x9"},
      {"", "hd720", false, 0, "7x9"},
      {"", "hd480", true, 0, "852x480"},
  };
  for (const auto& row : rows) {
    unsigned int w = 0, h = 0, num = 0, den = 0;
    sscanf(row.video.c_str(), "%u %u %u %u", &w, &h, &num, &den);
    const std::string video = "{\"resolutionx\":" + std::to_string(w) + ",\"resolutiony\":" +
                              std::to_string(h) + ",\"sample_aspect_ratio_num\":" +
                              std::to_string(num) + ",\"sample_aspect_ratio_den\":" +
                              std::to_string(den) + "}";
    ArgumentHelper helper{DocumentMetaData(row.video.empty() ? "" : File(video))};
    unsigned int width = 7, height = 9;
    helper.GetTransVideoSize(row.name, row.exact, row.rotate, width, height);
    EXPECT_EQ(row.size, std::to_string(width) + "x" + std::to_string(height))
        << row.video << " " << row.name << " exact " << row.exact << " rotate " << row.rotate;
  }
}

// Ids count video, audio and subtitle streams together, so audio ids have
// gaps; a track without a codec cannot be chosen.
const char kAudioTracks[] =
    R"([{"id":"1","track":"1","codec":"aac"}, {"id":"2","track":"2"},)"
    R"( {"id":"4","track":"4","codec":"dts"}, {"id":"2","track":"5","codec":"ac3"},)"
    R"( {"id":6,"track":"6","codec":"eac3"}])";

TEST(ArgumentHelperTest, AudioTrackByIdAndTheAudioListsShape) {
  ArgumentHelper helper{DocumentMetaData(File("{}", kAudioTracks))};
  const struct {
    const char* id;
    const char* track;  // "" : none
    unsigned int index;  // 99: not written
  } rows[] = {{"", "1", 99},  {"1", "1", 0},  {"4", "4", 2},   {"2", "5", 3},
              {"6", "6", 4},  {"3", "", 99},  {"01", "", 99},  {" 1", "", 99}};
  for (const auto& row : rows) {
    unsigned int index = 99;
    const Json::Value track = helper.GetAudioTrackInfoByID(row.id, index);
    EXPECT_EQ(row.track, track.isNull() ? "" : track["track"].asString()) << "id '" << row.id << "'";
    EXPECT_EQ(row.index, index) << "id '" << row.id << "'";
  }
  EXPECT_TRUE(helper.DoesAudioCodecMatch("2", "ac3"));
  EXPECT_FALSE(helper.DoesAudioCodecMatch("1", "AAC"));
  EXPECT_FALSE(helper.DoesAudioCodecMatch("7", ""));

  const struct {
    std::string document;
    bool zeroAudio, firstTrack;
  } shapes[] = {
      {File("{}", "[]"), true, false},
      {File("{}", kAudioTracks), false, true},
      {R"({"track_info":{"video":[],"subtitle":[]}})", false, false},
      {File("{}", R"({"0":{"id":"1","track":"1","codec":"aac"}})"), false, false},
      {File("{}", R"(["aac",7,null])"), false, true},
      {"", false, false},
  };
  for (const auto& shape : shapes) {
    ArgumentHelper lists{DocumentMetaData(shape.document)};
    EXPECT_EQ(shape.zeroAudio, lists.ZeroAudioTrack()) << shape.document;
    EXPECT_EQ(shape.firstTrack, lists.AbleToDecodeAudio("")) << shape.document;
    EXPECT_FALSE(lists.DoesAudioCodecMatch("1", "")) << shape.document;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
