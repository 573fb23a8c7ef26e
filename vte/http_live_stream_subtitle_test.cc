#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/child.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "toolkit/files.h"
#include "vte/hls_subtitle_playlists.h"
#include "vte/http_live_stream.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;

Json::Value Parse(const std::string& text) {
  Json::Value value;
  std::istringstream in(text);
  in >> value;
  return value;
}

TEST(SubtitleURLTemplate, PassesTheCallersKeysOnInOrder) {
  const std::string base = std::string("/s?id=m7&subtitle_id=") + hls::kSubtitleIdPlaceholder;
  const struct {
    const char* params;
    std::string url;
  } cases[] = {
      {R"({"url":"/s","id":"m7","subtitle_id":"all","OrvoToken":"T","_sid":"S","method":"get",
          "version":2,"api":"A","subtitle_codepage":"big5"})",
       base + "&subtitle_codepage=big5&api=A&version=2&method=get&_sid=S&OrvoToken=T"},
      {R"({"url":"/s","id":"m7","subtitle_id":"3","version":"2","subtitle_codepage":"","api":3})",
       base},
      {R"({"id":"m7","subtitle_id":"all"})", ""},
      {R"({"url":"/s","id":"","subtitle_id":"all"})", ""},
      {R"({"url":"/s","id":"m7","subtitle_id":3})", ""},
      {R"("/s")", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(c.url, hls::SubtitleURLTemplate(Parse(c.params))) << c.params;
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

TEST(SubtitlePlaylist, TemplateFollowsTheVideoGridAndTakesTheEncodedId) {
  const std::string placeholder = hls::kSubtitleIdPlaceholder;
  const std::string u = "U&subtitle_id=" + placeholder;
  // The short last entry still asks for a whole window.
  const std::string template23 = hls::SubtitlePlaylistTemplate(u, 23, 5);
  EXPECT_EQ(Head(5) + Window(u, 5, 0, 5) + Window(u, 5, 5, 10) + Window(u, 5, 10, 15) +
                Window(u, 5, 15, 20) + Window(u, 3, 20, 25) + "#EXT-X-ENDLIST\n",
            template23);
  EXPECT_EQ(Head(8) + Window(u, 8, 0, 8) + Window(u, 8, 8, 16) + "#EXT-X-ENDLIST\n",
            hls::SubtitlePlaylistTemplate(u, 16, 8));
  std::string concrete = template23;
  for (size_t at; (at = concrete.find(placeholder)) != std::string::npos;) {
    concrete.replace(at, placeholder.size(), "%2Fv%2FMovie.eng.srt");
  }
  EXPECT_EQ(concrete, hls::SubtitlePlaylist(template23, "/v/Movie.eng.srt"));
  // Only the first placeholder of a line; a last line gets its newline.
  EXPECT_EQ("x=%2Fv%20a%25&y=" + placeholder + "\n",
            hls::SubtitlePlaylist("x=" + placeholder + "&y=" + placeholder, "/v a%"));

  const struct {
    const char* id;
    const char* name;
  } names[] = {
      {"/v/Movie.eng.srt", "Movie.eng.srt.subtitle.m3u8"}, {"3", "3.subtitle.m3u8"},
      {"../../tmp/escape", "escape.subtitle.m3u8"},        {"..", "...subtitle.m3u8"},
      {"/v/", ""},                                         {"", ""},
  };
  for (const auto& n : names) EXPECT_EQ(n.name, hls::SubtitlePlaylistName(n.id)) << n.id;
}

TEST(SubtitleLanguage, KeepsCodesAndShooterLabelsOnly) {
  const struct {
    const char* language;
    const char* label;
  } cases[] = {
      {R"("eng")", "eng"},           {R"("CHI")", "CHI"},     {R"("en")", "X"},
      {R"("english")", "X"},         {R"("e1g")", "X"},       {R"("shooter-3")", "shooter-3"},
      {R"("shooter-12")", "X"},      {R"("shooter-x")", "X"}, {R"("Shooter-1")", "X"},
      {R"("")", "X"},                {"123", "X"},            {"null", "X"},
  };
  for (const auto& c : cases) {
    Json::Value info(Json::objectValue);
    if (std::string(c.language) != "null") info["language"] = Parse(c.language);
    EXPECT_EQ(c.label, hls::ValidateLanguage(info, "X")) << c.language;
  }
  EXPECT_EQ("X", hls::ValidateLanguage(Json::Value("eng"), "X"));
}

std::string Listed(const std::vector<hls::SubtitleEntry>& entries) {
  std::string text;
  for (const auto& entry : entries) text += entry.first + "=" + entry.second + " ";
  return text;
}

TEST(InternalSubtitleEntries, OffersTextTracksOfAllowedContainers) {
  const Json::Value tracks = Parse(R"([
      {"track":"2","codec":"mov_text","language":"eng"},
      {"track":"3","codec":"hdmv_pgs_subtitle","language":"ger"},
      {"track":"4","codec":"ass","language":"shooter-1"},
      {"track":"5","codec":"subrip","language":"und-x"},
      {"track":"6","codec":"ssa"}, {"track":"7","codec":"dvd_subtitle"}, "not a track"])");
  const struct {
    const char* container;
    const char* offered;
  } cases[] = {
      {"mov,mp4,m4a,3gp,3g2,mj2", "2=eng 4=shooter-1 5=Internal 6=Internal "},
      {"matroska,webm", "2=eng 4=shooter-1 5=Internal 6=Internal "},
      {"matroska", ""},
      {"mpegts", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.offered, Listed(hls::InternalSubtitleEntries(c.container, tracks))) << c.container;
  }
  EXPECT_EQ("", Listed(hls::InternalSubtitleEntries("matroska,webm", Json::Value())));
}

