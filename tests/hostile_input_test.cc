// Client-controlled ids and query values that try to leave the session
// directory or break a playlist or manifest line, and sessions planted by
// another user. Every case records what it tried in the hostile-input table.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/documents.h"
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

std::unique_ptr<AdaptStream> Stream(const std::string& type, const std::string& id) {
  if (type == "HLS") return std::make_unique<HttpLiveStream>(id);
  return std::make_unique<SmoothStream>(id);
}

class HostileInputTest : public orvotest::MachineRootTest {
 protected:
  // Files a hostile id would reach from a session directory.
  void SetUp() override {
    MachineRootTest::SetUp();
    for (const std::string& file : victims_) Root().WriteFile(file, "keep");
  }
  bool VictimsIntact() {
    for (const std::string& file : victims_) {
      if (toolkit::ReadWholeFile(Root().At(file)) != "keep") return false;
    }
    return true;
  }
  const std::string victims_[2] = {"/victim/keep",
                                   librh::machine::kTempRoot + std::string("/victim/keep")};

  // VTE_Init of a short clip as an "HLS" or "SS" session, then Init with
  // `key`=`value` among the parameters, as two web requests would: "ok" or
  // "Init failed", after the id VTE_Init gave when it was not `id`.
  static std::string Open(const std::string& type, const std::string& id,
                          const std::string& key = "", const std::string& value = "") {
    return orvotest::TextFromChild([&] {
      const bool hls = type == "HLS";
      const std::string made = orvotest::CreateSession(
          orvotest::Media::kH264AacMp4, type, hls ? "hls.json" : "smooth.json",
          hls ? "hls_remux_h264_aac_ab128" : "smoothstreaming_240p_x264_vb200_vf15_aac_ab40", id);
      Json::Value params;
      params["url"] = "/api/stream";
      params["format"] = hls ? "hls" : "ss";
      if (!key.empty()) params[key] = value;
      const bool opened = Stream(type, id)->Init(params, Json::Value(), "", "");
      const std::string init = opened ? "ok" : "Init failed";
      return made == id && !id.empty() ? init : "VTE_Init gave \"" + made + "\", " + init;
    });
  }
};

TEST_F(HostileInputTest, StreamIdsThatLeaveTheSessionDirectoryAreRefusedEverywhere) {
  for (const std::string& id : std::vector<std::string>{
           "../victim", "../../victim", "/victim", "a/b", ".", "..", "", "  \t ", "id\nx", "id\rx",
           "id\x1b", "id\x7f", std::string("id\0/../../victim", 16)}) {
    for (const std::string type : {"HLS", "SS"}) {
      // Every entry point: session creation, then a stream object of the id
      // asked to open, serve and close.
      const std::string result = orvotest::TextFromChild([&] {
        const std::unique_ptr<AdaptStream> stream = Stream(type, id);
        return Open(type, id) + " " + std::to_string(stream->Transcoding("0")) +
               stream->ReadFragment("0") + std::to_string(stream->Close());
      });
      EXPECT_EQ(result, "VTE_Init gave \"\", Init failed 00") << type << " " << Printable(id);
      EXPECT_TRUE(VictimsIntact()) << type << " " << Printable(id);
      HostileRow("stream id (" + type + ")", "`" + Printable(id) + "`",
                 "VTE_Init returns \"\"; Init, Transcoding, Close refuse; nothing outside touched");
    }
  }
}

