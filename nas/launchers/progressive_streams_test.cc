// The GStreamer launcher on the library's progressive HTTP pipelines,
// writing into a pipe as it does for a stream's reader. (The ffmpeg
// launcher's progressive runs are played through the library itself:
// vte/http_stream_test.cc, vte/webm_stream_test.cc and the media matrix.)
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/test_media.h"

namespace {

using orvotest::ProbedMedia;
using orvotest::ProbedStream;
using Argv = std::vector<std::string>;

constexpr int kRunTimeoutMs = 60000;
constexpr double kFrame = 0.1;             // the clip's video runs at 10 frames per second
constexpr double kAacFrame = 1024 / 48000.0;
constexpr double kClipSeconds = 130;
constexpr double kGstTsStart = 3600;

class ProgressiveStreamsTest : public orvotest::LauncherTest {
 protected:
  // Runs the command line that `argv` makes for a pipe's write end and
  // returns what the reader got; `status` is the launcher's exit status.
  std::string ReadStream(const std::function<Argv(int)>& argv, int* status) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return "";
    const pid_t pid = orvotest::StartProgram(argv(fds[1]), {fds[1]});
    close(fds[1]);
    std::string data;
    EXPECT_TRUE(orvotest::ReadPipe(fds[0], &data, kRunTimeoutMs));
    close(fds[0]);
    *status = orvotest::WaitForChild(pid, 5);
    return data;
  }

  ProbedMedia Probe(const std::string& data, const std::string& name) {
    Root().WriteFile("/volume1/" + name, data);
    ProbedMedia media;
    orvotest::ProbeMedia(Root().At("/volume1/" + name), &media);
    return media;
  }

  // The pipeline a Monaco HTTP session builds for a Chromecast asking for
  // AAC, with a software video chain as the test profile.
  Argv GstHttpWords(long startSeconds, int fd, const std::string& preset) {
    const std::string start = std::to_string(startSeconds);
    return {GstLaunch(), "-f", "-s", start, "filesrc", "location=" + clip_, "!", "qtdemux",
                  "name=demux", "!", "queue", "!", "stvideo", "!", "videoscale", "!",
                  "video/x-raw,width=160,height=120", "!", "x264enc", "bitrate=256",
                  "speed-preset=" + preset, "key-int-max=50", "!",
                  "queue", "max-size-time=0", "max-size-buffers=0", "max-size-bytes=0", "!",
                  "mpegtsmux", "shift-pts=" + start, "name=mux", "!", "queue", "!", "fdsink",
                  "fd=" + std::to_string(fd), "demux.audio_0", "!", "queue", "!", "aacparse",
                  "!", "avdec_aac", "!", "audioconvert", "!", "audio/x-raw,channels=2", "!",
                  "faac", "rate-control=ABR", "!", "queue", "!", "aacparse", "!", "queue",
                  "max-size-time=0", "max-size-buffers=0", "max-size-bytes=0", "!", "mux."};
  }

  const std::string clip_ = orvotest::TestMedia(orvotest::Media::kLongLowResMp4);
};

TEST_F(ProgressiveStreamsTest, GstreamerPipelineStartsAtTheSeekWithShiftedTimestamps) {
  int status = -1;
  const std::string data =
      ReadStream([&](int fd) { return GstHttpWords(120, fd, "ultrafast"); }, &status);
  EXPECT_EQ(0, status);
  const ProbedMedia media = Probe(data, "gst.ts");
  EXPECT_EQ("mpegts", media.format);
  const ProbedStream* video = media.Stream("video");
  const ProbedStream* audio = media.Stream("audio");
  ASSERT_TRUE(video && audio);
  EXPECT_EQ("h264", video->codec);
  EXPECT_EQ(160, video->width);
  EXPECT_EQ((kClipSeconds - 120) / kFrame, video->frames);
  // shift-pts moves the muxer's timeline by the seek.
  EXPECT_NEAR(kGstTsStart + 120, video->start, kFrame);
  EXPECT_EQ("aac", audio->codec);
  EXPECT_EQ(2, audio->channels);
  EXPECT_NEAR((kClipSeconds - 120) / kAacFrame, audio->frames, 3);
  EXPECT_NEAR(kGstTsStart + 120, audio->start, kFrame);
}

TEST_F(ProgressiveStreamsTest, GstreamerStopsOnSigintWithItsOutputIntact) {
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  // A slow preset keeps it busy for many seconds, so the stop lands mid-stream.
  const pid_t pid = orvotest::StartProgram(GstHttpWords(60, fds[1], "veryslow"), {fds[1]});
  close(fds[1]);
  std::string data;
  EXPECT_TRUE(orvotest::ReadPipe(fds[0], &data, 10000, 20000));
  const auto stop = std::chrono::steady_clock::now();
  kill(pid, SIGINT);
  EXPECT_TRUE(orvotest::ReadPipe(fds[0], &data, 3000));
  close(fds[0]);
  EXPECT_EQ(128 + SIGINT, orvotest::WaitForChild(pid, 3));
  EXPECT_LT(std::chrono::steady_clock::now() - stop, std::chrono::seconds(2));

  const ProbedMedia media = Probe(data, "stopped.ts");
  const ProbedStream* video = media.Stream("video");
  ASSERT_TRUE(video && media.Stream("audio"));
  EXPECT_GT(video->frames, 0);
  EXPECT_LT(video->frames, (kClipSeconds - 60) / kFrame);
  EXPECT_NEAR(kGstTsStart + 60, video->start, kFrame);
}

}  // namespace
