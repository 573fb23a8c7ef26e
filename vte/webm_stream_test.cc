#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "decisions/argument_helper.h"
#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "vte/http_stream.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

using orvotest::Media;
using ::testing::ElementsAre;
using Clock = std::chrono::steady_clock;

constexpr char kProfile[] = "webm_320x240_vp8_vb256_vorbis_ab64";
constexpr size_t kMaxBytes = 16 * 1024 * 1024;

class WebMStreamTest : public orvotest::StreamTest {
 protected:
  static std::string NewSession(Media media, const std::string& id) {
    return orvotest::CreateSession(media, "WEBM", "webm.json", kProfile, id);
  }

  static std::string SessionPath(const std::string& id, const std::string& name = "") {
    return orvotest::SessionPath("WEBM", id, name);
  }

  // A request that starts a run at `start` (Init, then Transcoding, as every
  // run of a stream is started) and reads it into `file` until it ends,
  // pausing `pauseMs` after each 4 KiB so that the run outlasts what the
  // test does meanwhile. Exits 0 when the stream ended, 5 when refused.
  static pid_t Reader(const std::string& id, unsigned long start, const std::string& file,
                      long pauseMs) {
    return orvotest::StartChild([=] {
      // The monitor and ffmpeg inherit it; their chatter is not the test's.
      const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
      dup2(null, STDERR_FILENO);
      WebMStream stream(id);
      if (!stream.Init("")) return 5;
      if (!stream.Transcoding("ffmpeg", start)) return 2;
      std::ofstream out(file, std::ios::binary);
      char buffer[4096];
      const struct timespec pause = {0, pauseMs * 1000000};
      for (size_t total = 0; total < kMaxBytes;) {
        const int got = stream.Read(buffer, sizeof(buffer));
        if (got == 0) return 0;
        if (got < 0) return 3;
        out.write(buffer, got).flush();
        total += static_cast<size_t>(got);
        nanosleep(&pause, nullptr);
      }
      return 4;
    });
  }

  // The transcoder of the run, once it has taken its slot.
  static int RegisteredTranscoder() {
    int pid = -1;
    orvotest::WaitUntil(
        [&] {
          const std::vector<int> pids = orvotest::RegistryPids();
          pid = pids.size() == 1 ? pids[0] : -1;
          return pid > 0;
        },
        10000);
    return pid;
  }
};

long long FileSize(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_size : -1;
}

// The "id" of the source's first audio track with codec `codec`.
std::string AudioTrackId(const std::string& sessionDir, const std::string& codec) {
  Json::Value document;
  if (!LibReelhall::ReadJsonFromFile(sessionDir + "/video_metadata", document)) return "";
  for (const Json::Value& track : document["track_info"]["audio"]) {
    if (track["codec"].asString() == codec) return track["id"].asString();
  }
  return "";
}

TEST_F(WebMStreamTest, CopiesOnlyAacAndMp3AudioAndStartsAtTheSeekTime) {
  const struct {
    Media media;
    const char* track;  // the requested track's codec; "" for the first track
    bool copy;
  } cases[] = {
      {Media::kH264AacMp4, "", true},     {Media::kLongH264Mp3Mkv, "", true},
      {Media::kVp9VorbisWebm, "", false}, {Media::kTracksMkv, "ac3", false},
      {Media::kTracksMkv, "aac", true},
  };
  int number = 0;
  for (const auto& c : cases) {
    const std::string label = orvotest::MediaName(c.media) + " " + c.track;
    const std::string id = NewSession(c.media, "audio" + std::to_string(number++));
    ASSERT_FALSE(id.empty()) << label;
    if (*c.track != '\0') {
      const std::string track = AudioTrackId(SessionPath(id), c.track);
      ASSERT_TRUE(SaveFile(SessionPath(id, "audio_id"), track)) << label;
    }
    const std::vector<std::string> arguments = WebMStream(id).CalculateFFmpegArgument(1);
    ASSERT_GE(arguments.size(), 4u) << label;
    const auto acodec = std::find(arguments.begin(), arguments.end(), "-acodec");
    ASSERT_LT(acodec + 1, arguments.end()) << label;
    EXPECT_EQ(acodec[1], c.copy ? "copy" : ArgumentHelper::GetMP3Encoder()) << label;
    // A copied stream keeps its own rate and channels.
    EXPECT_EQ(std::count(arguments.begin(), arguments.end(), "-ab"), c.copy ? 0 : 1) << label;
    EXPECT_THAT(std::vector<std::string>(arguments.end() - 4, arguments.end()),
                ElementsAre("-webm_seek_time", "1", "-avoid_negative_ts", "0"))
        << label;
  }
}

