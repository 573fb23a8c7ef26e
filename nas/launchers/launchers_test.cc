#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "nas/launchers/ffmpeg_translation.h"
#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/test_media.h"

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
    plan.kind = OutputKind::kWebM;  // must stay untouched
    std::string error;
    EXPECT_FALSE(PlanFFmpeg(
        library, "/usr/bin/ffmpeg", [](const std::string&) { return true; },
        [](const std::string&) { return SourceTraits{}; }, &plan, &error))
        << line;
    EXPECT_NE(std::string::npos, error.find(reason)) << line << ": " << error;
    EXPECT_TRUE(plan.argv.empty() && plan.kind == OutputKind::kWebM) << line;
  }
}

// A Monaco pipeline from a seek: the NAS elements it replaces and the
// muxer's shifted timeline.
constexpr double kFrame = 0.1;  // the clip's video runs at 10 frames per second
constexpr double kClipSeconds = 100;
constexpr double kGstTsStart = 3600;
constexpr int kSeek = 80;

TEST(ProgressiveStreams, GstreamerPipelineStartsAtTheSeekWithShiftedTimestamps) {
  orvotest::MachineRoot root;
  orvotest::InstallLaunchers(root);
  const std::string clip = orvotest::TestMedia(orvotest::Media::kLongH264AacMp4);
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  const std::string seek = std::to_string(kSeek);
  const pid_t pid = orvotest::StartProgram(
      {root.At(librh::machine::kPackageGstLaunch), "-f", "-s", seek, "filesrc",
       "location=" + clip, "!", "qtdemux", "name=demux", "!", "queue", "!", "stvideo", "!",
       "videoscale", "!", "video/x-raw,width=160,height=120", "!", "x264enc", "bitrate=256",
       "speed-preset=ultrafast", "key-int-max=50", "!", "queue", "max-size-time=0",
       "max-size-buffers=0", "max-size-bytes=0", "!", "mpegtsmux", "shift-pts=" + seek,
       "name=mux", "!", "queue", "!", "fdsink", "fd=" + std::to_string(fds[1])},
      {fds[1]});
  close(fds[1]);
  std::string data;
  EXPECT_TRUE(orvotest::ReadPipe(fds[0], &data, 60000));
  close(fds[0]);
  EXPECT_EQ(0, orvotest::WaitForChild(pid, 5));
  root.WriteFile("/volume1/gst.ts", data);
  orvotest::ProbedMedia media;
  ASSERT_TRUE(orvotest::ProbeMedia(root.At("/volume1/gst.ts"), &media));
  const orvotest::ProbedStream* video = media.Stream("video");
  ASSERT_TRUE(video);
  EXPECT_EQ("h264 160", video->codec + " " + std::to_string(video->width));
  EXPECT_EQ((kClipSeconds - kSeek) / kFrame, video->frames);
  EXPECT_NEAR(kGstTsStart + kSeek, video->start, kFrame);
}

}  // namespace
}  // namespace launchers
