// The subtitle service stand-in, run as the web API runs it: one window URL
// of an HLS subtitle playlist per run, and only files the engine offers.
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

using SubtitleServiceTest = orvotest::MachineRootTest;

TEST_F(SubtitleServiceTest, AnswersWindowsOfOfferedSubtitlesOnly) {
  const std::string media = Root().At("/volume1/video");
  std::filesystem::create_directories(media);
  std::filesystem::create_symlink(orvotest::TestMedia(orvotest::Media::kTracksMkv),
                                  media + "/Movie.mkv");
  const std::string srt = media + "/Movie.eng.srt";
  std::ofstream(srt) << "1\n00:00:00,000 --> 00:00:01,000\nHello\n\n"
                        "2\n00:00:04,500 --> 00:00:06,000\nacross\n\n"
                        "3\n01:00:07,000 --> 01:00:08,000\nlate\n";
  const std::string refused = "1 subtitle-service: 404 Not Found: no subtitle file ";
  const struct {
    std::string subtitleId, window, answer;
  } rows[] = {
      // A cue overlapping the window is kept whole, with the media's times
      // (the next window has it too).
      {srt, "0&webvtt_end_time=5",
       "0 WEBVTT\n\n00:00.000 --> 00:01.000\nHello\n\n00:04.500 --> 00:06.000\nacross\n"},
      {srt, "5&webvtt_end_time=10", "0 WEBVTT\n\n00:04.500 --> 00:06.000\nacross\n"},
      {srt, "3605&webvtt_end_time=3610", "0 WEBVTT\n\n01:00:07.000 --> 01:00:08.000\nlate\n"},
      // The embedded SubRip track (Matroska shifts it by the audio priming).
      {"3", "0&webvtt_end_time=5",
       "0 WEBVTT\n\n00:00.021 --> 00:01.021\nBonjour\n\n00:01.021 --> 00:02.021\nAu revoir\n"},
      {"/etc/passwd", "0&webvtt_end_time=5", refused + "/etc/passwd beside the video\n"},
      {media + "/../video/Movie.eng.srt", "0&webvtt_end_time=5",
       refused + media + "/../video/Movie.eng.srt beside the video\n"},
  };
  for (const auto& row : rows) {
    const std::string target =
        "/webapi/subtitle.cgi?id=m1&subtitle_id=" + LibOrvoVTE::hls::PercentEncode(row.subtitleId) +
        "&api=A.Subtitle&version=2&preview=false&output_webvtt=true"
        "&webvtt_start_time=" +
        row.window;
    toolkit::Wiring wiring;
    wiring.err = STDOUT_FILENO;
    std::string printed;
    const int status = toolkit::RunProgram(
        {ORVOTEST_SUBTITLE_SERVICE, "--media", "m1=" + media + "/Movie.mkv", "--request", target},
        std::chrono::seconds(30), &printed, wiring);
    EXPECT_EQ(row.answer, std::to_string(status) + " " + printed) << target;
  }
}

}  // namespace
