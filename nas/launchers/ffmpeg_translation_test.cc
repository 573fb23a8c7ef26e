#include "nas/launchers/ffmpeg_translation.h"

#include <gtest/gtest.h>

#include "tests/support/launchers.h"

namespace launchers {
namespace {

using orvotest::JoinWords;
using orvotest::SplitWords;

constexpr char kStock[] = "/usr/bin/ffmpeg";

// What it translates is played through the library by the media matrix and
// the playback tests; what it must refuse is seen only here.
TEST(PlanFFmpeg, RefusesWhatItCannotTranslateFaithfully) {
  struct Case {
    std::vector<std::string> library;
    const char* reason;
  };
  const Case cases[] = {
      {{"ffmpeg", "-ss", "5", "-i", "a.mp4", "-fragment_length", "5", "-seek_time", "5", ""},
       "output directory"},
      {SplitWords("ffmpeg -ss 5 -i a.mp4 -seek_time 5 /s/smooth"), "-fragment_length"},
      {SplitWords("ffmpeg -ss 5 -copyts -i a.mp4 -hls_seek_time 5 -segment_time 5 x%d.ts"),
       "every frame"},
      {SplitWords("ffmpeg -i a.mp4 -hls_seek_time 5 x%d.ts"), "-segment_time"},
      {SplitWords("ffmpeg -i a.mp4 -segment_time five -hls_seek_time 0 x%d.ts"), "whole seconds"},
      {SplitWords("ffmpeg -i a.mp4 -webm_seek_time 3 -hls_seek_time 3 pipe:1"), "HLS segments"},
      {SplitWords("ffmpeg -ss 5 -i a.mp4 -webm_seek_time"), "needs a value"},
      {SplitWords("ffmpeg a.mp4"), "expected"},
  };
  for (const Case& c : cases) {
    const std::string line = JoinWords(c.library);
    FFmpegPlan plan;
    plan.kind = OutputKind::kWebM;  // must stay untouched
    std::string error;
    EXPECT_FALSE(PlanFFmpeg(
        c.library, kStock, [](const std::string&) { return true; },
        [](const std::string&) { return SourceTraits{}; }, &plan, &error))
        << line;
    EXPECT_NE(std::string::npos, error.find(c.reason)) << line << ": " << error;
    EXPECT_TRUE(plan.argv.empty() && plan.kind == OutputKind::kWebM) << line;
  }
}

}  // namespace
}  // namespace launchers
