#include "decisions/argument_helper.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/machine_root.h"

namespace LibOrvoVTE {
namespace {

namespace machine = librh::machine;
using orvotest::MachineRoot;
using orvotest::PlatformFiles;

// Metadata as the probe would have stored it; "" leaves nothing loaded.
class DocumentMetaData : public VideoMetaData {
 public:
  explicit DocumentMetaData(const std::string& json) {
    if (json.empty()) return;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(json);
    loaded = Json::parseFromStream(builder, in, &document, &errors);
    EXPECT_TRUE(loaded) << errors << " in " << json;
  }
};

std::string Document(const std::string& videoTrack, const std::string& audioList = "[]") {
  return R"({"path":"/volume1/video/clip.mkv","container_type":"matroska,webm",)"
         R"("track_info":{"video":[)" +
         videoTrack + R"(],"audio":)" + audioList + R"(,"subtitle":[]}})";
}

std::string VideoTrack(unsigned int width, unsigned int height, unsigned int sarNum = 1,
                       unsigned int sarDen = 1) {
  std::ostringstream track;
  track << R"({"id":"0","track":"0","codec":"h264","profile":"High","codec_tag":"avc1",)"
        << R"("resolutionx":)" << width << R"(,"resolutiony":)" << height
        << R"(,"sample_aspect_ratio_num":)" << sarNum << R"(,"sample_aspect_ratio_den":)"
        << sarDen << "}";
  return track.str();
}

std::string Size(unsigned int width, unsigned int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

TEST(ArgumentHelperTest, Is4kVideo) {
  struct Row {
    unsigned int width, height;
    bool expected;
  } rows[] = {
      {1920, 1080, false}, {1080, 1920, false}, {1081, 1081, true},
      {1920, 1081, true},  {1921, 100, true},   {0, 0, false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(row.expected, ArgumentHelper::Is4kVideo(row.width, row.height))
        << row.width << "x" << row.height;
  }
}

struct EngineRow {
  const char* codec;
  unsigned int width, height;
  float framerate;
  const char* tag;
  const char* profile;
  unsigned int expected;
};

using EngineCheck = unsigned int (*)(const std::string&, unsigned int, unsigned int, float,
                                     const std::string&, const std::string&);

void ExpectEngine(EngineCheck check, const std::vector<EngineRow>& rows) {
  for (const EngineRow& row : rows) {
    EXPECT_EQ(row.expected,
              check(row.codec, row.width, row.height, row.framerate, row.tag, row.profile))
        << row.codec << " " << row.width << "x" << row.height << "@" << row.framerate << " tag "
        << row.tag << " profile " << row.profile;
  }
}

TEST(ArgumentHelperTest, EvansportEngine) {
  const std::vector<EngineRow> rows = {
      {"h264", 3840, 2160, 60, "", "High 10", 0}, {"mpeg4", 1920, 1080, 30, "DIVX", "", 0},
      {"mpeg2", 1920, 1080, 30, "", "", 0},       {"vc1", 1920, 1080, 30, "", "", 0},
      {"wmv3", 1920, 1080, 30, "", "", 0},        {"rv40", 1280, 720, 30, "", "", 0},
      {"rv40", 1280, 721, 30, "", "", 1},         {"vp8", 640, 480, 30, "", "", 0},
      {"vp8", 1280, 720, 30, "", "", 1},          {"vp8", 4000, 480, 30, "", "", 0},
      {"hevc", 720, 481, 30, "", "", 1},          {"", 640, 360, 30, "", "", 0},
  };
  ExpectEngine(&ArgumentHelper::EvansportAbleToHWTranscodeTheVideo, rows);
}

TEST(ArgumentHelperTest, MonacoEngine) {
  const std::vector<EngineRow> rows = {
      {"h264", 1920, 1080, 60, "", "High", 0},    {"h264", 3840, 2160, 30, "", "High", 5},
      {"h264", 3840, 2160, 24.05f, "", "High", 0},
      // 24.1f is a little above 24.1 once widened to double.
      {"h264", 3840, 2160, 24.1f, "", "High", 5}, {"h264", 2048, 1080, 25, "", "Main", 5},
      {"h264", 4096, 2160, 24, "", "High", 3},    {"h264", 4096, 2160, 30, "", "High", 3},
      {"h264", 3840, 2161, 24, "", "High", 3},    {"h264", 1280, 720, 30, "", "High 10", 4},
      {"h264", 4096, 2160, 30, "", "High 10", 4}, {"hevc", 3840, 2160, 60, "", "Main", 0},
      {"hevc", 4096, 2160, 30, "", "Main", 3},    {"hevc", 2160, 3840, 30, "", "Main", 3},
      {"hevc", 1280, 720, 30, "", "Main 10", 4},  {"mpeg2", 2048, 1080, 30, "", "", 3},
      {"mpeg2", 1920, 1080, 30, "", "", 0},       {"vp9", 1280, 720, 30, "", "", 2},
      {"vp9", 3840, 2160, 30, "", "", 3},         {"mpeg4", 640, 480, 30, "DIVX", "", 2},
      {"mpeg4", 3840, 2160, 30, "DIVX", "", 2},   {"mpeg4", 640, 480, 30, "XVID", "", 0},
      {"mpeg4", 640, 480, 30, "divx", "", 0},     {"h264", 640, 480, 30, "DIVX", "", 0},
      {"vc1", 1920, 1080, 30, "", "Main 10", 0},  {"wmv3", 1280, 720, 30, "", "", 0},
  };
  ExpectEngine(&ArgumentHelper::MonacoAbleToHWTranscodeTheVideo, rows);
}

TEST(ArgumentHelperTest, TranscodeCheckUsesThisPlatformsEngineAndTheFirstVideoTrack) {
  const std::string second = VideoTrack(640, 480);
  struct Row {
    const char* platform;
    std::string document;
    unsigned int expected;
  } rows[] = {
      {"evansport", Document(R"({"codec":"vp8","resolutionx":1280,"resolutiony":720})"), 1},
      {"evansport", Document(R"({"codec":"vp8","resolutionx":640,"resolutiony":480})"), 0},
      {"evansport", Document(VideoTrack(3840, 2160)), 0},
      {"monaco",
       Document(R"({"codec":"h264","resolutionx":3840,"resolutiony":2160,"framerate":29.97})"),
       5},
      // No frame rate known reads as 0, which the 4K limit admits.
      {"monaco", Document(R"({"codec":"h264","resolutionx":3840,"resolutiony":2160})"), 0},
      {"monaco",
       Document(R"({"codec":"mpeg4","codec_tag":"DIVX","resolutionx":640,"resolutiony":480})"),
       2},
      {"monaco",
       Document(R"({"codec":"hevc","profile":"Main 10","resolutionx":1280,"resolutiony":720})"),
       4},
      // Only the first video track counts.
      {"monaco",
       Document(R"({"codec":"vp9","resolutionx":1280,"resolutiony":720},)" + second), 2},
      {"monaco", Document(R"({"codec":"h264","resolutionx":1280,"resolutiony":0})"), 1},
      {"monaco", "", 1},
      {"braswell", Document(R"({"codec":"vp9","resolutionx":4096,"resolutiony":2160})"), 0},
      {"braswell", Document(R"({"codec":"vp9","resolutionx":4096})"), 1},
      {"x86", Document(VideoTrack(1280, 720)), 1},
      {"", Document(VideoTrack(1280, 720)), 1},
  };
  MachineRoot root;
  for (const Row& row : rows) {
    PlatformFiles platform;
    platform.name = row.platform;
    root.Play(platform);
    ArgumentHelper helper{DocumentMetaData(row.document)};
    EXPECT_EQ(row.expected, helper.AbleToTranscodeTheVideo(true))
        << row.platform << " " << row.document;
    EXPECT_EQ(0u, helper.AbleToTranscodeTheVideo(false)) << row.platform << " " << row.document;
  }
}

TEST(ArgumentHelperTest, MapVideoSize) {
  struct Row {
    const char* name;
    unsigned int width, height;
  } rows[] = {
      {"hd480", 852, 480}, {"hd720", 1280, 720}, {"hd1080", 1920, 1080}, {"320x240", 320, 240},
      {"480x360", 480, 360},
      // Unknown names leave the outputs as they were.
      {"HD720", 7, 9}, {"hd72", 7, 9}, {"hd7200", 7, 9}, {"640x480", 7, 9}, {"", 7, 9},
  };
  for (const Row& row : rows) {
    unsigned int width = 7;
    unsigned int height = 9;
    ArgumentHelper::MapVideoSize(row.name, width, height);
    EXPECT_EQ(Size(row.width, row.height), Size(width, height)) << row.name;
  }
}

TEST(ArgumentHelperTest, GetTransVideoSize) {
  const std::string wide = Document(VideoTrack(1920, 800));
  const std::string scope = Document(VideoTrack(1000, 400));
  // 1440x1080 with 4:3 pixels is 16:9 on screen; without them 4:3.
  const std::string hdv = Document(VideoTrack(1440, 1080, 4, 3));
  const std::string squareHdv = Document(VideoTrack(1440, 1080, 0, 0));
  const std::string halfSar = Document(VideoTrack(1440, 1080, 4, 0));
  struct Row {
    std::string document;
    const char* name;
    bool exact;
    unsigned int rotate;
    unsigned int width, height;  // 7x9: nothing written
  } rows[] = {
      {wide, "hd720", false, 0, 1280, 532},        {wide, "hd720", false, 180, 1280, 532},
      {wide, "hd720", true, 0, 1280, 720},         {wide, "hd720", true, 90, 720, 1280},
      {wide, "hd1080", true, 270, 1080, 1920},     {wide, "nosuch", true, 0, 0, 0},
      {wide, "nosuch", false, 0, 7, 9},            {wide, "", true, 0, 7, 9},
      {wide, "", false, 0, 7, 9},                  {scope, "hd720", false, 0, 1280, 512},
      {scope, "hd480", false, 0, 852, 340},        {scope, "hd720", false, 90, 288, 720},
      {scope, "hd720", false, 270, 288, 720},
      {Document(VideoTrack(500, 400)), "hd720", false, 0, 900, 720},
      {Document(VideoTrack(1010, 1000)), "480x360", false, 0, 362, 360},
      {Document(VideoTrack(640, 480, 2, 1)), "hd480", false, 0, 852, 318},
      {hdv, "hd480", false, 0, 852, 478},          {squareHdv, "hd480", false, 0, 640, 480},
      {halfSar, "hd480", false, 0, 640, 480},      {Document(VideoTrack(0, 0)), "hd720", false, 0, 7, 9},
      {Document(VideoTrack(1280, 0)), "hd720", false, 0, 7, 9},
      {Document(VideoTrack(0, 0)), "hd720", true, 90, 720, 1280},
      {"", "hd720", false, 0, 7, 9},               {"", "hd480", true, 0, 852, 480},
  };
  for (const Row& row : rows) {
    ArgumentHelper helper{DocumentMetaData(row.document)};
    unsigned int width = 7;
    unsigned int height = 9;
    helper.GetTransVideoSize(row.name, row.exact, row.rotate, width, height);
    EXPECT_EQ(Size(row.width, row.height), Size(width, height))
        << row.name << " exact " << row.exact << " rotate " << row.rotate << " " << row.document;
  }
}

// Ids count video, audio and subtitle streams together, so audio ids have gaps.
const char kAudioTracks[] =
    R"([{"id":"1","track":"1","codec":"aac","streamid":1},)"
    R"( {"id":"2","track":"2","streamid":2},)"
    R"( {"id":"4","track":"4","codec":"dts","streamid":4},)"
    R"( {"id":"2","track":"5","codec":"ac3","streamid":5},)"
    R"( {"id":6,"track":"6","codec":"eac3","streamid":6},)"
    R"( {"id":"35","track":"35","codec":"mp3","streamid":35}])";

TEST(ArgumentHelperTest, AudioTrackLookupById) {
  ArgumentHelper helper{DocumentMetaData(Document(VideoTrack(640, 480), kAudioTracks))};
  struct Row {
    const char* id;
    const char* track;  // "" for no track
    unsigned int index;  // 99: not written
  } rows[] = {
      {"", "1", 99},    {"1", "1", 0},   {"4", "4", 2},
      // The track without a codec cannot be chosen; the next "2" can.
      {"2", "5", 3},    {"6", "6", 4},   {"7", "", 99},
      {"35", "35", 5},  {"3", "", 99},   {"0", "", 99},
      {"01", "", 99},   {" 1", "", 99},
  };
  for (const Row& row : rows) {
    unsigned int index = 99;
    Json::Value track = helper.GetAudioTrackInfoByID(row.id, index);
    EXPECT_EQ(row.index, index) << "id '" << row.id << "'";
    if (*row.track == '\0') {
      EXPECT_TRUE(track.isNull()) << "id '" << row.id << "' gave " << track.toStyledString();
    } else {
      EXPECT_EQ(row.track, track["track"].asString()) << "id '" << row.id << "'";
    }
    EXPECT_EQ(track, helper.GetAudioTrackInfoByID(row.id)) << "id '" << row.id << "'";
  }

  struct MatchRow {
    const char* id;
    const char* codec;
    bool expected;
  } matches[] = {
      {"", "aac", true},  {"1", "aac", true},  {"1", "AAC", false}, {"2", "ac3", true},
      {"4", "dts", true}, {"4", "", false},    {"7", "", false},    {"7", "aac", false},
  };
  for (const MatchRow& row : matches) {
    EXPECT_EQ(row.expected, helper.DoesAudioCodecMatch(row.id, row.codec))
        << "id '" << row.id << "' codec " << row.codec;
  }
}

TEST(ArgumentHelperTest, AudioListsOfEveryShape) {
  const std::string video = VideoTrack(640, 480);
  struct Row {
    std::string document;
    bool zeroAudio;
    bool firstTrack;  // whether "" finds a track
  } rows[] = {
      {Document(video, "[]"), true, false},
      {Document(video, kAudioTracks), false, true},
      {Document("", "[]"), true, false},
      {R"({"track_info":{"video":[],"subtitle":[]}})", false, false},
      {R"({"track_info":{"audio":[]}})", false, false},
      {R"({"track_info":{}})", false, false},
      {R"({"path":"/x"})", false, false},
      {Document(video, "{}"), false, false},
      {Document(video, R"({"0":{"id":"1","track":"1","codec":"aac"}})"), false, false},
      {Document(video, R"("aac")"), false, false},
      {Document(video, R"(["aac",7,null])"), false, true},
      {"", false, false},
  };
  for (const Row& row : rows) {
    ArgumentHelper helper{DocumentMetaData(row.document)};
    EXPECT_EQ(row.zeroAudio, helper.ZeroAudioTrack()) << row.document;
    EXPECT_EQ(row.firstTrack, !helper.GetAudioTrackInfoByID("").isNull()) << row.document;
    EXPECT_FALSE(helper.DoesAudioCodecMatch("1", "")) << row.document;
    EXPECT_EQ(row.firstTrack, helper.AbleToDecodeAudio("")) << row.document;
  }
}

TEST(ArgumentHelperTest, RestrictedAudioNeedsTheCodecSwitchOrACustomFFmpeg) {
  MachineRoot root;
  ArgumentHelper helper{DocumentMetaData(Document(VideoTrack(640, 480), kAudioTracks))};
  const std::string switchedOn = "support_codec_dts=\"yes\"\n";
  const std::string switchedOff = "support_codec_dts=\"no\"\n";
  struct Row {
    const char* codecsConf;  // nullptr: no file
    bool customFFmpeg;
    const char* codec;
    bool expected;
  } rows[] = {
      {nullptr, false, "dts", false},
      {nullptr, false, "eac3", false},
      {nullptr, false, "truehd", false},
      {nullptr, false, "ac3", true},
      {nullptr, false, "aac", true},
      {nullptr, false, "DTS", true},
      {nullptr, false, "", true},
      {switchedOff.c_str(), false, "dts", false},
      {"support_codec_dts=yes\n", false, "dts", true},
      {switchedOn.c_str(), false, "truehd", true},
      {"support_codec_dts=\"yesno\"\n", false, "eac3", false},
      {"other_key=\"yes\"\n", false, "dts", false},
      {nullptr, true, "dts", true},
      {"support_codec_dts=\"no\"\n", true, "eac3", true},
  };
  for (const Row& row : rows) {
    std::error_code ignored;
    std::filesystem::remove(root.At(machine::kCodecsConf), ignored);
    std::filesystem::remove(root.At(machine::kSystemFFmpeg), ignored);
    if (row.codecsConf != nullptr) root.WriteFile(machine::kCodecsConf, row.codecsConf);
    if (row.customFFmpeg) root.WriteFile(machine::kSystemFFmpeg, "#!/bin/sh\n");
    const std::string input = std::string("codecs.conf ") +
                              (row.codecsConf ? row.codecsConf : "(none)") + " custom ffmpeg " +
                              (row.customFFmpeg ? "yes" : "no") + " codec " + row.codec;
    EXPECT_EQ(row.expected, ArgumentHelper::AbleToDecodeAudioByCodec(row.codec)) << input;
    EXPECT_EQ(row.customFFmpeg, ArgumentHelper::IsCustomFFmpegInstalled()) << input;
  }

  // Tracks are judged by their codec; a missing track is never decodable.
  std::error_code ignored;
  std::filesystem::remove(root.At(machine::kSystemFFmpeg), ignored);
  root.WriteFile(machine::kCodecsConf, switchedOff);
  EXPECT_TRUE(helper.AbleToDecodeAudioById(""));
  EXPECT_FALSE(helper.AbleToDecodeAudioById("4"));
  EXPECT_FALSE(helper.AbleToDecodeAudio("6"));
  EXPECT_TRUE(helper.AbleToDecodeAudio("2"));
  EXPECT_FALSE(helper.AbleToDecodeAudioById("7"));
  EXPECT_FALSE(ArgumentHelper::IsAdvCodecEnabled());
  // The switch is read on every question, so it applies to the next stream.
  root.WriteFile(machine::kCodecsConf, switchedOn);
  EXPECT_TRUE(ArgumentHelper::IsAdvCodecEnabled());
  EXPECT_TRUE(helper.AbleToDecodeAudioById("4"));
  EXPECT_TRUE(helper.AbleToDecodeAudio("6"));
  EXPECT_FALSE(helper.AbleToDecodeAudioById("7"));
}

}  // namespace
}  // namespace LibOrvoVTE
