#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdio>
#include <string>
#include <vector>

#include "decisions/argument_helper.h"
#include "tests/support/launchers.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"

namespace LibOrvoVTE {
namespace {

class Loaded : public VideoMetaData {
 public:
  explicit Loaded(const Json::Value& doc) {
    document = doc;
    loaded = true;
  }
};

Json::Value Track(const std::string& id, const std::string& codec, int streamId = 0) {
  Json::Value track;
  track["id"] = track["track"] = id;
  track["codec"] = codec;
  track["streamid"] = streamId;
  return track;
}

// A file in `container` with one `videoCodec` track of `profile`, then `audio`.
Json::Value File(const std::string& container, const std::string& videoCodec = "h264",
                 const std::vector<Json::Value>& audio = {}, const std::string& profile = "") {
  Json::Value doc;
  doc["container_type"] = container;
  doc["track_info"]["video"][0u] = Track("0", videoCodec);
  doc["track_info"]["video"][0u]["profile"] = profile;
  doc["track_info"]["audio"] = Json::arrayValue;
  for (const Json::Value& track : audio) doc["track_info"]["audio"].append(track);
  return doc;
}

std::string Unhandled(const char* kind, int line, const std::string& codec) {
  return "argument_helper:" + std::to_string(line) + " Unhandled Gstreamer " + kind +
         " Decoder: " + codec + ", use decodebin";
}

TEST(GstreamerElementsTest, DemuxerByContainerFirstKeyWins) {
  orvotest::MachineRoot root;
  const char* rows[][2] = {
      {"mov,mp4,m4a,3gp,3g2,mj2", "qtdemux"}, {"mpegts", "tsdemux"}, {"mpeg", "mpegpsdemux"},
      {"asf", "asfdemux"}, {"matroska,webm", "matroskademux"}, {"rm", "rmdemux"},
      {"avi", "avidemux"}, {"flv", "flvdemux"}, {"ogg", "decodebin"},
  };
  for (const auto& row : rows) {
    ArgumentHelper helper{Loaded(File(row[0], "h264", {}, "Main"))};
    EXPECT_EQ(std::string(row[1]) + " name=demux ! queue !", orvotest::JoinWords(helper.GetGstreamDemuxer()))
        << row[0];
    // decodebin decodes as well, so no video decoder may follow it.
    EXPECT_EQ(row[1] == std::string("decodebin"), helper.GetGstreamVideoArgument().empty())
        << row[0];
  }
}

TEST(GstreamerElementsTest, VideoDecoderByPlatform) {
  const char* rows[][4] = {
      // codec, x86, Braswell, Monaco
      {"h264", "avdec_h264", "h264parse ! queue ! vaapidecode", "stvideo"},
      {"wmv3", "vc1parse ! queue ! avdec_wmv3", "vc1parse ! queue ! vaapidecode",
       "vc1parse ! queue ! stvideo"},
      {"rv40", "avdec_rv40", "avdec_rv40", "avdec_rv40"},
      {"mpeg4", "avdec_mpeg4", "avdec_mpeg4", "stvideo"},
      {"mpeg2", "avdec_mpeg2video", "mpegvideoparse ! queue ! decodebin", "stvideo"},
      {"vc1", "vc1parse ! queue ! avdec_vc1", "vc1parse ! queue ! vaapidecode",
       "vc1parse ! queue ! stvideo"},
      {"hevc", "decodebin", "h265parse ! queue ! avdec_h265", "stvideo"},
      {"vp9", "decodebin", "decodebin", "decodebin"},
  };
  const char* platforms[] = {"", "x86", "braswell", "monaco"};
  for (int column = 1; column <= 3; ++column) {
    const std::string name = platforms[column];
    orvotest::PlatformFiles platform;
    platform.name = name;
    orvotest::MachineRoot root(platform);
    orvotest::LogCapture log;
    for (const auto& row : rows) {
      ArgumentHelper helper{Loaded(File("avi", row[0]))};
      helper.GetGstreamDemuxer();
      EXPECT_EQ(row[column], orvotest::JoinWords(helper.GetGstreamVideoArgument())) << name << " " << row[0];
    }
    EXPECT_TRUE(log.Lines().size() == 1 && log.Has(LOG_ERR, Unhandled("Video", 344, "vp9")))
        << log.Dump();
    // Only Braswell's ASF demuxer is told the video profile, when known.
    ArgumentHelper asf{Loaded(File("asf", "vc1", {}, "Advanced"))};
    EXPECT_EQ(name == "braswell" ? "asfdemux profile=Advanced name=demux ! queue !"
                                 : "asfdemux name=demux ! queue !",
              orvotest::JoinWords(asf.GetGstreamDemuxer()))
        << name;
    EXPECT_EQ("asfdemux name=demux ! queue !",
              orvotest::JoinWords(ArgumentHelper{Loaded(File("asf", "vc1"))}.GetGstreamDemuxer()))
        << name;
  }
}

TEST(GstreamerElementsTest, AudioDecoderByCodec) {
  orvotest::MachineRoot root;
  const char* rows[][4] = {
      // codec, container, parse only ("p"), words
      {"ac3", "mpeg", "", "ac3parse ! avdec_ac3 !"},   {"ac3", "mpeg", "p", "ac3parse"},
      {"eac3", "mpegts", "", "ac3parse ! avdec_eac3 !"}, {"eac3", "mpegts", "p", "ac3parse"},
      {"aac", "avi", "", "aacparse ! avdec_aac !"},     {"aac", "avi", "p", "aacparse"},
      {"mp2", "mpeg", "p", "mpegaudioparse ! avdec_mp2float !"},
      {"mp3", "avi", "p", "mpegaudioparse ! avdec_mp3 !"},
      {"wmapro", "asf", "p", "avdec_wmapro !"},      {"wmapro", "avi", "", "decodebin !"},
  };
  orvotest::LogCapture log;
  for (const auto& row : rows) {
    ArgumentHelper helper{Loaded(File(row[1]))};
    EXPECT_EQ(row[3], orvotest::JoinWords(helper.GetGstreamAudioDecoder(row[0], *row[2] == 'p')))
        << row[0] << " in " << row[1] << " parse only '" << row[2] << "'";
  }
  EXPECT_TRUE(log.Lines().size() == 1 && log.Has(LOG_ERR, Unhandled("Audio", 431, "wmapro")))
      << log.Dump();

  ArgumentHelper helper{Loaded(File("mpegts", "h264", {Track("1", "aac"), Track("2", "ac3")}))};
  EXPECT_EQ("! queue ! ac3parse", orvotest::JoinWords(helper.GetGstreamAudioArgument("2", true)));
  EXPECT_EQ("", orvotest::JoinWords(helper.GetGstreamAudioArgument("3", false)));
}

TEST(GstreamerElementsTest, AudioPadOfTheDemuxer) {
  const std::vector<Json::Value> ps = {Track("1", "ac3", 128), Track("2", "mp2", 448)};
  const std::vector<Json::Value> mkv = {Track("1", "aac", 1), Track("2", "ac3", 2)};
  struct Row {
    const char* container;
    std::vector<Json::Value> audio;
    const char* id;
    const char* pad;
  } rows[] = {
      {"mpegts", {Track("1", "aac", 0x1100)}, "1", "demux.audio_1100"},
      // Only program streams name MPEG audio after the low byte.
      {"mpegts", {Track("1", "mp2", 448)}, "1", "demux.audio_01c0"},
      {"mpeg", ps, "2", "demux.audio_c0"},
      {"mpeg", ps, "1", "demux.audio_80"},
      {"mpeg", {Track("1", "ac3", 448)}, "1", "demux.audio_1c0"},
      {"matroska,webm", mkv, "2", "demux.audio_1"},
      {"matroska,webm", mkv, "", "demux.audio_0"},
      {"matroska,webm", mkv, "9", "demux."},
      {"flv", mkv, "2", "demux."},
  };
  for (const Row& row : rows) {
    ArgumentHelper helper{Loaded(File(row.container, "h264", row.audio))};
    EXPECT_EQ(row.pad, helper.GetGstreamAudioMap(row.id)) << row.container << " id " << row.id;
  }
}

TEST(GstreamerElementsTest, FFmpegMapOfVideoAndAudio) {
  const Json::Value twoTracks = File("avi", "h264", {Track("1", "mp3"), Track("2", "aac")});
  Json::Value noVideo = twoTracks;
  noVideo["track_info"]["video"] = Json::arrayValue;
  struct Row {
    Json::Value doc;
    const char* id;
    const char* map;
  } rows[] = {
      {twoTracks, "2", "-map 0:0 -map 0:2"}, {twoTracks, "", "-map 0:0 -map 0:1"},
      {twoTracks, "5", ""},                  {File("avi"), "", ""},
      {noVideo, "2", ""},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(row.map, orvotest::JoinWords(ArgumentHelper{Loaded(row.doc)}.GetVideoAudioMap(row.id)))
        << "id " << row.id << " in " << row.doc.toStyledString();
  }
}

}  // namespace
}  // namespace LibOrvoVTE
