// Ids and query values that try to leave the session or break a playlist
// line, sessions planted by another user, and the subtitle service stand-in.
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
#include "toolkit/child_process.h"
#include "toolkit/files.h"
#include "vte/hls_playlists.h"
#include "vte/hls_subtitle_playlists.h"
#include "vte/http_live_stream.h"
#include "vte/smooth_stream.h"

namespace LibOrvoVTE {
namespace {

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
  void Row(const std::string& area, const std::string& input, const std::string& result) {
    for (const std::string& file : victims_) {
      EXPECT_EQ(toolkit::ReadWholeFile(Root().At(file)), "keep") << input;
    }
    orvotest::HostileRow(area, input, result);
  }
  const std::string victims_[2] = {"/victim/keep",
                                   librh::machine::kTempRoot + std::string("/victim/keep")};

  // VTE_Init, then Init with `key`=`value`, as two web requests would.
  static std::string Open(const std::string& type, const std::string& id,
                          const std::string& key = "url",
                          const std::string& value = "/api/stream") {
    return orvotest::TextFromChild([&] {
      const bool hls = type == "HLS";
      const std::string made = orvotest::CreateSession(
          orvotest::Media::kH264AacMp4, type, hls ? "hls.json" : "smooth.json",
          hls ? "hls_remux_h264_aac_ab128" : "smoothstreaming_240p_x264_vb200_vf15_aac_ab40", id);
      Json::Value params = orvotest::ParseJson(R"({"url":"/api/stream"})");
      params["format"] = hls ? "hls" : "ss";
      params[key] = value;
      const std::string init =
          Stream(type, id)->Init(params, Json::Value(), "", "") ? "ok" : "Init failed";
      return made == id ? init : "VTE_Init gave \"" + made + "\", " + init;
    });
  }
};

TEST_F(HostileInputTest, StreamIdsThatLeaveTheSessionDirectoryAreRefusedEverywhere) {
  // One id per kind: a slash, dot names, blank, both ends of the control characters, a NUL.
  for (const std::string& id : std::vector<std::string>{"../victim", ".", "..", " \t", "id\x1f",
                                                        "id\x7f", std::string("id\0", 3)}) {
    for (const std::string type : {"HLS", "SS"}) {
      const std::string result = orvotest::TextFromChild([&] {
        const std::unique_ptr<AdaptStream> stream = Stream(type, id);
        return Open(type, id) + " " + std::to_string(stream->Transcoding("0")) +
               stream->ReadFragment("0") + std::to_string(stream->Close());
      });
      EXPECT_EQ(result, "VTE_Init gave \"\", Init failed 00") << type << " " << Printable(id);
      Row("stream id (" + type + ")", Printable(id),
          "VTE_Init returns \"\"; Init, Transcoding, Close refuse; nothing outside touched");
    }
  }
}

TEST_F(HostileInputTest, FragmentAndSubtitleIdsStayInTheSession) {
  ASSERT_EQ(Open("SS", "SS"), "ok");
  ASSERT_EQ(Open("HLS", "HLS"), "ok");
  const struct {
    std::string type, id, seen;
  } rows[] = {
      {"SS", "QualityLevels(200000)/Fragments(video=../../victim)", "refused"},
      {"SS", "QualityLevels(1)/Fragments(video=99999999999999999999999)", "inside the session"},
      {"HLS", "4294967297", "refused"},
      {"HLS", "-5", "refused"},
      {"HLS", std::string("1\0/../../x", 10), "refused"},
      {"subtitle", "../../victim/keep", "keep.subtitle.m3u8"},
      {"subtitle", "..", "...subtitle.m3u8"},
      {"subtitle", "dir/", ""},
      // A NUL would end the playlist's file name early, at a file of the session.
      {"subtitle", std::string("monitor.pid\0", 12), ""},
  };
  for (const auto& row : rows) {
    const std::string session = orvotest::SessionPath(row.type, row.type) + "/";
    std::string seen = hls::SubtitlePlaylistName(row.id);
    if (row.type != "subtitle") {
      seen = orvotest::TextFromChild([&] {
        const std::unique_ptr<AdaptStream> stream = Stream(row.type, row.type);
        // Smooth serves a fragment without a transcoding request before it.
        if (row.type == "HLS" && stream->Transcoding(row.id)) return std::string("accepted");
        const std::string served = stream->ReadFragment(row.id);
        const bool within = served.rfind(session, 0) == 0 && served.find("..") == std::string::npos;
        return served.empty() ? "refused" : within ? "inside the session" : served;
      });
    }
    EXPECT_EQ(seen, row.seen) << Printable(row.id);
    Row(row.type + (row.type == "subtitle" ? " id" : " fragment id"), Printable(row.id),
        seen.empty() ? "no playlist" : seen);
  }
}

// The trees are shared by every user; the library runs as root.
TEST_F(HostileInputTest, SessionsPlantedByAnotherUserAreNeverFollowed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to play another user";
  ASSERT_EQ(Open("HLS", "mine"), "ok");
  const pid_t bystander = orvotest::StartProgram({"sleep", "600"});
  ASSERT_GT(bystander, 0);
  const std::string victim = Root().At("/victim");
  const std::string own = Root().At("/volume1/@tmp/Reelhall/HLS/own");
  const std::string hls = orvotest::SessionPath("HLS", "");
  const int planted = orvotest::RunInChild([&] {
    if (!orvotest::DropToUnprivilegedUser()) return 1;
    for (const std::string& dir : {own, hls + "plain"}) {
      if (mkdir(dir.c_str(), 0777) != 0) return 2;
      std::ofstream(dir + "/monitor.pid") << bystander;
    }
    if (symlink(victim.c_str(), (hls + "victim").c_str()) != 0 ||
        symlink(own.c_str(), (hls + "own").c_str()) != 0) {
      return 2;
    }
    const std::string mine = hls + "mine";
    for (const std::string& path : {mine, std::filesystem::read_symlink(mine).string()}) {
      if (unlink(path.c_str()) == 0 || rename(path.c_str(), (path + "2").c_str()) == 0) return 3;
    }
    return 0;
  });
  EXPECT_EQ(planted, 0) << "2: cannot plant; 3: removed or replaced the library's session";
  for (const std::string id : {"victim", "own", "plain"}) {
    orvotest::RunInChild([&] {
      HttpLiveStream stream(id);
      stream.Transcoding("0");
      stream.ReadFragment("0");
      stream.GetMainfest("video", "");
      return stream.Close() ? 1 : 0;
    });
    EXPECT_TRUE(orvotest::Exists(hls + id)) << id;
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(victim), {}), 1);
  EXPECT_TRUE(OLIBCProcAlive(bystander));
  kill(bystander, SIGKILL);
  orvotest::WaitForChild(bystander, 5);
  Row("planted session (another user)",
      "links to a victim's and to its own directory, a plain one, each with a bystander's pid; "
      "then streamed and closed as root",
      "nothing followed, written, removed or signalled; the library's sessions stay");
}