TEST_F(WebMStreamTest, ASeekEndsTheRunningMonitorAndCloseLeavesNothing) {
  const std::string id = NewSession(Media::kLongH264Mp3Mkv, "run");
  ASSERT_EQ(id, "run");
  ASSERT_EQ(orvotest::RunInChild([&] { return WebMStream(id).Init("") ? 0 : 1; }), 0);
  const std::string pidFile = SessionPath(id, "monitor.pid");
  const std::string volumeDir = Root().At("/volume1/@tmp/Reelhall/WEBM/run");
  ASSERT_TRUE(orvotest::Exists(volumeDir));

  // A seek is a new run, which ends the running one first: the machine runs
  // one transcoder, which that run still holds when the seek opens.
  const std::string second = Root().Path() + "/second.webm";
  const pid_t secondReader = Reader(id, 0, second, 50);
  const int secondMonitor = orvotest::RecordedPid(pidFile);
  const int secondFfmpeg = RegisteredTranscoder();
  ASSERT_GT(secondFfmpeg, 0);
  EXPECT_TRUE(orvotest::WaitUntil([&] { return FileSize(second) >= 16384; }, 20000));
  const std::string seek = Root().Path() + "/seek.webm";
  const pid_t seekReader = Reader(id, 37, seek, 0);
  EXPECT_EQ(orvotest::WaitForChild(secondReader, 20), 0) << "the replaced run never ended";
  EXPECT_TRUE(orvotest::Ends(secondMonitor));
  EXPECT_TRUE(orvotest::Ends(secondFfmpeg));
  orvotest::ProbedMedia replaced;
  ASSERT_TRUE(orvotest::ProbeMedia(second, &replaced));
  ASSERT_NE(replaced.Stream("video"), nullptr);
  EXPECT_LT(replaced.Stream("video")->frames, 300);
  EXPECT_EQ(orvotest::WaitForChild(seekReader, 60), 0);
  // The run reached the end of the source: its monitor ended, and took its
  // record with it.
  EXPECT_TRUE(orvotest::WaitUntil([&] { return !orvotest::Exists(pidFile); }, 10000));

  orvotest::ProbedMedia media;
  ASSERT_TRUE(orvotest::ProbeMedia(seek, &media));
  const orvotest::ProbedStream* video = media.Stream("video");
  ASSERT_NE(video, nullptr) << "no video in " << seek;
  EXPECT_NEAR(video->start, 37.0, 0.5);
  // The last 3 s at 15 frames a second.
  EXPECT_NEAR(video->frames, 45, 10);
  // The source's MP3 is copied.
  ASSERT_NE(media.Stream("audio"), nullptr);
  EXPECT_EQ(media.Stream("audio")->codec, "mp3");

  // Another request closes the session.
  EXPECT_EQ(orvotest::RunInChild([&] { return WebMStream(id).Close() ? 0 : 1; }), 0);
  EXPECT_FALSE(orvotest::Exists(SessionPath(id)));
  EXPECT_FALSE(orvotest::Exists(volumeDir));
  EXPECT_TRUE(orvotest::RegistryPids().empty());
}

}  // namespace
}  // namespace LibOrvoVTE