// Fragment ids: refused, or a path inside the session. Subtitle ids: a
// playlist name inside the session, or none.
TEST_F(HostileInputTest, FragmentAndSubtitleIdsStayInTheSession) {
  // Each session is named after its type.
  ASSERT_EQ(Open("SS", "SS"), "ok");
  ASSERT_EQ(Open("HLS", "HLS"), "ok");
  const std::string pid = orvotest::SessionPath("HLS", "HLS", "monitor.pid");
  std::ofstream(pid) << "4242";
  std::ofstream(orvotest::SessionPath("HLS", "HLS", "subtitle.m3u8.tpl")) << "#EXTM3U\n";
  const std::string refused = "refused (\"\")";
  const std::string inside = "a path inside the session";
  const struct {
    std::string type, id, seen;
  } rows[] = {
      {"SS", "QualityLevels(200000)/Fragments(video=../../victim)", refused},
      {"SS", "../../../victim/keep", refused},
      {"SS", "QualityLevels(200000)/../../victim", refused},
      {"SS", "QualityLevels(1)/Fragments(video=99999999999999999999999)", inside},
      {"SS", "QualityLevels(1)/Fragments(audio=-50000000)", inside},
      {"HLS", "99999999999999999999", refused},
      {"HLS", "4294967297", refused},
      {"HLS", "-5", refused},
      {"HLS", std::string("1\0/../../x", 10), refused},
  };
  for (const auto& row : rows) {
    const std::string session = orvotest::SessionPath(row.type, row.type);
    const std::string seen = orvotest::TextFromChild(
        [&] {
          const std::unique_ptr<AdaptStream> stream = Stream(row.type, row.type);
          // Smooth serves a fragment without a transcoding request before it.
          if (row.type == "HLS" && (stream->Transcoding(row.id) ||
                                    HttpLiveStream("HLS").CalculateSeekTime(row.id) != -1)) {
            return std::string("accepted");
          }
          const std::string served = stream->ReadFragment(row.id);
          if (served.empty()) return refused;
          const bool within =
              served.rfind(session + "/", 0) == 0 && served.find("..") == std::string::npos;
          return within ? inside : served;
        },
        20);
    EXPECT_EQ(seen, row.seen) << Printable(row.id);
    EXPECT_TRUE(VictimsIntact()) << Printable(row.id);
    HostileRow(row.type == "HLS" ? "HLS fragment id" : "Smooth fragment id",
               "`" + Printable(row.id) + "`", seen);
  }
  for (const auto& [id, name] :
       std::vector<std::pair<std::string, std::string>>{{"../../victim/keep", "keep.subtitle.m3u8"},
                                                        {"/etc/passwd", "passwd.subtitle.m3u8"},
                                                        {"..", "...subtitle.m3u8"},
                                                        {"dir/", ""}}) {
    EXPECT_EQ(hls::SubtitlePlaylistName(id), name) << id;
    HostileRow(
        "subtitle id", "`" + Printable(id) + "`",
        name.empty() ? "no playlist name (refused)" : "playlist `" + name + "` in the session");
  }
  // A NUL would end the playlist's file name early, at a file of the session.
  const std::string subtitle("monitor.pid\0", 12);
  EXPECT_EQ(orvotest::TextFromChild(
                [&] { return HttpLiveStream("HLS").GetMainfest("subtitle", subtitle); }),
            "");
  EXPECT_EQ(toolkit::ReadWholeFile(pid), "4242");
  HostileRow("subtitle id", "`" + Printable(subtitle) + "`",
             "no playlist; \"monitor.pid\" untouched");
}

