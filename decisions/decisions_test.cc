#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "decisions/argument_helper.h"
#include "decisions/platform_utils.h"
#include "platform/machine_root.h"
#include "tests/support/documents.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"

namespace LibOrvoVTE {
namespace {

namespace machine = librh::machine;
namespace rules = librh::util::platform_rules;
using librh::util::PlatformUtils;
using orvotest::JoinWords;
using orvotest::PlatformFiles;

// Without a codec a track cannot be chosen.
Json::Value Track(const Json::Value& id, const std::string& codec, int streamId = 0) {
  Json::Value track;
  track["id"] = track["track"] = id;
  if (!codec.empty()) track["codec"] = codec;
  track["streamid"] = streamId;
  return track;
}

ArgumentHelper File(const std::string& container, const Json::Value& video,
                    const std::vector<Json::Value>& audio = {}) {
  Json::Value doc;
  doc["container_type"] = container;
  doc["track_info"]["video"][0u] = video;
  doc["track_info"]["audio"] = Json::arrayValue;
  for (const Json::Value& track : audio) doc["track_info"]["audio"].append(track);
  return ArgumentHelper(orvotest::DocumentMetaData(doc));
}

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
      {"monaco", "h264", 3841, 2160, 25, "", 3},       {"monaco", "mpeg2", 1081, 1081, 25, "", 3},
      {"monaco", "mpeg4", 640, 480, 25, "DIVX", 2},    {"monaco", "hevc", 1280, 720, 25, "Main 10", 4},
      {"monaco", "h264", 1280, 0, 25, "", 1},          {"braswell", "vp9", 4096, 2160, 60, "", 0},
      {"x86", "h264", 1280, 720, 25, "", 1},
  };
  orvotest::MachineRoot root;
  for (const auto& row : rows) {
    root.Play(PlatformFiles{row.platform, 2, 4800, ""});
    Json::Value video = Track("0", row.codec);
    video["resolutionx"] = row.width;
    video["resolutiony"] = row.height;
    video["framerate"] = row.framerate;
    video[row.codec == std::string("mpeg4") ? "codec_tag" : "profile"] = row.tagOrProfile;
    EXPECT_EQ(row.expected, File("matroska,webm", video).AbleToTranscodeTheVideo(true))
        << row.platform << " " << orvotest::JsonLine(video);
  }
}

TEST(ArgumentHelperTest, OutputSizeFitsTheBoxWithTheDisplayAspect) {
  const struct {
    unsigned int width, height, sarNum, sarDen;
    const char* name;
    bool exact;
    unsigned int rotate;
    const char* size;  // "7x9": nothing written
  } rows[] = {
      {1920, 800, 1, 1, "hd720", false, 180, "1280x532"}, {1920, 800, 1, 1, "HD720", false, 0, "7x9"},
      {1920, 800, 1, 1, "", true, 0, "7x9"},              {1000, 400, 1, 1, "hd720", false, 270, "288x720"},
      {640, 480, 2, 1, "hd480", false, 0, "852x318"},     {1440, 1080, 4, 0, "hd480", false, 0, "640x480"},
  };
  for (const auto& row : rows) {
    Json::Value video;
    video["resolutionx"] = row.width;
    video["resolutiony"] = row.height;
    video["sample_aspect_ratio_num"] = row.sarNum;
    video["sample_aspect_ratio_den"] = row.sarDen;
    unsigned int width = 7, height = 9;
    File("matroska,webm", video).GetTransVideoSize(row.name, row.exact, row.rotate, width, height);
    EXPECT_EQ(row.size, std::to_string(width) + "x" + std::to_string(height))
        << orvotest::JsonLine(video) << " " << row.name << " exact " << row.exact << " rotate " << row.rotate;
  }
}

// A list that is not an array of tracks is not "no audio" either. An empty
// list and a list of tracks are OpenChecksTest's.
TEST(ArgumentHelperTest, AudioListsOfOddShapes) {
  const std::pair<std::string, bool> shapes[] = {  // the document; whether its first "track" decodes
      {R"({"track_info":{"video":[],"subtitle":[]}})", false},
      {R"({"track_info":{"video":[],"audio":["aac",7,null]}})", true},
  };
  for (const auto& [document, firstTrack] : shapes) {
    ArgumentHelper lists{orvotest::DocumentMetaData(document)};
    EXPECT_FALSE(lists.ZeroAudioTrack()) << document;
    EXPECT_EQ(firstTrack, lists.AbleToDecodeAudio("")) << document;
  }
}

