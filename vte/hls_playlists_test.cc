#include "vte/hls_playlists.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/child.h"
#include "tests/support/documents.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "toolkit/files.h"
#include "vte/hls_subtitle_playlists.h"
#include "vte/http_live_stream.h"

// Hostile subtitle ids are in tests/hostile_input_test.cc.
namespace LibOrvoVTE {
namespace hls {
namespace {

namespace fs = std::filesystem;
using orvotest::ParseJson;

constexpr char kUrl[] = "/api/stream?format=hls&id=s1";

TEST(HlsPlaylistsTest, VideoPlaylistCoversTheDurationWithAShortLastSegment) {
  EXPECT_EQ("#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00000\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00001\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00002\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00003\n"
            "#EXTINF:3,\n/api/stream?format=hls&id=s1&fragment_id=00004\n"
            "#EXT-X-ENDLIST\n",
            VideoPlaylist(kUrl, 23, 5));
  // Five digits are a minimum, not a limit.
  const std::string longest = VideoPlaylist("u", 500005, 5);
  EXPECT_NE(std::string::npos, longest.find("#EXTINF:5,\nu&fragment_id=100000\n#EXT-X-ENDLIST\n"));
  // Nanoseconds zero-padded: tokens compare as text.
  EXPECT_EQ("5123.000417001", SequenceToken({5123, 417001}));
  EXPECT_TRUE(IsNotOlderToken("5124.000000000", "5123.999999999"));
  EXPECT_FALSE(IsNotOlderToken("5123.000417001", "5123.000417002"));
  EXPECT_TRUE(IsNotOlderToken("5123.000417001", ""));
}

// A name made unique earlier counts as seen; ids are percent-encoded.
TEST(HlsPlaylistsTest, MasterPlaylistNamesRenditionsUniquelyAndEncodesTheirIds) {
  const std::string media =
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"%s\",NAME=\"%s\",DEFAULT=%s,"
      "FORCED=NO,URI=\"/api/stream?format=hls&id=s1&subtitle_id=%s&playlist_type=subtitle\"\n";
  const auto line = [&](const std::string& name, const char* isDefault, const std::string& id) {
    std::string text = media;
    for (const std::string& value : {name, name, std::string(isDefault), id}) text.replace(text.find("%s"), 2, value);
    return text;
  };
  EXPECT_EQ("#EXTM3U\n\n" + line("eng", "YES", "%2Fv%2FMovie.eng.srt") + line("eng-2", "NO", "2") +
                line("chi", "NO", "%2Fv%20a~%26%3D%C3%00") + line("eng-2-2", "NO", "3") + line("eng-3", "NO", "4") +
                "\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\","
                "SUBTITLES=\"subs\"\n/api/stream?format=hls&id=s1&playlist_type=video\n#EXT-X-ENDLIST\n",
            MasterPlaylist(kUrl, {{"/v/Movie.eng.srt", "eng"},
                                  {"2", "eng"},
                                  {std::string("/v a~&=\xc3\0", 9), "chi"},
                                  {"3", "eng-2"},
                                  {"4", "eng"}}));
  EXPECT_EQ("#EXTM3U\n\n\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\"\n"
            "/api/stream?format=hls&id=s1&playlist_type=video\n#EXT-X-ENDLIST\n",
            MasterPlaylist(kUrl, {}));
}

// Text tracks are offered from MP4 and Matroska only.
TEST(HlsPlaylistsTest, SubtitleUrlLanguagesAndTracks) {
  EXPECT_EQ(std::string("/s?id=m7&subtitle_id=") + kSubtitleIdPlaceholder +
                "&subtitle_codepage=big5&api=A&version=2&method=get&_sid=S&OrvoToken=T",
            SubtitleURLTemplate(ParseJson(R"({"url":"/s","id":"m7","subtitle_id":"all","OrvoToken":"T","_sid":"S",
                                    "method":"get","version":2,"api":"A","subtitle_codepage":"big5"})")));
  EXPECT_EQ("", SubtitleURLTemplate(ParseJson(R"({"url":"/s","id":"m7","subtitle_id":3})")));
  std::string labels;
  for (const char* language : {R"("eng")", R"("e1g")", R"("shooter-3")", R"("shooter-12")", "123"}) {
    Json::Value info(Json::objectValue);
    info["language"] = ParseJson(language);
    labels += ValidateLanguage(info, "X") + " ";
  }
  EXPECT_EQ("eng X shooter-3 X X ", labels);
  const Json::Value tracks = ParseJson(R"([
      {"track":"2","codec":"mov_text","language":"eng"}, {"track":"3","codec":"hdmv_pgs_subtitle","language":"ger"},
      {"track":"4","codec":"ass","language":"shooter-1"}, {"track":"5","codec":"subrip","language":"und-x"},
      {"track":"6","codec":"ssa"}, {"track":"7","codec":"dvd_subtitle"}, "not a track"])");
  std::string offered;
  for (const auto& entry : InternalSubtitleEntries("mov,mp4,m4a,3gp,3g2,mj2", tracks)) {
    offered += entry.first + "=" + entry.second + " ";
  }
  EXPECT_EQ("2=eng 4=shooter-1 5=Internal 6=Internal ", offered);
  EXPECT_TRUE(InternalSubtitleEntries("mpegts", tracks).empty());
}

// A Matroska file with a SubRip track ("fre", 3) beside three subtitle files;
// each request in a process of its own. The short last entry asks for a
// whole window.
TEST(HlsSubtitleSessionTest, OffersFilesThenTracksAndWritesPlaylistsInsideTheSession) {
  orvotest::MachineRoot root;
  const std::string media = root.At("/volume1/video");
  fs::create_directories(media);
  fs::create_symlink(orvotest::TestMedia(orvotest::Media::kTracksMkv), media + "/Movie.mkv");
  for (const char* name : {"Movie.eng.srt", "Movie.srt", "Movie.chi.ass", "Movie2.srt"}) {
    std::ofstream(media + "/" + name) << "1\n00:00:00,000 --> 00:00:01,000\nHi\n";
  }
  const std::string id = VTEStream::VTE_Init(
      media + "/Movie.mkv", "HLS", ParseJson(R"({"stream_id":"subs"})"),
      std::string(ORVOVTE_SAMPLE_PROFILES) + "/hls.json", "hls_320x240_x264_vb300_aac_ab64", "browser", 0);
  ASSERT_EQ("subs", id);
  ASSERT_EQ("opened", orvotest::TextFromChild([&] {
              return HttpLiveStream(id).Init(ParseJson(R"({"url":"/api/stream","format":"hls"})"),
                                             ParseJson(R"({"url":"/s","id":"m7","subtitle_id":"all"})"), "", "")
                         ? "opened"
                         : "refused";
            }));
  const std::string dir = HttpLiveStream(id).GetVTEFileFullPath("");

  // External files in pattern order (Movie2.srt belongs to another video),
  // then the text track.
  EXPECT_EQ(MasterPlaylist("/api/stream?format=hls&id=subs", {{media + "/Movie.eng.srt", "eng"},
                                                                {media + "/Movie.srt", "External"},
                                                                {media + "/Movie.chi.ass", "chi"},
                                                                {"3", "fre"}}),
            toolkit::ReadWholeFile(dir + "/" + id + ".m3u8"));
  EXPECT_EQ(dir + "/Movie.eng.srt.subtitle.m3u8", orvotest::TextFromChild([&] {
              return HttpLiveStream(id).GetMainfest("subtitle", media + "/Movie.eng.srt");
            }));
  EXPECT_EQ("#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-ALLOW-CACHE:YES\n#EXTINF:2,\n"
            "/s?id=m7&subtitle_id=" + PercentEncode(media + "/Movie.eng.srt") +
                "&preview=false&output_webvtt=true&webvtt_start_time=0&webvtt_end_time=5\n#EXT-X-ENDLIST\n",
            toolkit::ReadWholeFile(dir + "/Movie.eng.srt.subtitle.m3u8"));
}

}  // namespace
}  // namespace hls
}  // namespace LibOrvoVTE
