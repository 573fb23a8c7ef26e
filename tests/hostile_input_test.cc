// Client-controlled ids and query values that try to leave the session
// directory or break a playlist or manifest line. Every case records what it
// tried in the hostile-input table.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/hostile_table.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "toolkit/files.h"
#include "vte/hls_subtitle_playlists.h"
#include "vte/http_live_stream.h"
#include "vte/http_stream.h"
#include "vte/smooth_stream.h"

namespace LibOrvoVTE {
namespace {

using orvotest::HostileRow;
using orvotest::Printable;

constexpr char kHlsProfile[] = "hls_remux_h264_aac_ab128";
constexpr char kSmoothProfile[] = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";

Json::Value Params(const std::string& format) {
  Json::Value params;
  params["url"] = "/api/stream";
  params["format"] = format;
  return params;
}

class HostileInputTest : public orvotest::MachineRootTest {
 protected:
  // Files a hostile id would reach from a session directory.
  void PlantVictims() {
    Root().WriteFile(std::string(librh::machine::kTempRoot) + "/victim/keep", "keep");
    Root().WriteFile("/victim/keep", "keep");
  }
  bool VictimsIntact() {
    return toolkit::ReadWholeFile(Root().At(std::string(librh::machine::kTempRoot) + "/victim/keep")) == "keep" &&
           toolkit::ReadWholeFile(Root().At("/victim/keep")) == "keep";
  }

  // VTE_Init of a short clip as an "HLS" or "SS" session; the id it gave.
  static std::string Create(const std::string& type, const std::string& id) {
    const bool hls = type == "HLS";
    return orvotest::CreateSession(orvotest::Media::kH264AacMp4, type,
                                   hls ? "hls.json" : "smooth.json",
                                   hls ? kHlsProfile : kSmoothProfile, id);
  }