// A real session of a Matroska file with a SubRip track ("fre", track 3),
// beside three subtitle files; each request runs in a process of its own.
class HlsSubtitleSessionTest : public orvotest::MachineRootTest {
 protected:
  // Every path under the machine root (links not followed).
  std::set<std::string> Tree() {
    std::set<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(Root().Path())) {
      paths.insert(entry.path().string());
    }
    return paths;
  }
};

TEST_F(HlsSubtitleSessionTest, OffersFilesThenTracksAndWritesPlaylistsInsideTheSession) {
  const std::string media = Root().At("/volume1/video");
  fs::create_directories(media);
  fs::create_symlink(orvotest::TestMedia(orvotest::Media::kTracksMkv), media + "/Movie.mkv");
  for (const char* name : {"Movie.eng.srt", "Movie.srt", "Movie.chi.ass", "Movie2.srt"}) {
    std::ofstream(media + "/" + name) << "1\n00:00:00,000 --> 00:00:01,000\nHi\n";
  }
  const std::string id = VTEStream::VTE_Init(
      media + "/Movie.mkv", "HLS", Parse(R"({"stream_id":"subs"})"),
      std::string(ORVOVTE_SAMPLE_PROFILES) + "/hls.json", "hls_320x240_x264_vb300_aac_ab64",
      "browser", 0);
  ASSERT_EQ("subs", id);
  ASSERT_EQ("opened", orvotest::TextFromChild([&] {
              orvotest::LogCapture log;
              HttpLiveStream stream(id);
              return stream.Init(Parse(R"({"url":"/api/stream","format":"hls"})"),
                                 Parse(R"({"url":"/s","id":"m7","subtitle_id":"all"})"), "", "")
                         ? "opened"
                         : "refused\n" + log.Dump();
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
  const std::string url = "/s?id=m7&subtitle_id=";
  EXPECT_EQ(Head(5) + Window(url + hls::kSubtitleIdPlaceholder, 2, 0, 5) + "#EXT-X-ENDLIST\n",
            toolkit::ReadWholeFile(dir + "/subtitle.m3u8.tpl"));

  // Clients name the subtitle; whatever they send, only the session
  // directory gets a playlist. A name too long for the file system gets
  // none, and a log line.
  const std::set<std::string> before = Tree();
  const std::string longId(300, 'n');
  const std::string served = orvotest::TextFromChild([&] {
    orvotest::LogCapture log;
    HttpLiveStream stream(id);
    std::string text;
    for (const std::string& subtitleId : {media + "/Movie.eng.srt", std::string("3"),
                                          std::string("../../../../escape"),
                                          std::string("/v/../.."), std::string("x/"), longId}) {
      text += stream.GetMainfest("subtitle", subtitleId) + "\n";
    }
    const bool logged = log.Contains(" failed to open output file " + dir + "/" + longId);
    return text + Listed(stream.GetSubtitleMap("7")) + (logged ? "" : "\n" + log.Dump());
  });
  EXPECT_EQ(dir + "/Movie.eng.srt.subtitle.m3u8\n" + dir + "/3.subtitle.m3u8\n" + dir +
                "/escape.subtitle.m3u8\n" + dir + "/...subtitle.m3u8\n\n\n7=Undefined ",
            served);
  const std::string real = fs::canonical(dir).string();
  std::set<std::string> added;
  for (const std::string& path : Tree()) {
    if (before.count(path) == 0) added.insert(path);
  }
  EXPECT_EQ((std::set<std::string>{real + "/Movie.eng.srt.subtitle.m3u8", real + "/3.subtitle.m3u8",
                                   real + "/escape.subtitle.m3u8", real + "/...subtitle.m3u8"}),
            added);
  EXPECT_EQ(Head(5) + Window(url + encoded, 2, 0, 5) + "#EXT-X-ENDLIST\n",
            toolkit::ReadWholeFile(dir + "/Movie.eng.srt.subtitle.m3u8"));

  EXPECT_EQ("closed", orvotest::TextFromChild([&] {
              return std::string(HttpLiveStream(id).Close() ? "closed" : "not closed");
            }));
  EXPECT_FALSE(fs::exists(dir));
}

}  // namespace
}  // namespace LibOrvoVTE
