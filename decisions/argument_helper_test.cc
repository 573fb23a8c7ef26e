#include "decisions/argument_helper.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/documents.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"

namespace LibOrvoVTE {
namespace {

using orvotest::DocumentMetaData;
using orvotest::JoinWords;

Json::Value Track(const std::string& id, const std::string& codec, int streamId = 0) {
  Json::Value track;
  track["id"] = track["track"] = id;
  track["codec"] = codec;
  track["streamid"] = streamId;
  return track;
}

// A file in `container` with the video track `video`, then `audio`.
ArgumentHelper File(const std::string& container, const Json::Value& video,
                    const std::vector<Json::Value>& audio = {}) {
  Json::Value doc;
  doc["container_type"] = container;
  doc["track_info"]["video"][0u] = video;
  doc["track_info"]["audio"] = Json::arrayValue;
  for (const Json::Value& track : audio) doc["track_info"]["audio"].append(track);
  return ArgumentHelper(DocumentMetaData(doc));
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
    ArgumentHelper helper = File("matroska,webm", video);
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
    Json::Value video;
    video["resolutionx"] = w;
    video["resolutiony"] = h;
    video["sample_aspect_ratio_num"] = num;
    video["sample_aspect_ratio_den"] = den;
    ArgumentHelper helper = row.video.empty() ? ArgumentHelper(DocumentMetaData(std::string()))
                                              : File("matroska,webm", video);
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
  const std::string tracks = R"({"track_info":{"video":[{}],"audio":)" + std::string(kAudioTracks) +
                             "}}";
  ArgumentHelper helper{DocumentMetaData(tracks)};
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
      {R"({"track_info":{"video":[],"audio":[]}})", true, false},
      {tracks, false, true},
      {R"({"track_info":{"video":[],"subtitle":[]}})", false, false},
      {R"({"track_info":{"video":[],"audio":{"0":{"id":"1","track":"1","codec":"aac"}}}})", false, false},
      {R"({"track_info":{"video":[],"audio":["aac",7,null]}})", false, true},
  };
  for (const auto& shape : shapes) {
    ArgumentHelper lists{DocumentMetaData(shape.document)};
    EXPECT_EQ(shape.zeroAudio, lists.ZeroAudioTrack()) << shape.document;
    EXPECT_EQ(shape.firstTrack, lists.AbleToDecodeAudio("")) << shape.document;
  }
}

// Demuxer, then video decoder. The first container key that matches wins
// ("mpegts" holds "mpeg"); decodebin decodes too, so nothing follows it.
// What Braswell builds for the media library is played by the media matrix.
TEST(GstreamerElementsTest, DemuxerAndVideoDecoderByContainerCodecAndPlatform) {
  const char* rows[][5] = {
      // platform, container, codec, profile: demuxer | video decoder
      {"x86", "mpegts", "mpeg2", "", "tsdemux name=demux ! queue ! | avdec_mpeg2video"},
      {"x86", "mpeg", "wmv3", "", "mpegpsdemux name=demux ! queue ! | vc1parse ! queue ! avdec_wmv3"},
      {"x86", "rm", "rv40", "", "rmdemux name=demux ! queue ! | avdec_rv40"},
      {"x86", "ogg", "h264", "", "decodebin name=demux ! queue ! | "},
      {"x86", "flv", "hevc", "", "flvdemux name=demux ! queue ! | decodebin"},
      {"braswell", "asf", "vc1", "Advanced",
       "asfdemux profile=Advanced name=demux ! queue ! | vc1parse ! queue ! vaapidecode"},
      {"braswell", "matroska,webm", "mpeg2", "",
       "matroskademux name=demux ! queue ! | mpegvideoparse ! queue ! decodebin"},
      {"monaco", "avi", "wmv3", "", "avidemux name=demux ! queue ! | vc1parse ! queue ! stvideo"},
  };
  orvotest::MachineRoot root;
  for (const auto& row : rows) {
    orvotest::PlatformFiles platform;
    platform.name = row[0];
    root.Play(platform);
    Json::Value video = Track("0", row[2]);
    video["profile"] = row[3];
    ArgumentHelper helper = File(row[1], video);
    // The demuxer first: it decides the decoder.
    const std::string demuxer = JoinWords(helper.GetGstreamDemuxer());
    EXPECT_EQ(row[4], demuxer + " | " + JoinWords(helper.GetGstreamVideoArgument()))
        << row[0] << " " << row[1] << " " << row[2] << " " << row[3];
  }
}

// Copied audio needs only a parser, except MPEG audio, which is decoded;
// the demuxer's pad is named by the stream id, for MPEG audio in program
// streams by its low byte.
TEST(GstreamerElementsTest, AudioDecoderAndPadOfTheDemuxer) {
  orvotest::MachineRoot root;
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

  const std::vector<Json::Value> ps = {Track("1", "ac3", 128), Track("2", "mp2", 448)};
  const std::vector<Json::Value> mkv = {Track("1", "aac", 1), Track("2", "ac3", 2)};
  const struct {
    const char* container;
    std::vector<Json::Value> audio;
    const char* id;
    const char* pad;
  } pads[] = {
      {"mpegts", {Track("1", "mp2", 448)}, "1", "demux.audio_01c0"}, {"mpeg", ps, "2", "demux.audio_c0"},
      {"mpeg", ps, "1", "demux.audio_80"},  {"matroska,webm", mkv, "2", "demux.audio_1"},
      {"matroska,webm", mkv, "", "demux.audio_0"}, {"matroska,webm", mkv, "9", "demux."},
  };
  for (const auto& row : pads) {
    EXPECT_EQ(row.pad, File(row.container, h264, row.audio).GetGstreamAudioMap(row.id))
        << row.container << " id " << row.id;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
