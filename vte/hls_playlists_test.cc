#include "vte/hls_playlists.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace LibOrvoVTE {
namespace hls {
namespace {

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
  EXPECT_EQ("#EXTM3U\n#EXT-X-TARGETDURATION:8\n#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:8,\nu&fragment_id=00000\n#EXTINF:8,\nu&fragment_id=00001\n#EXT-X-ENDLIST\n",
            VideoPlaylist("u", 16, 8));
  EXPECT_EQ("#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:4,\nu&fragment_id=00000\n#EXT-X-ENDLIST\n",
            VideoPlaylist("u", 4, 5));
  // Five digits are a minimum, not a limit.
  const std::string longest = VideoPlaylist("u", 500005, 5);
  EXPECT_NE(std::string::npos, longest.find("#EXTINF:5,\nu&fragment_id=100000\n#EXT-X-ENDLIST\n"));
  EXPECT_EQ(std::vector<int>{}, SegmentDurations(0, 5));
}

// A name made unique earlier counts as seen; ids are percent-encoded.
TEST(HlsPlaylistsTest, MasterPlaylistNamesRenditionsUniquelyAndEncodesTheirIds) {
  const std::string media =
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"%s\",NAME=\"%s\",DEFAULT=%s,"
      "FORCED=NO,URI=\"/api/stream?format=hls&id=s1&subtitle_id=%s&playlist_type=subtitle\"\n";
  const auto line = [&](const std::string& name, const char* isDefault, const std::string& id) {
    std::string text = media;
    for (const std::string& value : {name, name, std::string(isDefault), id}) {
      text.replace(text.find("%s"), 2, value);
    }
    return text;
  };
  EXPECT_EQ("#EXTM3U\n\n" + line("eng", "YES", "%2Fv%2FMovie.eng.srt") + line("eng-2", "NO", "2") +
                line("chi", "NO", "%2Fv%20a") + line("eng-2-2", "NO", "3") + line("eng-3", "NO", "4") +
                "\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\","
                "SUBTITLES=\"subs\"\n/api/stream?format=hls&id=s1&playlist_type=video\n#EXT-X-ENDLIST\n",
            MasterPlaylist(kUrl, {{"/v/Movie.eng.srt", "eng"},
                                  {"2", "eng"},
                                  {"/v a", "chi"},
                                  {"3", "eng-2"},
                                  {"4", "eng"}}));
  EXPECT_EQ("#EXTM3U\n\n\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\"\n"
            "/api/stream?format=hls&id=s1&playlist_type=video\n#EXT-X-ENDLIST\n",
            MasterPlaylist(kUrl, {}));
}

TEST(HlsPlaylistsTest, PercentEncodingKeepsOnlyTheUnreservedSet) {
  const struct {
    std::string in;
    const char* out;
  } rows[] = {
      {"AZaz09-_.~", "AZaz09-_.~"},
      {"a&b=c?d#e%/ ", "a%26b%3Dc%3Fd%23e%25%2F%20"},
      {"\xc3\xa9\x7f", "%C3%A9%7F"},
      {std::string("a\0b", 3), "a%00b"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.out, PercentEncode(row.in)) << row.in;
}

// Tokens compare as text, not numbers: a token of more digits can compare
// smaller.
TEST(HlsPlaylistsTest, SequenceTokensCompareAsText) {
  EXPECT_EQ("5123.000417001", SequenceToken({5123, 417001}));
  EXPECT_EQ("0.999999999", SequenceToken({0, 999999999}));
  const struct {
    const char* token;
    const char* newest;
    bool notOlder;
  } rows[] = {
      {"5123.000417001", "5123.000417001", true}, {"5123.000417001", "5123.000417002", false},
      {"5124.000000000", "5123.999999999", true}, {"10000.000000000", "9999.000000000", false},
      {"5123.0", "5123.000417001", false},        {"5123.000417001", "", true},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.notOlder, IsNotOlderToken(row.token, row.newest)) << row.token << " vs " << row.newest;
  }
}

}  // namespace
}  // namespace hls
}  // namespace LibOrvoVTE
