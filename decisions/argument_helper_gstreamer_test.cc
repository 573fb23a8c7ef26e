#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "decisions/argument_helper.h"
#include "tests/support/documents.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"

namespace LibOrvoVTE {
namespace {

using orvotest::JoinWords;

Json::Value Track(const std::string& id, const std::string& codec, int streamId = 0) {
  Json::Value track;
  track["id"] = track["track"] = id;
  track["codec"] = codec;
  track["streamid"] = streamId;
  return track;
}

// A file in `container` with one `videoCodec` track of `profile`, then `audio`.
ArgumentHelper File(const std::string& container, const std::string& videoCodec = "h264",
                    const std::vector<Json::Value>& audio = {}, const std::string& profile = "") {
  Json::Value doc;
  doc["container_type"] = container;
  doc["track_info"]["video"][0u] = Track("0", videoCodec);
  doc["track_info"]["video"][0u]["profile"] = profile;
  doc["track_info"]["audio"] = Json::arrayValue;
  for (const Json::Value& track : audio) doc["track_info"]["audio"].append(track);
  return ArgumentHelper(orvotest::DocumentMetaData(doc));
}

// Demuxer, then video decoder. The first container key that matches wins
// ("mpegts" holds "mpeg"); decodebin decodes too, so nothing follows it.
TEST(GstreamerElementsTest, DemuxerAndVideoDecoderByContainerCodecAndPlatform) {
  const struct {
    const char* platform;
    const char* container;
    const char* codec;
    const char* profile;
    const char* words;
  } rows[] = {
      {"x86", "mov,mp4,m4a,3gp,3g2,mj2", "h264", "", "qtdemux name=demux ! queue ! | avdec_h264"},
      {"x86", "mpegts", "mpeg2", "", "tsdemux name=demux ! queue ! | avdec_mpeg2video"},
      {"x86", "mpeg", "wmv3", "", "mpegpsdemux name=demux ! queue ! | vc1parse ! queue ! avdec_wmv3"},
      {"x86", "rm", "rv40", "", "rmdemux name=demux ! queue ! | avdec_rv40"},
      {"x86", "ogg", "h264", "", "decodebin name=demux ! queue ! | "},
      {"x86", "flv", "hevc", "", "flvdemux name=demux ! queue ! | decodebin"},
      {"x86", "avi", "vp9", "", "avidemux name=demux ! queue ! | decodebin"},
      {"x86", "asf", "vc1", "Advanced", "asfdemux name=demux ! queue ! | vc1parse ! queue ! avdec_vc1"},
      {"braswell", "asf", "vc1", "Advanced",
       "asfdemux profile=Advanced name=demux ! queue ! | vc1parse ! queue ! vaapidecode"},
      {"braswell", "asf", "h264", "", "asfdemux name=demux ! queue ! | h264parse ! queue ! vaapidecode"},
      {"braswell", "matroska,webm", "mpeg2", "",
       "matroskademux name=demux ! queue ! | mpegvideoparse ! queue ! decodebin"},
      {"braswell", "avi", "hevc", "", "avidemux name=demux ! queue ! | h265parse ! queue ! avdec_h265"},
      {"monaco", "avi", "mpeg4", "", "avidemux name=demux ! queue ! | stvideo"},
      {"monaco", "avi", "wmv3", "", "avidemux name=demux ! queue ! | vc1parse ! queue ! stvideo"},
  };
  orvotest::MachineRoot root;
  for (const auto& row : rows) {
    orvotest::PlatformFiles platform;
    platform.name = row.platform;
    root.Play(platform);
    ArgumentHelper helper = File(row.container, row.codec, {}, row.profile);
    const std::string demuxer = JoinWords(helper.GetGstreamDemuxer());
    EXPECT_EQ(row.words, demuxer + " | " + JoinWords(helper.GetGstreamVideoArgument()))
        << row.platform << " " << row.container << " " << row.codec << " " << row.profile;
  }
}

// Copied audio needs only a parser, except MPEG audio, which is decoded.
TEST(GstreamerElementsTest, AudioDecoderByCodecAndContainer) {
  orvotest::MachineRoot root;
  const struct {
    const char* codec;
    const char* container;
    bool parseOnly;
    const char* words;
  } rows[] = {
      {"ac3", "mpeg", false, "ac3parse ! avdec_ac3 !"}, {"eac3", "mpegts", true, "ac3parse"},
      {"aac", "avi", true, "aacparse"},                 {"mp2", "mpeg", true, "mpegaudioparse ! avdec_mp2float !"},
      {"wmapro", "asf", true, "avdec_wmapro !"},        {"wmapro", "avi", false, "decodebin !"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.words, JoinWords(File(row.container).GetGstreamAudioDecoder(row.codec, row.parseOnly)))
        << row.codec << " in " << row.container << " parse only " << row.parseOnly;
  }
  ArgumentHelper helper = File("mpegts", "h264", {Track("1", "aac"), Track("2", "ac3")});
  EXPECT_EQ("! queue ! ac3parse", JoinWords(helper.GetGstreamAudioArgument("2", true)));
  EXPECT_EQ("", JoinWords(helper.GetGstreamAudioArgument("3", false)));
}

TEST(GstreamerElementsTest, AudioPadOfTheDemuxer) {
  const std::vector<Json::Value> ps = {Track("1", "ac3", 128), Track("2", "mp2", 448)};
  const std::vector<Json::Value> mkv = {Track("1", "aac", 1), Track("2", "ac3", 2)};
  const struct {
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
  for (const auto& row : rows) {
    EXPECT_EQ(row.pad, File(row.container, "h264", row.audio).GetGstreamAudioMap(row.id))
        << row.container << " id " << row.id;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
