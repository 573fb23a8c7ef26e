// The GStreamer launcher on a progressive HTTP pipeline of the library's,
// writing into a pipe as it does for a stream's reader, from a seek: the
// NAS elements it replaces and the muxer's shifted timeline. (The ffmpeg
// launcher's progressive runs are played through the library itself.)
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/test_media.h"

namespace {

constexpr double kFrame = 0.1;  // the clip's video runs at 10 frames per second
constexpr double kAacFrame = 1024 / 48000.0;
constexpr double kClipSeconds = 100;
constexpr double kGstTsStart = 3600;
constexpr int kSeek = 80;

TEST(ProgressiveStreams, GstreamerPipelineStartsAtTheSeekWithShiftedTimestamps) {
  orvotest::MachineRoot root;
  orvotest::InstallLaunchers(root);
  const std::string clip = orvotest::TestMedia(orvotest::Media::kLongH264AacMp4);
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  // The pipeline a Monaco HTTP session builds for a Chromecast asking for
  // AAC, with a software video chain as the test profile.
  const std::string seek = std::to_string(kSeek);
  const pid_t pid = orvotest::StartProgram(
      {root.At(librh::machine::kPackageGstLaunch), "-f", "-s", seek, "filesrc",
       "location=" + clip, "!", "qtdemux", "name=demux", "!", "queue", "!", "stvideo", "!",
       "videoscale", "!", "video/x-raw,width=160,height=120", "!", "x264enc", "bitrate=256",
       "speed-preset=ultrafast", "key-int-max=50", "!", "queue", "max-size-time=0",
       "max-size-buffers=0", "max-size-bytes=0", "!", "mpegtsmux", "shift-pts=" + seek,
       "name=mux", "!", "queue", "!", "fdsink", "fd=" + std::to_string(fds[1]), "demux.audio_0",
       "!", "queue", "!", "aacparse", "!", "avdec_aac", "!", "audioconvert", "!",
       "audio/x-raw,channels=2", "!", "faac", "rate-control=ABR", "!", "queue", "!", "aacparse",
       "!", "queue", "max-size-time=0", "max-size-buffers=0", "max-size-bytes=0", "!", "mux."},
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
  const orvotest::ProbedStream* audio = media.Stream("audio");
  ASSERT_TRUE(video && audio);
  EXPECT_EQ("h264 160", video->codec + " " + std::to_string(video->width));
  EXPECT_EQ((kClipSeconds - kSeek) / kFrame, video->frames);
  EXPECT_EQ("aac 2", audio->codec + " " + std::to_string(audio->channels));
  EXPECT_NEAR((kClipSeconds - kSeek) / kAacFrame, audio->frames, 3);
  // shift-pts moves the muxer's timeline by the seek.
  EXPECT_NEAR(kGstTsStart + kSeek, video->start, kFrame);
  EXPECT_NEAR(kGstTsStart + kSeek, audio->start, kFrame);
}

}  // namespace
