// The subtitle service stand-in, run as the web API runs it: one window URL
// of an HLS subtitle playlist per run.
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "toolkit/child_process.h"
#include "vte/hls_playlists.h"

namespace {

namespace fs = std::filesystem;

class SubtitleServiceTest : public orvotest::MachineRootTest {
 protected:
  void SetUp() override {
    MachineRootTest::SetUp();
    media_ = Root().At("/volume1/video");
    fs::create_directories(media_);
    fs::create_symlink(orvotest::TestMedia(orvotest::Media::kTracksMkv), media_ + "/Movie.mkv");
    std::ofstream(media_ + "/Movie.eng.srt") << "1\n00:00:00,000 --> 00:00:01,000\nHello\n\n"
                                                "2\n00:00:04,500 --> 00:00:06,000\nacross\n\n"
                                                "3\n01:00:07,000 --> 01:00:08,000\nlate\n";
  }

  // "<exit status> <what it printed on stdout and stderr>" for one target.
  std::string Ask(const std::string& target) {
    toolkit::Wiring wiring;
    wiring.err = STDOUT_FILENO;
    std::string printed;
    const int status = toolkit::RunProgram(
        {ORVOTEST_SUBTITLE_SERVICE, "--media", "m1=" + media_ + "/Movie.mkv", "--request", target},
        std::chrono::seconds(30), &printed, wiring);
    return std::to_string(status) + " " + printed;
  }

  // A window of the subtitle as the playlists ask for it.
  static std::string Window(const std::string& subtitleId, const std::string& window) {
    return "/webapi/subtitle.cgi?id=m1&subtitle_id=" + LibOrvoVTE::hls::PercentEncode(subtitleId) +
           "&api=A.Subtitle&version=2&preview=false&output_webvtt=true&" + window;
  }

  std::string media_;
};

TEST_F(SubtitleServiceTest, AnswersWindowsOfOfferedSubtitlesOnly) {
  const std::string srt = media_ + "/Movie.eng.srt";
  const std::string refused = "1 subtitle-service: ";
  const struct {
    std::string target;
    std::string answer;
  } cases[] = {
      // A cue overlapping the window is kept whole, with the media's times
      // (the next window has it too).
      {Window(srt, "webvtt_start_time=0&webvtt_end_time=5"),
       "0 WEBVTT\n\n00:00.000 --> 00:01.000\nHello\n\n00:04.500 --> 00:06.000\nacross\n"},
      {Window(srt, "webvtt_start_time=5&webvtt_end_time=10"),
       "0 WEBVTT\n\n00:04.500 --> 00:06.000\nacross\n"},
      {Window(srt, "webvtt_start_time=3605&webvtt_end_time=3610"),
       "0 WEBVTT\n\n01:00:07.000 --> 01:00:08.000\nlate\n"},
      // The embedded SubRip track (Matroska shifts it by the audio priming).
      {Window("3", "webvtt_start_time=0&webvtt_end_time=5"),
       "0 WEBVTT\n\n00:00.021 --> 00:01.021\nBonjour\n\n00:01.021 --> 00:02.021\nAu revoir\n"},
      {Window("1", "webvtt_start_time=0&webvtt_end_time=5"),
       refused + "404 Not Found: no text subtitle track 1 in the video\n"},
      {Window("/etc/passwd", "webvtt_start_time=0&webvtt_end_time=5"),
       refused + "404 Not Found: no subtitle file /etc/passwd beside the video\n"},
      {Window(media_ + "/../video/Movie.eng.srt", "webvtt_start_time=0&webvtt_end_time=5"),
       refused + "404 Not Found: no subtitle file " + media_ +
           "/../video/Movie.eng.srt beside the video\n"},
      {Window(srt, "webvtt_start_time=5&webvtt_end_time=5"),
       refused + "400 Bad Request: webvtt_start_time and webvtt_end_time must be seconds, start "
                 "before end\n"},
      {"/x?id=m2&subtitle_id=3&output_webvtt=true&webvtt_start_time=0&webvtt_end_time=5",
       refused + "404 Not Found: no video with id m2\n"},
      {"/x?id=m1&subtitle_id=3&webvtt_start_time=0&webvtt_end_time=5",
       refused + "400 Bad Request: only output_webvtt=true is served\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.answer, Ask(c.target)) << c.target;
}

}  // namespace