// "mpegts" holds "mpeg": the first key wins. Audio ids count every stream,
// so they have gaps. Whole pipelines are recorded by TranscoderStartTest.
TEST(GstreamerElementsTest, ElementsByContainerCodecAndPlatform) {
  const char* rows[][5] = {
      // platform, container, codec, profile: demuxer | video decoder
      {"x86", "mpegts", "mpeg2", "", "tsdemux name=demux ! queue ! | avdec_mpeg2video"},
      {"x86", "mpeg", "wmv3", "", "mpegpsdemux name=demux ! queue ! | vc1parse ! queue ! avdec_wmv3"},
      {"x86", "ogg", "h264", "", "decodebin name=demux ! queue ! | "},
      {"x86", "flv", "hevc", "", "flvdemux name=demux ! queue ! | decodebin"},
      {"braswell", "asf", "vc1", "Advanced",
       "asfdemux profile=Advanced name=demux ! queue ! | vc1parse ! queue ! vaapidecode"},
      {"braswell", "matroska,webm", "mpeg2", "",
       "matroskademux name=demux ! queue ! | mpegvideoparse ! queue ! decodebin"},
  };
  orvotest::MachineRoot root;
  for (const auto& row : rows) {
    root.Play(PlatformFiles{row[0], 2, 4800, ""});
    Json::Value video = Track("0", row[2]);
    video["profile"] = row[3];
    ArgumentHelper helper = File(row[1], video);
    // The demuxer first: it decides the decoder.
    const std::string demuxer = JoinWords(helper.GetGstreamDemuxer());
    EXPECT_EQ(row[4], demuxer + " | " + JoinWords(helper.GetGstreamVideoArgument())) << row[1] << " " << row[2];
  }
  const Json::Value h264 = Track("0", "h264");
  const char* decoders[][4] = {
      // codec, container, parse only: elements
      {"ac3", "mpeg", "", "ac3parse ! avdec_ac3 !"},      {"eac3", "mpegts", "1", "ac3parse"},
      {"mp2", "mpeg", "1", "mpegaudioparse ! avdec_mp2float !"}, {"wmapro", "asf", "1", "avdec_wmapro !"},
      {"wmapro", "avi", "", "decodebin !"},
  };
  for (const auto& row : decoders) {
    EXPECT_EQ(row[3], JoinWords(File(row[1], h264).GetGstreamAudioDecoder(row[0], *row[2] != '\0')))
        << row[0] << " in " << row[1];
  }
  EXPECT_EQ("", JoinWords(File("mpegts", h264, {Track("1", "aac")}).GetGstreamAudioArgument("3", false)));
  const std::vector<Json::Value> mkv = {Track("1", "aac"), Track("2", ""), Track("4", "dts"), Track("2", "ac3"),
                                        Track(6, "eac3")};
  const struct {
    const char* container;
    std::vector<Json::Value> audio;
    const char* id;
    const char* pad;
  } pads[] = {
      {"mpegts", {Track("1", "mp2", 448)}, "1", "demux.audio_01c0"},
      {"mpeg", {Track("1", "ac3", 128), Track("2", "mp2", 448)}, "2", "demux.audio_c0"},
      {"matroska,webm", mkv, "2", "demux.audio_3"},
      {"matroska,webm", mkv, "", "demux.audio_0"}, {"matroska,webm", mkv, "6", "demux.audio_4"},
      {"matroska,webm", mkv, "01", "demux."},
  };
  for (const auto& row : pads) {
    EXPECT_EQ(row.pad, File(row.container, h264, row.audio).GetGstreamAudioMap(row.id))
        << row.container << " id " << row.id;
  }
}

