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
    ArgumentHelper helper = File(row[1], row[2], {}, row[3]);
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
  const char* decoders[][4] = {
      // codec, container, parse only: elements
      {"ac3", "mpeg", "", "ac3parse ! avdec_ac3 !"},      {"eac3", "mpegts", "1", "ac3parse"},
      {"mp2", "mpeg", "1", "mpegaudioparse ! avdec_mp2float !"}, {"wmapro", "asf", "1", "avdec_wmapro !"},
      {"wmapro", "avi", "", "decodebin !"},
  };
  for (const auto& row : decoders) {
    EXPECT_EQ(row[3], JoinWords(File(row[1]).GetGstreamAudioDecoder(row[0], *row[2] != '\0')))
        << row[0] << " in " << row[1];
  }
  EXPECT_EQ("", JoinWords(File("mpegts", "h264", {Track("1", "aac")}).GetGstreamAudioArgument("3", false)));

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
    EXPECT_EQ(row.pad, File(row.container, "h264", row.audio).GetGstreamAudioMap(row.id))
        << row.container << " id " << row.id;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
