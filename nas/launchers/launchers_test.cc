#include <gtest/gtest.h>

#include "nas/launchers/ffmpeg_translation.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/test_media.h"
#include "toolkit/child_process.h"

namespace launchers {
namespace {

using orvotest::SplitWords;

// What it translates is played through the library by the other tests.
TEST(PlanFFmpeg, RefusesWhatItCannotTranslateFaithfully) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
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
  for (const auto& [library, reason] : cases) {
    const std::string line = orvotest::JoinWords(library);
    FFmpegPlan plan;
    std::string error;
    EXPECT_FALSE(PlanFFmpeg(
        library, "/usr/bin/ffmpeg", [](const std::string&) { return true; },
        [](const std::string&) { return SourceTraits{}; }, &plan, &error))
        << line;
    EXPECT_NE(std::string::npos, error.find(reason)) << line << ": " << error;
  }
}

// A Monaco pipeline from a seek at 80 s: the NAS elements it replaces and
// the muxer's shifted timeline.
TEST(ProgressiveStreams, GstreamerPipelineStartsAtTheSeekWithShiftedTimestamps) {
  orvotest::MachineRoot root;
  orvotest::InstallLaunchers(root);
  toolkit::Wiring quiet;
  quiet.err = toolkit::kDevNull;
  std::string data;
  EXPECT_EQ(0, toolkit::RunProgram(
                   SplitWords(root.At(librh::machine::kPackageGstLaunch) + " -f -s 80 filesrc location=" +
                              orvotest::TestMedia(orvotest::Media::kLongH264AacMp4) +
                              " ! qtdemux name=demux ! queue ! stvideo ! videoscale ! video/x-raw,width=160"
                              ",height=120 ! x264enc bitrate=256 speed-preset=ultrafast key-int-max=50 ! queue"
                              " max-size-time=0 max-size-buffers=0 max-size-bytes=0 ! mpegtsmux shift-pts=80"
                              " name=mux ! queue ! fdsink"),
                   std::chrono::seconds(60), &data, quiet));
  root.WriteFile("/volume1/gst.ts", data);
  orvotest::ProbedMedia media;
  ASSERT_TRUE(orvotest::ProbeMedia(root.At("/volume1/gst.ts"), &media));
  const orvotest::ProbedStream* video = media.Stream("video");
  ASSERT_TRUE(video);
  EXPECT_EQ(200, video->frames) << "the clip's last 20 s at 10 frames per second";
  EXPECT_NEAR(3600 + 80, video->start, 0.1) << "GStreamer's transport streams start at 3600 s";
}

}  // namespace
}  // namespace launchers
