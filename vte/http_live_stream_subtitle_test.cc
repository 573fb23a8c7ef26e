#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
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
namespace {

namespace fs = std::filesystem;
using orvotest::ParseJson;

TEST(SubtitleURLTemplate, PassesTheCallersKeysOnInOrder) {
  const std::string base = std::string("/s?id=m7&subtitle_id=") + hls::kSubtitleIdPlaceholder;
  const struct {
    const char* params;
    std::string url;
  } rows[] = {
      {R"({"url":"/s","id":"m7","subtitle_id":"all","OrvoToken":"T","_sid":"S","method":"get",
          "version":2,"api":"A","subtitle_codepage":"big5"})",
       base + "&subtitle_codepage=big5&api=A&version=2&method=get&_sid=S&OrvoToken=T"},
      {R"({"url":"/s","id":"m7","subtitle_id":"3","version":"2","subtitle_codepage":"","api":3})", base},
      {R"({"id":"m7","subtitle_id":"all"})", ""},
      {R"({"url":"/s","id":"m7","subtitle_id":3})", ""},
      {R"("/s")", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.url, hls::SubtitleURLTemplate(ParseJson(row.params))) << row.params;
  }
}

std::string Head(int segmentSeconds) {
  return "#EXTM3U\n#EXT-X-TARGETDURATION:" + std::to_string(segmentSeconds) +
         "\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-ALLOW-CACHE:YES\n";
}

// One entry of a subtitle playlist; `url` ends with the subtitle id.
std::string Window(const std::string& url, int duration, int start, int end) {
  return "#EXTINF:" + std::to_string(duration) + ",\n" + url +
         "&preview=false&output_webvtt=true&webvtt_start_time=" + std::to_string(start) +
         "&webvtt_end_time=" + std::to_string(end) + "\n";
}

// The short last entry still asks for a whole window.
TEST(SubtitlePlaylist, TemplateFollowsTheVideoGridAndTakesTheEncodedId) {
  const std::string placeholder = hls::kSubtitleIdPlaceholder;
  const std::string u = "U&subtitle_id=" + placeholder;
  const std::string template23 = hls::SubtitlePlaylistTemplate(u, 23, 5);
  EXPECT_EQ(Head(5) + Window(u, 5, 0, 5) + Window(u, 5, 5, 10) + Window(u, 5, 10, 15) +
                Window(u, 5, 15, 20) + Window(u, 3, 20, 25) + "#EXT-X-ENDLIST\n",
            template23);
  std::string concrete = template23;
  for (size_t at; (at = concrete.find(placeholder)) != std::string::npos;) {
    concrete.replace(at, placeholder.size(), "%2Fv%2FMovie.eng.srt");
  }
  EXPECT_EQ(concrete, hls::SubtitlePlaylist(template23, "/v/Movie.eng.srt"));
  // Only the first placeholder of a line; a last line gets its newline.
  EXPECT_EQ("x=%2Fv%20a%25&y=" + placeholder + "\n",
            hls::SubtitlePlaylist("x=" + placeholder + "&y=" + placeholder, "/v a%"));
}

TEST(SubtitleLanguage, KeepsCodesAndShooterLabelsOnly) {
  const struct {
    const char* language;
    const char* label;
  } rows[] = {
      {R"("eng")", "eng"},      {R"("CHI")", "CHI"},        {R"("en")", "X"},
      {R"("e1g")", "X"},        {R"("shooter-3")", "shooter-3"}, {R"("shooter-12")", "X"},
      {R"("Shooter-1")", "X"},  {"123", "X"},
  };
  for (const auto& row : rows) {
    Json::Value info(Json::objectValue);
    info["language"] = ParseJson(row.language);
    EXPECT_EQ(row.label, hls::ValidateLanguage(info, "X")) << row.language;
  }
  EXPECT_EQ("X", hls::ValidateLanguage(Json::Value("eng"), "X"));

  const Json::Value tracks = ParseJson(R"([
      {"track":"2","codec":"mov_text","language":"eng"},
      {"track":"3","codec":"hdmv_pgs_subtitle","language":"ger"},
      {"track":"4","codec":"ass","language":"shooter-1"},
      {"track":"5","codec":"subrip","language":"und-x"},
      {"track":"6","codec":"ssa"}, {"track":"7","codec":"dvd_subtitle"}, "not a track"])");
  const std::string both = "2=eng 4=shooter-1 5=Internal 6=Internal ";
  for (const auto& [container, expected] : std::initializer_list<std::pair<const char*, std::string>>{
           {"mov,mp4,m4a,3gp,3g2,mj2", both}, {"matroska,webm", both}, {"matroska", ""}, {"mpegts", ""}}) {
    std::string offered;
    for (const auto& entry : hls::InternalSubtitleEntries(container, tracks)) {
      offered += entry.first + "=" + entry.second + " ";
    }
    EXPECT_EQ(expected, offered) << container;
  }
}

// A real session of a Matroska file with a SubRip track ("fre", track 3),
// beside three subtitle files; each request runs in a process of its own.
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
                                             ParseJson(R"({"url":"/s","id":"m7","subtitle_id":"all"})"),
                                             "", "")
                         ? "opened"
                         : "refused";
            }));
  const std::string dir = HttpLiveStream(id).GetVTEFileFullPath("");

  // External files in pattern order (Movie2.srt belongs to another video),
  // then the text track.
  std::string offered;
  std::istringstream master(toolkit::ReadWholeFile(dir + "/" + id + ".m3u8"));
  for (std::string line; std::getline(master, line);) {
    if (line.rfind("#EXT-X-MEDIA:", 0) != 0) continue;
    const size_t name = line.find("NAME=\"") + 6;
    const size_t subtitleId = line.find("subtitle_id=") + 12;
    offered += line.substr(name, line.find('"', name) - name) + " " +
               line.substr(subtitleId, line.find('&', subtitleId) - subtitleId) + "\n";
  }
  const std::string encoded = hls::PercentEncode(media + "/Movie.eng.srt");
  const std::string encodedDir = hls::PercentEncode(media);
  EXPECT_EQ("eng " + encoded + "\nExternal " + encodedDir + "%2FMovie.srt\nchi " + encodedDir +
                "%2FMovie.chi.ass\nfre 3\n",
            offered);

  const std::string served = orvotest::TextFromChild([&] {
    HttpLiveStream stream(id);
    std::string text;
    for (const std::string& subtitleId : {media + "/Movie.eng.srt", std::string("3"),
                                          std::string("../../../../escape"), std::string(300, 'n')}) {
      text += stream.GetMainfest("subtitle", subtitleId) + "\n";
    }
    return text + stream.GetSubtitleMap("7").at(0).second;
  });
  EXPECT_EQ(dir + "/Movie.eng.srt.subtitle.m3u8\n" + dir + "/3.subtitle.m3u8\n" + dir +
                "/escape.subtitle.m3u8\n\nUndefined",
            served);
  const std::string url = "/s?id=m7&subtitle_id=";
  EXPECT_EQ(Head(5) + Window(url + encoded, 2, 0, 5) + "#EXT-X-ENDLIST\n",
            toolkit::ReadWholeFile(dir + "/Movie.eng.srt.subtitle.m3u8"));
  EXPECT_FALSE(fs::exists(root.At("/escape.subtitle.m3u8")));
  EXPECT_EQ("closed", orvotest::TextFromChild([&] {
              return std::string(HttpLiveStream(id).Close() ? "closed" : "not closed");
            }));
  EXPECT_FALSE(fs::exists(dir));
}

}  // namespace
}  // namespace LibOrvoVTE
