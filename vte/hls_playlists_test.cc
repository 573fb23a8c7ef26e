#include "vte/hls_playlists.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace LibOrvoVTE {
namespace hls {
namespace {

constexpr char kUrl[] = "/api/stream?format=hls&id=s1";

TEST(HlsPlaylistsTest, VideoPlaylistCoversTheDurationWithAShortLastSegment) {
  struct Case {
    unsigned int duration;
    int length;
    const char* expected;
  };
  const Case cases[] = {
      {23, 5,
       "#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
       "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00000\n"
       "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00001\n"
       "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00002\n"
       "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00003\n"
       "#EXTINF:3,\n/api/stream?format=hls&id=s1&fragment_id=00004\n"
       "#EXT-X-ENDLIST\n"},
      {16, 8,
       "#EXTM3U\n#EXT-X-TARGETDURATION:8\n#EXT-X-MEDIA-SEQUENCE:0\n"
       "#EXTINF:8,\n/api/stream?format=hls&id=s1&fragment_id=00000\n"
       "#EXTINF:8,\n/api/stream?format=hls&id=s1&fragment_id=00001\n"
       "#EXT-X-ENDLIST\n"},
      {5, 5,
       "#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
       "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00000\n"
       "#EXT-X-ENDLIST\n"},
      {4, 5,
       "#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
       "#EXTINF:4,\n/api/stream?format=hls&id=s1&fragment_id=00000\n"
       "#EXT-X-ENDLIST\n"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(VideoPlaylist(kUrl, c.duration, c.length), c.expected)
        << "duration " << c.duration << " length " << c.length;
  }
  // Five digits are a minimum, not a limit.
  const std::string longest = VideoPlaylist("u", 500005, 5);
  EXPECT_NE(longest.find("#EXTINF:5,\nu&fragment_id=100000\n#EXT-X-ENDLIST\n"), std::string::npos);
  EXPECT_EQ(SegmentDurations(0, 5), std::vector<int>{});
}

TEST(HlsPlaylistsTest, MasterPlaylistNamesRenditionsUniquelyAndEncodesTheirIds) {
  const std::string withEntries =
      MasterPlaylist(kUrl, {{"/v/Movie.eng.srt", "eng"},
                            {"2", "eng"},
                            {"/v a", "chi"},
                            {"3", "eng-2"},
                            {"4", "eng"}});
  EXPECT_EQ(withEntries,
            "#EXTM3U\n"
            "\n"
            "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"eng\",NAME=\"eng\","
            "DEFAULT=YES,FORCED=NO,URI=\"/api/stream?format=hls&id=s1"
            "&subtitle_id=%2Fv%2FMovie.eng.srt&playlist_type=subtitle\"\n"
            "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"eng-2\",NAME=\"eng-2\","
            "DEFAULT=NO,FORCED=NO,URI=\"/api/stream?format=hls&id=s1"
            "&subtitle_id=2&playlist_type=subtitle\"\n"
            "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"chi\",NAME=\"chi\","
            "DEFAULT=NO,FORCED=NO,URI=\"/api/stream?format=hls&id=s1"
            "&subtitle_id=%2Fv%20a&playlist_type=subtitle\"\n"
            // A name made unique earlier counts as seen.
            "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"eng-2-2\",NAME=\"eng-2-2\","
            "DEFAULT=NO,FORCED=NO,URI=\"/api/stream?format=hls&id=s1"
            "&subtitle_id=3&playlist_type=subtitle\"\n"
            "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"eng-3\",NAME=\"eng-3\","
            "DEFAULT=NO,FORCED=NO,URI=\"/api/stream?format=hls&id=s1"
            "&subtitle_id=4&playlist_type=subtitle\"\n"
            "\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\",SUBTITLES=\"subs\"\n"
            "/api/stream?format=hls&id=s1&playlist_type=video\n"
            "#EXT-X-ENDLIST\n");

  EXPECT_EQ(MasterPlaylist(kUrl, {}),
            "#EXTM3U\n"
            "\n"
            "\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\"\n"
            "/api/stream?format=hls&id=s1&playlist_type=video\n"
            "#EXT-X-ENDLIST\n");
}

TEST(HlsPlaylistsTest, PercentEncodingKeepsOnlyTheUnreservedSet) {
  const struct {
    std::string in;
    const char* out;
  } cases[] = {
      {"AZaz09-_.~", "AZaz09-_.~"},
      {"/v a", "%2Fv%20a"},
      {"a&b=c?d#e%", "a%26b%3Dc%3Fd%23e%25"},
      {"\xc3\xa9\x7f", "%C3%A9%7F"},
      {std::string("a\0b", 3), "a%00b"},
  };
  for (const auto& c : cases) EXPECT_EQ(PercentEncode(c.in), c.out) << c.in;
}

TEST(HlsPlaylistsTest, SequenceTokensCompareAsText) {
  EXPECT_EQ(SequenceToken({5123, 417001}), "5123.000417001");
  EXPECT_EQ(SequenceToken({0, 999999999}), "0.999999999");
  const struct {
    const char* token;
    const char* newest;
    bool notOlder;
  } cases[] = {
      {"5123.000417001", "5123.000417001", true},
      {"5123.000417002", "5123.000417001", true},
      {"5123.000417001", "5123.000417002", false},
      {"5124.000000000", "5123.999999999", true},
      // Text, not numbers: a token of more digits can compare smaller.
      {"10000.000000000", "9999.000000000", false},
      {"5123.0", "5123.000417001", false},
      {"5123.000417001", "5123.0", true},
      {"5123.000417001", "", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsNotOlderToken(c.token, c.newest), c.notOlder) << c.token << " vs " << c.newest;
  }
}

}  // namespace
}  // namespace hls
}  // namespace LibOrvoVTE