  // Creates and opens a session as two web requests would; "ok", or what
  // failed.
  std::string Open(const std::string& type, const std::string& id, const Json::Value& params) {
    return orvotest::TextFromChild([&] {
      const std::string made = Create(type, id);
      if (made != id) return "VTE_Init gave \"" + made + "\"";
      const bool opened = type == "HLS" ? HttpLiveStream(id).Init(params, Json::Value(), "", "")
                                        : SmoothStream(id).Init(params, Json::Value(), "", "");
      return std::string(opened ? "ok" : "Init failed");
    });
  }
};

TEST_F(HostileInputTest, StreamIdsThatLeaveTheSessionDirectoryAreRefusedEverywhere) {
  PlantVictims();
  const std::vector<std::string> ids = {"../victim", "../../victim", "/victim", "a/b", ".", "..",
                                        "", "  \t ", "id\nx", "id\rx", "id\x1b", "id\x7f",
                                        std::string("id\0/../../victim", 16)};
  for (const std::string& id : ids) {
    for (const std::string type : {"HLS", "SS"}) {
      // Every entry point: session creation, then a stream object of the id
      // asked to open, serve and close.
      const std::string result = orvotest::TextFromChild([&] {
        const std::string made = Create(type, id);
        std::unique_ptr<AdaptStream> stream;
        if (type == "HLS") {
          stream = std::make_unique<HttpLiveStream>(id);
        } else {
          stream = std::make_unique<SmoothStream>(id);
        }
        const bool opened = stream->Init(Params("x"), Json::Value(), "", "");
        const bool transcoding = stream->Transcoding("0");
        const std::string fragment = stream->ReadFragment("0");
        const bool closed = stream->Close();
        return "init=\"" + made + "\" " + std::to_string(opened) + std::to_string(transcoding) +
               std::to_string(closed) + fragment;
      });
      EXPECT_EQ(result, "init=\"\" 000") << type << " " << Printable(id);
      EXPECT_TRUE(VictimsIntact()) << type << " " << Printable(id);
      if (result == "init=\"\" 000" && VictimsIntact()) {
        HostileRow("stream id (" + type + ")", "`" + Printable(id) + "`",
                   "VTE_Init returns \"\"; Init, Transcoding, Close refuse; nothing outside touched");
      }
    }
  }
}

TEST_F(HostileInputTest, FragmentAndSubtitleIdsStayInTheSession) {
  PlantVictims();
  ASSERT_EQ(Open("SS", "ssid", Params("ss")), "ok");
  for (const std::string fragment :
       {"QualityLevels(200000)/Fragments(video=../../victim)", "../../../victim/keep",
        "QualityLevels(200000)/../../victim", "QualityLevels(1)/Fragments(video=99999999999999999999999)",
        "QualityLevels(1)/Fragments(audio=-50000000)"}) {
    const std::string served = orvotest::TextFromChild(
        [&] { return SmoothStream("ssid").ReadFragment(fragment); }, 20);
    const std::string session = orvotest::SessionPath("SS", "ssid");
    EXPECT_TRUE(served.empty() || served.compare(0, session.size() + 1, session + "/") == 0)
        << fragment << " -> " << served;
    EXPECT_EQ(served.find(".."), std::string::npos) << fragment << " -> " << served;
    EXPECT_TRUE(VictimsIntact()) << fragment;
    HostileRow("Smooth fragment id", "`" + Printable(fragment) + "`",
               served.empty() ? "refused (\"\")" : "a path inside the session");
  }
  for (const auto& [id, name] :
       std::vector<std::pair<std::string, std::string>>{{"../../victim/keep", "keep.subtitle.m3u8"},
                                                       {"/etc/passwd", "passwd.subtitle.m3u8"},
                                                       {"..", "...subtitle.m3u8"},
                                                       {"dir/", ""}}) {
    EXPECT_EQ(hls::SubtitlePlaylistName(id), name) << id;
    HostileRow("subtitle id", "`" + Printable(id) + "`",
               name.empty() ? "no playlist name (refused)" : "playlist `" + name + "` in the session");
  }
}

// HLS fragment ids beyond any video, negative, or with a NUL, and a
// subtitle id with a NUL that would end the playlist's file name early.
TEST_F(HostileInputTest, HlsIdsOutOfRangeOrWithANulAreRefused) {
  ASSERT_EQ(Open("HLS", "hlsid", Params("hls")), "ok");
  const std::string pid = orvotest::SessionPath("HLS", "hlsid", "monitor.pid");
  std::ofstream(pid) << "4242";
  std::ofstream(orvotest::SessionPath("HLS", "hlsid", "subtitle.m3u8.tpl")) << "#EXTM3U\n";
  for (const std::string& id : {std::string("99999999999999999999"), std::string("4294967297"),
                               std::string("-5"), std::string("1\0/../../x", 10)}) {
    const std::string result = orvotest::TextFromChild([&] {
      HttpLiveStream stream("hlsid");
      return std::to_string(stream.CalculateSeekTime(id)) + " " +
             std::to_string(stream.Transcoding(id)) + " \"" + stream.ReadFragment(id) + "\"";
    });
    EXPECT_EQ(result, "-1 0 \"\"") << Printable(id);
    if (result == "-1 0 \"\"") {
      HostileRow("HLS fragment id", "`" + Printable(id) + "`",
                 "refused by Transcoding and ReadFragment; no seek time computed");
    }
  }
  const std::string subtitle("monitor.pid\0", 12);
  EXPECT_EQ(orvotest::TextFromChild(
                [&] { return HttpLiveStream("hlsid").GetMainfest("subtitle", subtitle); }),
            "");
  EXPECT_EQ(toolkit::ReadWholeFile(pid), "4242");
  if (toolkit::ReadWholeFile(pid) == "4242") {
    HostileRow("subtitle id", "`" + Printable(subtitle) + "`",
               "no playlist; \"monitor.pid\" untouched");
  }
}

// Another local user plants sessions of its own in the shared trees: a link
// to a directory of someone else's, a link to a directory of its own shaped
// like a session, a plain directory; each with a pid of a bystander. The
// library, here running as root as the web API does, follows, removes,
// writes into and signals from none of them, and that user can neither
// remove nor replace the library's own sessions.
TEST_F(HostileInputTest, SessionsPlantedByAnotherUserAreNeverFollowed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to play another user";
  PlantVictims();
  ASSERT_EQ(Open("HLS", "mine", Params("hls")), "ok");
  ASSERT_EQ(orvotest::TextFromChild([] {
              return orvotest::CreateSession(orvotest::Media::kH264AacMp4, "HTTP", "http.json",
                                             "http_320x240_x264_vb256_mp3_ab64", "mine");
            }),
            "mine");
  const pid_t bystander = orvotest::StartChild([] {
    for (;;) pause();
    return 0;
  });
  const std::string victim = Root().At("/victim");
  const std::string own = Root().At("/volume1/@tmp/Reelhall/HLS/own");
  const std::string hls = orvotest::SessionPath("HLS", "");
  const int planted = orvotest::RunInChild([&] {
    if (!orvotest::DropToUnprivilegedUser()) return 1;
    const std::string pidText = std::to_string(bystander);
    for (const std::string& dir : {own, orvotest::SessionPath("HTTP", "own")}) {
      if (mkdir(dir.c_str(), 0777) != 0) return 2;
      std::ofstream(dir + "/monitor.pid") << pidText;
    }
    if (symlink(victim.c_str(), (hls + "victim").c_str()) != 0 ||
        symlink(own.c_str(), (hls + "own").c_str()) != 0) {
      return 3;
    }
    for (const std::string type : {"HLS", "HTTP"}) {
      const std::string mine = orvotest::SessionPath(type, "mine");
      if (unlink(mine.c_str()) == 0 || rename(mine.c_str(), (mine + "2").c_str()) == 0) return 4;
    }
    return 0;
  });
  EXPECT_EQ(planted, 0) << "2, 3: cannot plant; 4: removed or replaced the library's session";
  for (const std::string id : {"victim", "own"}) {
    orvotest::RunInChild([&] {
      HttpLiveStream stream(id);
      stream.Transcoding("0");
      stream.ReadFragment("0");
      stream.GetMainfest("video", "");
      stream.Close();
      SmoothStream(id).Close();
      return 0;
    });
  }
  orvotest::RunInChild([] { return HttpStream("own").Close() ? 0 : 1; });
  std::set<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(victim)) {
    left.insert(entry.path().filename().string());
  }
  EXPECT_EQ(left, std::set<std::string>{"keep"});
  EXPECT_TRUE(VictimsIntact());
  EXPECT_TRUE(OLIBCProcAlive(bystander));
  EXPECT_TRUE(orvotest::Exists(hls + "victim") && orvotest::Exists(hls + "own"));
  for (const std::string& dir :
       {hls, orvotest::SessionPath("HTTP", ""), Root().At("/volume1/@tmp/Reelhall/HLS/")}) {
    struct stat info;
    EXPECT_TRUE(stat(dir.c_str(), &info) == 0 && (info.st_mode & 01777) == 01777) << dir;
  }
  kill(bystander, SIGKILL);
  orvotest::WaitForChild(bystander, 5);
  if (!HasFailure()) {
    HostileRow("planted session (another user)",
               "links to a victim's directory and to a session-shaped directory of its own, a "
               "plain \"HTTP\" directory, each with a bystander's pid; then close, stream, "
               "playlist as root",
               "nothing followed, written, removed or signalled; the type directories are "
               "sticky, the library's own sessions cannot be removed or replaced");
  }
}

TEST_F(HostileInputTest, QueryValuesThatWouldBreakALineFailTheUrl) {
  struct Case {
    std::string type, key, value;
    bool opens;
  };
  const std::vector<Case> cases = {
      {"HLS", "_sid", "abc\n#EXT-X-ENDLIST", false},
      {"HLS", "token", "a\rb", false},
      {"HLS", "api", "x\ty", false},
      {"HLS", "method", "m\x7f", false},
      {"HLS", "url", "/api\x01/stream", false},
      {"HLS", "OrvoToken", "safe-token_1.~", true},
      {"SS", "_sid", "abc\n</SmoothStreamingMedia>", false},
      {"SS", "sharing_id", "a\x0b", false},
      {"SS", "OrvoToken", "x\"/><Evil a=\"", true},
      {"SS", "method", "a<b&c", true},
  };
  int number = 0;
  for (const Case& c : cases) {
    Json::Value params = Params(c.type == "HLS" ? "hls" : "ss");
    params[c.key] = c.value;
    const std::string id = "q" + std::to_string(number++);
    const std::string result = Open(c.type, id, params);
    EXPECT_EQ(result, c.opens ? "ok" : "Init failed") << c.type << " " << c.key;
    std::string outcome = result == "ok" ? "opens" : "Init fails, no playlist written";
    if (c.opens && result == "ok") {
      const std::string text =
          toolkit::ReadWholeFile(orvotest::SessionPath(c.type, id, c.type == "HLS" ? id + ".m3u8" : "manifest_predict"));
      if (c.type == "HLS") {
        EXPECT_NE(text.find(c.value), std::string::npos) << text;
      } else {
        // Escaped inside the attribute: the document keeps its one root.
        EXPECT_EQ(text.find("<Evil"), std::string::npos) << text;
        EXPECT_EQ(text.find("a<b"), std::string::npos) << text;
        EXPECT_NE(text.find("&lt;"), std::string::npos) << text;
        outcome = "opens, value escaped in the manifest";
      }
    } else if (!c.opens) {
      EXPECT_FALSE(orvotest::Exists(orvotest::SessionPath(c.type, id, id + ".m3u8")));
      EXPECT_TRUE(toolkit::ReadWholeFile(orvotest::SessionPath(c.type, id, "manifest_predict")).empty());
    }
    HostileRow("query value (" + c.type + ")", "`" + c.key + "=" + Printable(c.value) + "`", outcome);
    // An open Smooth session (a transcode) holds the machine's one place.
    if (c.type == "SS") orvotest::RunInChild([&] { return SmoothStream(id).Close() ? 0 : 1; });
  }

  Json::Value subtitle;
  subtitle["url"] = "/api/subtitle";
  subtitle["id"] = "s";
  subtitle["subtitle_id"] = "1";
  subtitle["_sid"] = "a\nb";
  EXPECT_EQ(hls::SubtitleURLTemplate(subtitle), "");
  subtitle["_sid"] = "ab";
  EXPECT_NE(hls::SubtitleURLTemplate(subtitle), "");
  HostileRow("query value (subtitle URL)", "`_sid=a\\nb`", "no subtitle URL (the playlist is not written)");
}

}  // namespace
}  // namespace LibOrvoVTE
