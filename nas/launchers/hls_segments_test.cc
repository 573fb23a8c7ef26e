// The launchers on the library's HLS command lines: the ffmpeg transcoder,
// and on GStreamer platforms the pipeline feeding the ffmpeg segmenter. A
// player that fetches segments of several runs (a start, a stop, a seek)
// must find them all on one timeline: segment n covers n * 5 s to n * 5 + 5 s.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/test_media.h"

namespace {

using orvotest::ProbedMedia;
using Argv = std::vector<std::string>;

constexpr double kFrame = 0.1;  // the clip's video runs at 10 frames per second
constexpr double kSegmentSeconds = 5;
constexpr int kLastSegment = 25;  // of the 130-second clip
constexpr int kInterruptedStatus = 255;  // ffmpeg's, after a SIGINT

class HlsSegmentsTest : public orvotest::LauncherTest {
 protected:
  // What the library runs for fragment `id` of a transcoding profile whose
  // source audio (AAC-LC) is copied.
  Argv TranscoderArgv(const std::string& id, const std::string& dir, const Argv& pacing) {
    const std::string seek = std::to_string(std::atoi(id.c_str()) * 5);
    Argv argv = {FFmpeg(), "-ss", seek, "-i", clip_, "-vcodec", "libx264", "-preset", "veryfast",
                 "-profile:v", "baseline", "-s", "160x120", "-b:v", "300k", "-maxrate", "300k",
                 "-bufsize", "600k"};
    argv.insert(argv.end(), pacing.begin(), pacing.end());
    argv.insert(argv.end(),
                {"-acodec", "copy", "-segment_format", "mpegts", "-segment_list_type", "m3u8",
                 "-hls_seek_time", seek, "-segment_time", "5", "-segment_start_number", id,
                 "-individual_header_trailer", "0", "-avoid_negative_ts", "0",
                 "-break_non_keyframes", "1", "-map", "0:0", "-map", "0:1",
                 dir + "/slice-%05d.ts"});
    return argv;
  }

  // A Braswell HLS pipeline (no rotation, the sample profile's chains at a
  // small size) from 60 s, and the segmenter it feeds.
  Argv BraswellWords(int fd) {
    return {GstLaunch(), "-f", "-s", "60", "filesrc", "location=" + clip_, "!", "qtdemux",
            "name=demux", "!", "queue", "!", "h264parse", "!", "queue", "!", "vaapidecode", "!",
            "vaapipostproc", "width=160", "height=120", "!", "vaapih264enc", "rate-control=cbr",
            "bitrate=300", "keyframe-period=50", "!", "h264parse", "!", "queue",
            "max-size-time=0", "max-size-buffers=0", "max-size-bytes=0", "!", "mpegtsmux",
            "name=mux", "!", "queue", "!", "fdsink", "fd=" + std::to_string(fd), "demux.audio_0",
            "!", "queue", "!", "aacparse", "!", "avdec_aac", "!", "audioconvert", "!",
            "audioresample", "!", "audio/x-raw,rate=48000,channels=2", "!", "avenc_aac",
            "bitrate=64000", "!", "aacparse", "!", "queue", "max-size-time=0",
            "max-size-buffers=0", "max-size-bytes=0", "!", "mux."};
  }
  Argv SegmenterArgv(int fd, const std::string& dir) {
    return {FFmpeg(), "-i", "pipe:" + std::to_string(fd), "-map", "0", "-codec", "copy", "-f",
            "segment", "-segment_time", "5", "-segment_start_number", "12", "-hls_seek_time",
            "60", dir + "/slice-%05d.ts"};
  }

  // Every segment file numbered `from` or above, probed.
  std::map<int, ProbedMedia> Segments(const std::string& dir, int from) {
    std::map<int, ProbedMedia> segments;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      const std::string name = entry.path().filename().string();
      int number = -1;
      if (sscanf(name.c_str(), "slice-%05d.ts", &number) != 1 || number < from) continue;
      orvotest::ProbeMedia(entry.path().string(), &segments[number]);
    }
    return segments;
  }

  // Segment n starts n segments after segment 0's `origin` (within a
  // frame), and all but a run's last are full segments.
  void ExpectTimeline(const char* run, const std::map<int, ProbedMedia>& segments, int first,
                      int last, double origin, bool lastIsFull) {
    SCOPED_TRACE(run);
    std::vector<int> numbers, expected;
    for (const auto& [number, media] : segments) numbers.push_back(number);
    for (int number = first; number <= last; ++number) expected.push_back(number);
    EXPECT_EQ(expected, numbers);
    for (const auto& [number, media] : segments) {
      SCOPED_TRACE("segment " + std::to_string(number));
      const orvotest::ProbedStream* video = media.Stream("video");
      const orvotest::ProbedStream* audio = media.Stream("audio");
      ASSERT_TRUE(video && audio);
      EXPECT_NEAR(origin + number * kSegmentSeconds, video->start, kFrame);
      EXPECT_NEAR(video->start, audio->start, kFrame);
      if (number < last || lastIsFull) {
        EXPECT_EQ(kSegmentSeconds / kFrame, video->frames);
      } else {
        EXPECT_GT(video->frames, 0);
      }
    }
  }

  const std::string clip_ = orvotest::TestMedia(orvotest::Media::kLongLowResMp4);
};

TEST_F(HlsSegmentsTest, RunsStoppedAndSeekedContinueOneTimeline) {
  const std::string dir = SessionDir("hls");
  // Fragment 0, paced so that the monitor's SIGINT lands mid-run.
  const pid_t first = orvotest::StartProgram(
      TranscoderArgv("00000", dir, {"-vf", "realtime=speed=10"}));
  ASSERT_TRUE(orvotest::WaitForPath(dir + "/slice-00002.ts", 20000));
  const auto stop = std::chrono::steady_clock::now();
  kill(first, SIGINT);
  EXPECT_EQ(kInterruptedStatus, orvotest::WaitForChild(first, 5));
  EXPECT_LT(std::chrono::steady_clock::now() - stop, std::chrono::seconds(2));
  const std::map<int, ProbedMedia> stopped = Segments(dir, 0);
  ASSERT_GE(stopped.size(), 3u);
  ASSERT_TRUE(stopped.at(0).Stream("video"));
  const double origin = stopped.at(0).Stream("video")->start;
  ExpectTimeline("stopped at 0", stopped, 0, stopped.rbegin()->first, origin, false);

  // Fragment 12: a seek to 60 s, run to the end of the clip.
  EXPECT_EQ(0, orvotest::WaitForChild(orvotest::StartProgram(TranscoderArgv("00012", dir, {})), 60));
  ExpectTimeline("seeked to 60", Segments(dir, 12), 12, kLastSegment, origin, true);

  // The same seek on a GStreamer platform: hardware elements stood in for,
  // segments cut by the segmenter from the pipeline's stream.
  const std::string gstDir = SessionDir("hls-gst");
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  const pid_t pipeline = orvotest::StartProgram(BraswellWords(fds[1]), {fds[1]});
  const pid_t segmenter = orvotest::StartProgram(SegmenterArgv(fds[0], gstDir), {fds[0]});
  close(fds[0]);
  close(fds[1]);
  EXPECT_EQ(0, orvotest::WaitForChild(pipeline, 60));
  EXPECT_EQ(0, orvotest::WaitForChild(segmenter, 10));
  ExpectTimeline("GStreamer at 60", Segments(gstDir, 0), 12, kLastSegment, origin, true);
}

}  // namespace