// Another local user plants sessions of its own in the shared trees: a link
// to a directory of someone else's, a link to a directory of its own shaped
// like a session, a plain directory; each with a pid of a bystander. The
// library, running as root as the web API does, follows, removes, writes
// into and signals from none of them, and that user can neither remove nor
// replace the library's own sessions.
TEST_F(HostileInputTest, SessionsPlantedByAnotherUserAreNeverFollowed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to play another user";
  ASSERT_EQ(Open("HLS", "mine"), "ok");
  ASSERT_EQ(orvotest::TextFromChild([] {
              return orvotest::CreateSession(orvotest::Media::kH264AacMp4, "HTTP", "http.json",
                                             "http_320x240_x264_vb256_mp3_ab64", "mine");
            }),
            "mine");
  const pid_t bystander = orvotest::StartChild([] {
    for (;;) pause();
    return 0;
  });
  ASSERT_GT(bystander, 0);
  const std::string victim = Root().At("/victim");
  const std::string own = Root().At("/volume1/@tmp/Reelhall/HLS/own");
  const std::string hls = orvotest::SessionPath("HLS", "");
  const int planted = orvotest::RunInChild([&] {
    if (!orvotest::DropToUnprivilegedUser()) return 1;
    for (const std::string& dir : {own, orvotest::SessionPath("HTTP", "own")}) {
      if (mkdir(dir.c_str(), 0777) != 0) return 2;
      std::ofstream(dir + "/monitor.pid") << bystander;
    }
    if (symlink(victim.c_str(), (hls + "victim").c_str()) != 0 ||
        symlink(own.c_str(), (hls + "own").c_str()) != 0) {
      return 2;
    }
    for (const std::string type : {"HLS", "HTTP"}) {
      const std::string mine = orvotest::SessionPath(type, "mine");
      if (unlink(mine.c_str()) == 0 || rename(mine.c_str(), (mine + "2").c_str()) == 0) return 3;
    }
    return 0;
  });
  EXPECT_EQ(planted, 0) << "2: cannot plant; 3: removed or replaced the library's session";
  for (const std::string id : {"victim", "own"}) {
    orvotest::RunInChild([&] {
      HttpLiveStream stream(id);
      stream.Transcoding("0");
      stream.ReadFragment("0");
      stream.GetMainfest("video", "");
      return stream.Close() + SmoothStream(id).Close() + HttpStream(id).Close();
    });
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(victim), {}), 1);
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
  HostileRow(
      "planted session (another user)",
      "links to a victim's directory and to a session-shaped directory of its own, a plain "
      "\"HTTP\" directory, each with a bystander's pid; then close, stream, playlist as root",
      "nothing followed, written, removed or signalled; the type directories are sticky, "
      "the library's own sessions cannot be removed or replaced");
}

// A value that would break a line fails Init, which writes nothing; one
// that opens is written into the playlist as it is, into the manifest
// escaped so that the document keeps its one root.
TEST_F(HostileInputTest, QueryValuesThatWouldBreakALineFailTheUrl) {
  const struct {
    std::string type, key, value, written;
  } rows[] = {
      {"HLS", "_sid", "abc\n#EXT-X-ENDLIST", ""},
      {"HLS", "token", "a\rb", ""},
      {"HLS", "api", "x\ty", ""},
      {"HLS", "method", "m\x7f", ""},
      {"HLS", "url", "/api\x01/stream", ""},
      {"HLS", "OrvoToken", "safe-token_1.~", "&OrvoToken=safe-token_1.~&"},
      {"SS", "_sid", "abc\n</SmoothStreamingMedia>", ""},
      {"SS", "sharing_id", "a\x0b", ""},
      {"SS", "OrvoToken", "x\"/><Evil a=\"", "OrvoToken=x&quot;/>&lt;Evil a=&quot;&amp;"},
      {"SS", "method", "a<b&c", "method=a&lt;b&amp;c&amp;"},
  };
  int number = 0;
  for (const auto& row : rows) {
    const std::string id = "q" + std::to_string(number++);
    const std::string opened = Open(row.type, id, row.key, row.value);
    const std::string text = toolkit::ReadWholeFile(
        orvotest::SessionPath(row.type, id, row.type == "HLS" ? id + ".m3u8" : "manifest_predict"));
    EXPECT_EQ(opened, row.written.empty() ? "Init failed" : "ok") << row.key;
    EXPECT_TRUE(row.written.empty() ? text.empty() : text.find(row.written) != std::string::npos)
        << text;
    HostileRow("query value (" + row.type + ")", "`" + row.key + "=" + Printable(row.value) + "`",
               row.written.empty() ? "Init fails, nothing written"
                                   : "opens, written as `" + Printable(row.written) + "`");
    // An open Smooth session (a transcode) holds the machine's one place.
    if (row.type == "SS") orvotest::RunInChild([&] { return SmoothStream(id).Close() ? 0 : 1; });
  }
  EXPECT_EQ(hls::SubtitleURLTemplate(
                orvotest::ParseJson(R"({"url":"/s","id":"s","subtitle_id":"1","_sid":"a\nb"})")),
            "");
  HostileRow("query value (subtitle URL)", "`_sid=a\\nb`",
             "no subtitle URL (the playlist is not written)");
}

}  // namespace
}  // namespace LibOrvoVTE