// "<name> <flags> <transcode platform> <10-bit H.264's tool> <machine's answers>";
// flags E(vansport) B(raswell) M(onaco) G(streamer) H(ardware), +hw: the switch.
std::string Describe() {
  PlatformUtils& p = PlatformUtils::GetInst();
  std::string flags = std::string(p.IsEvansport() ? "E" : "") + (p.IsBraswell() ? "B" : "") +
                      (p.IsMonaco() ? "M" : "") + (p.IsSupportGstreamer() ? "G" : "") +
                      (p.IsSupportHWTranscode() ? "H" : "") + (p.IsHWSettingEnabled() ? "+hw" : "");
  bool first = true, fast = false, hardware = false;
  LibReelhall::GetMachineTranscodeAndRemux(first, fast, hardware);
  return p.GetPlatformName() + " " + (flags.empty() ? "-" : flags) + " " +
         p.GetTransPlatformName() + " " +
         (LibReelhall::ForceFFmpegTranscoding("mov", "h264", "High 10") ? "ffmpeg" : "gstreamer") +
         (first ? " first" : "") + (fast ? " fast" : " slow") + (hardware ? " hw" : " sw");
}

TEST(PlatformUtils, PlatformsReadFromTheMachine) {
  const char kOff[] = R"({"hardware_transcode": false})";
  const struct {
    PlatformFiles files;
    const char* file;  // a platform file written over the fixture's, with `text`
    const char* text;
    const char* expected;
  } kRows[] = {
      {{"braswell", 1, 4800, ""}, machine::kAdvancedConf, kOff, "braswell BGH braswell_1 ffmpeg fast hw"},
      {{"evansport", 2, 4800, ""}, machine::kAdvancedConf, kOff, "evansport EH x86_1 ffmpeg fast hw"},
      {{"monaco", 1, 4800, ""}, machine::kAdvancedConf, kOff, "monaco MGH+hw monaco_2 gstreamer fast hw"},
      {{"evansport", 1, 4800, ""}, machine::kAdvancedConf, R"({"hardware_transcode": "no"})",
       "evansport EH+hw evansport_1 ffmpeg fast hw"},
      {{"evansport", 2, 4800, ""}, machine::kAdvancedConf, "{hardware_transcode",
       "evansport EH+hw evansport_2 ffmpeg fast hw"},
      {{"x86", 2, 1500, ""}, nullptr, nullptr, "x86 - x86_2 ffmpeg fast sw"},
      {{"dockerx64", 2, 4800, "BROMOLOW"}, nullptr, nullptr, "dockerx64 - bromolow_2 ffmpeg fast sw"},
      {{"alpine4k", 1, 4800, ""}, nullptr, nullptr, "alpine4k - cedarview_2 ffmpeg fast sw"},
      {{"broadwell", 1, 4800, ""}, nullptr, nullptr, "broadwell - bromolow_1 ffmpeg fast sw"},
  };
  for (const auto& row : kRows) {
    orvotest::MachineRoot root(row.files);
    Describe();  // the administrator's switch is read afresh on every question
    if (row.file) root.WriteFile(row.file, row.text);
    EXPECT_EQ(row.expected, Describe()) << row.files.name << " " << (row.file ? row.text : "");
  }
}

// A /proc/cpuinfo line longer than the kernel file's 128-byte reads is
// examined in pieces.
TEST(PlatformUtils, RulesOnWhatWasRead) {
  EXPECT_EQ("6\n", rules::CpuInfoValue("cpu cores: 4: 5\ncpu cores :6\n", "cpu cores"));
  EXPECT_EQ("", rules::CpuInfoValue("cpu cores" + std::string(130, 'x') + ": 9\n", "cpu cores"));
  std::string name;
  EXPECT_FALSE(PlatformUtils::ParsePlatform("nounderscore", name));
  // Braswell: container, codec, profile; "1" where FFmpeg is forced.
  const char* forced[][4] = {
      {"rm", "", "", "1"},           {"mov", "", "High 10", ""},      {"mov", "h264", "High 10", "1"},
      {"mkv", "hevc", "Main 10", "1"}, {"mkv", "h264", "Main 10", ""},
  };
  for (const auto& row : forced) {
    EXPECT_EQ(*row[3] != '\0', rules::ForceFFmpeg(true, false, row[0], row[1], row[2]))
        << row[0] << " " << row[1] << " " << row[2];
  }
}

}  // namespace
}  // namespace LibOrvoVTE