// The manifest escapes what it holds so that the document keeps one root.
TEST_F(HostileInputTest, QueryValuesThatWouldBreakALineFailTheUrl) {
  const struct {
    std::string type, key, value, written;
  } rows[] = {
      {"HLS", "_sid", "abc\n#EXT-X-ENDLIST", ""},
      {"HLS", "OrvoToken", "safe-token_1.~", "&OrvoToken=safe-token_1.~&"},
      {"SS", "method", "x\"/><Evil a=\"&", "method=x&quot;/>&lt;Evil a=&quot;&amp;&amp;"},
  };
  for (const auto& row : rows) {
    const std::string opened = Open(row.type, row.key, row.key, row.value);
    const std::string text = toolkit::ReadWholeFile(orvotest::SessionPath(
        row.type, row.key, row.type == "HLS" ? row.key + ".m3u8" : "manifest_predict"));
    EXPECT_EQ(opened, row.written.empty() ? "Init failed" : "ok") << row.key;
    EXPECT_TRUE(row.written.empty() ? text.empty() : text.find(row.written) != std::string::npos)
        << text;
    Row("query value (" + row.type + ")", Printable(row.key + "=" + row.value),
        row.written.empty() ? "Init fails, nothing written"
                            : "opens, written as " + Printable(row.written));
    // An open Smooth session (a transcode) holds the machine's one place.
    if (row.type == "SS") orvotest::RunInChild([&] { return SmoothStream(row.key).Close(); });
  }
  EXPECT_EQ(hls::SubtitleURLTemplate(
                orvotest::ParseJson(R"({"url":"/s","id":"s","subtitle_id":"1","_sid":"a\nb"})")),
            "");
}

// One window of an HLS subtitle playlist per run, of files the engine offers.
TEST_F(HostileInputTest, SubtitleServiceAnswersWindowsOfOfferedFilesOnly) {
  const std::string media = Root().At("/volume1/video");
  Root().WriteFile("/volume1/video/Movie.eng.srt",
                   "1\n01:00:00,000 --> 01:00:05,000\na\n\n2\n01:00:04,000 --> 01:00:06,000\nb\n\n"
                   "3\n01:00:09,000 --> 01:00:12,000\nc\n");
  std::filesystem::create_symlink(orvotest::TestMedia(orvotest::Media::kTracksMkv),
                                  media + "/Movie.mkv");
  const auto answer = [&](const std::string& subtitleId, const std::string& window) {
    toolkit::Wiring wiring;
    wiring.err = STDOUT_FILENO;
    std::string printed;
    const int status = toolkit::RunProgram(
        {ORVOTEST_SUBTITLE_SERVICE, "--media", "m1=" + media + "/Movie.mkv", "--request",
         "/s?id=m1&output_webvtt=true&subtitle_id=" + hls::PercentEncode(subtitleId) +
             "&webvtt_start_time=" + window},
        std::chrono::seconds(30), &printed, wiring);
    return std::to_string(status) + " " + printed;
  };
  // A cue overlapping either end of the window is kept whole.
  EXPECT_EQ(answer(media + "/Movie.eng.srt", "3605&webvtt_end_time=3610"),
            "0 WEBVTT\n\n01:00:04.000 --> 01:00:06.000\nb\n\n01:00:09.000 --> 01:00:12.000\nc\n");
  // The embedded SubRip track (Matroska shifts it by the audio priming).
  EXPECT_EQ(answer("3", "0&webvtt_end_time=5"),
            "0 WEBVTT\n\n00:00.021 --> 00:01.021\nBonjour\n\n00:01.021 --> 00:02.021\nAu revoir\n");
  EXPECT_EQ(answer("/etc/passwd", "0&webvtt_end_time=5"),
            "1 subtitle-service: 404 Not Found: no subtitle file /etc/passwd beside the video\n");
}

}  // namespace
}  // namespace LibOrvoVTE
