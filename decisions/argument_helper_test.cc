#include "decisions/argument_helper.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/documents.h"
#include "tests/support/machine_root.h"

namespace LibOrvoVTE {
namespace {

using orvotest::DocumentMetaData;

// A Matroska file with the video track `video` and the audio list `audio`.
std::string File(const std::string& video, const std::string& audio = "[]") {
  return R"({"container_type":"matroska,webm","track_info":{"video":[)" + video + R"(],"audio":)" + audio +
         R"(,"subtitle":[]}})";
}

// The engine's answer (an HWTranscodeResult) on each platform at its bounds.
TEST(ArgumentHelperTest, HardwareEngineOfThePlatformJudgesTheVideo) {
  const struct {
    const char* platform;
    const char* codec;
    unsigned int width, height;
    double framerate;
    const char* tagOrProfile;  // the codec tag of MPEG-4, else the profile
    unsigned int expected;
  } rows[] = {
      {"evansport", "vp8", 640, 480, 25, "", 0},       {"evansport", "vp8", 720, 481, 25, "", 1},
      {"evansport", "rv40", 1280, 721, 25, "", 1},     {"evansport", "h264", 3840, 2160, 25, "", 0},
      {"monaco", "h264", 3840, 2160, 24.05, "", 0},    {"monaco", "h264", 3840, 2160, 24.1, "", 5},
      {"monaco", "h264", 3841, 2160, 25, "", 3},       {"monaco", "hevc", 2160, 3840, 25, "", 3},
      {"monaco", "mpeg2", 1920, 1080, 25, "", 0},      {"monaco", "mpeg2", 1081, 1081, 25, "", 3},
      {"monaco", "mpeg4", 640, 480, 25, "DIVX", 2},    {"monaco", "h264", 1280, 720, 25, "High 10", 4},
      {"monaco", "hevc", 1280, 720, 25, "Main 10", 4}, {"monaco", "vp9", 1280, 720, 25, "", 2},
      {"monaco", "h264", 1280, 0, 25, "", 1},          {"braswell", "vp9", 4096, 2160, 60, "", 0},
      {"x86", "h264", 1280, 720, 25, "", 1},
  };
  orvotest::MachineRoot root;
  for (const auto& row : rows) {
    orvotest::PlatformFiles platform;
    platform.name = row.platform;
    root.Play(platform);
    Json::Value video;
    video["codec"] = row.codec;
    video["resolutionx"] = row.width;
    video["resolutiony"] = row.height;
    video["framerate"] = row.framerate;
    video[row.codec == std::string("mpeg4") ? "codec_tag" : "profile"] = row.tagOrProfile;
    ArgumentHelper helper{DocumentMetaData(File(orvotest::JsonLine(video)))};
    EXPECT_EQ(row.expected, helper.AbleToTranscodeTheVideo(true))
        << row.platform << " " << orvotest::JsonLine(video);
    EXPECT_EQ(0u, helper.AbleToTranscodeTheVideo(false)) << row.platform;
  }
  ArgumentHelper nothing{DocumentMetaData(std::string())};
  EXPECT_EQ(1u, nothing.AbleToTranscodeTheVideo(true)) << "no document";
}

TEST(ArgumentHelperTest, OutputSizeFitsTheBoxWithTheDisplayAspect) {
  const struct {
    std::string video;  // width height sar_num sar_den; "" : no document
    const char* name;
    bool exact;
    unsigned int rotate;
    const char* size;  // "7x9": nothing written
  } rows[] = {
      {"1920 800 1 1", "hd720", false, 180, "1280x532"}, {"1920 800 1 1", "hd720", true, 90, "720x1280"},
      {"1920 800 1 1", "HD720", true, 0, "0x0"},         {"1920 800 1 1", "HD720", false, 0, "7x9"},
      {"1920 800 1 1", "", true, 0, "7x9"},              {"1000 400 1 1", "hd720", false, 270, "288x720"},
      {"500 400 1 1", "hd720", false, 0, "900x720"},     {"640 480 2 1", "hd480", false, 0, "852x318"},
      {"1440 1080 0 0", "hd480", false, 0, "640x480"},   {"1440 1080 4 0", "hd480", false, 0, "640x480"},
      {"1280 0 1 1", "hd720", false, 0, "7x9"},          {"", "hd480", true, 0, "852x480"},
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
TEST(ArgumentHelperTest, AudioTrackByIdAndTheAudioListsShape) {
  const char kAudioTracks[] =
      R"([{"id":"1","track":"1","codec":"aac"}, {"id":"2","track":"2"},)"
      R"( {"id":"4","track":"4","codec":"dts"}, {"id":"2","track":"5","codec":"ac3"},)"
      R"( {"id":6,"track":"6","codec":"eac3"}])";
  ArgumentHelper helper{DocumentMetaData(File("{}", kAudioTracks))};
  const struct {
    const char* id;
    const char* track;   // "" : none
    unsigned int index;  // 99: not written
  } rows[] = {{"", "1", 99}, {"1", "1", 0},  {"4", "4", 2},  {"2", "5", 3},
              {"6", "6", 4}, {"3", "", 99}, {"01", "", 99}};
  for (const auto& row : rows) {
    unsigned int index = 99;
    const Json::Value track = helper.GetAudioTrackInfoByID(row.id, index);
    EXPECT_EQ(row.track, track.isNull() ? "" : track["track"].asString()) << "id '" << row.id << "'";
    EXPECT_EQ(row.index, index) << "id '" << row.id << "'";
  }
  EXPECT_TRUE(helper.DoesAudioCodecMatch("2", "ac3"));
  EXPECT_FALSE(helper.DoesAudioCodecMatch("1", "AAC"));
  const struct {
    std::string document;
    bool zeroAudio, firstTrack;
  } shapes[] = {
      {File("{}", "[]"), true, false},
      {File("{}", kAudioTracks), false, true},
      {R"({"track_info":{"video":[],"subtitle":[]}})", false, false},
      {File("{}", R"({"0":{"id":"1","track":"1","codec":"aac"}})"), false, false},
      {File("{}", R"(["aac",7,null])"), false, true},
  };
  for (const auto& shape : shapes) {
    ArgumentHelper lists{DocumentMetaData(shape.document)};
    EXPECT_EQ(shape.zeroAudio, lists.ZeroAudioTrack()) << shape.document;
    EXPECT_EQ(shape.firstTrack, lists.AbleToDecodeAudio("")) << shape.document;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
