// HLS and Smooth Streaming from end to end: sessions made by VTE_Init, every
// web request in a process of its own as the web API runs them, the served
// media decoded, the detached monitors and transcoders accounted for.
#include <signal.h>
#include <time.h>
#include <utime.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/olibc.h"
#include "tests/support/decoded_media.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "tests/support/transcoder_stand_in.h"
#include "toolkit/files.h"
#include "toolkit/process_table.h"
#include "vte/http_live_stream.h"
#include "vte/smooth_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::SessionPath;

class HlsPlaybackTest : public orvotest::PlaybackTest {
 protected:
  std::string Text(const std::string& name) const { return ReadFile(File("s", name)); }
  std::string Slice(int fragment) const {
    char name[32];
    snprintf(name, sizeof(name), "slice-%05d.ts", fragment);
    return File("s", name);
  }

  // Serves segment `fragment` of session "s" (`id` as the request spells it):
  // its first video timestamp once seen whole with picture and sound, or -1.
  double Play(int fragment, const std::string& id = "") {
    double start = -1;
    EXPECT_EQ(orvotest::Fetch<HttpLiveStream>("s", id.empty() ? std::to_string(fragment) : id),
              Slice(fragment));
    EXPECT_TRUE(orvotest::CompleteSegment(Slice(fragment), &start)) << fragment;
    return start;
  }
};

TEST_F(HlsPlaybackTest, SegmentsInOrderAFarSeekThenASignalAndIdleness) {
  // At the pace of playback, so that the run after the seek is still going
  // when the signal comes.
  ASSERT_EQ(Open("s", "slow"), "ok");
  const std::string target = fs::read_symlink(File("s", "")).string();
  const double first = Play(0);
  const int monitor = MonitorPid("s");
  EXPECT_TRUE(OLIBCProcAlive(monitor));
  EXPECT_NEAR(Play(1) - first, 5.0, 0.15);
  EXPECT_EQ(MonitorPid("s"), monitor);
  EXPECT_EQ(Text("seek_time"), "0");
  const std::string sequence = Text("request_sequence");

  EXPECT_NEAR(Play(16) - first, 80.0, 0.15);
  EXPECT_EQ(Text("seek_time"), "16");
  EXPECT_GT(Text("request_sequence"), sequence);
  const int seeker = MonitorPid("s");
  EXPECT_NE(seeker, monitor);
  EXPECT_FALSE(OLIBCProcAlive(monitor));
  EXPECT_TRUE(OLIBCProcAlive(seeker));
  EXPECT_FALSE(fs::exists(Slice(0))) << "the previous run's segments stay";

  // Inside the new run's first segments: waited for, not restarted. The
  // zero-padded id is the playlist's own spelling.
  EXPECT_NEAR(Play(18, "00018") - first, 90.0, 0.15);
  EXPECT_EQ(Text("seek_time"), "16");

  // A signal ends the monitor and its transcoder and keeps the session.
  const std::vector<toolkit::ProcessEntry> transcoders = toolkit::ChildrenOf(seeker);
  ASSERT_EQ(transcoders.size(), 1U);
  EXPECT_TRUE(orvotest::Registered(transcoders[0].pid));
  ASSERT_EQ(kill(seeker, SIGTERM), 0);
  EXPECT_TRUE(orvotest::ChildrenEnded(4)) << "monitor or transcoder still running";
  EXPECT_FALSE(orvotest::Registered(transcoders[0].pid));
  EXPECT_TRUE(fs::exists(File("s", "video_metadata"))) << "a signal alone keeps the session";

  // Nobody asked for data for 900 seconds: the monitor gives the stream up.
  Play(10);
  const std::string access = File("s", "access_status");
  std::ofstream(access).put('x');
  const struct utimbuf times = {time(nullptr) - 900, time(nullptr) - 900};
  ASSERT_EQ(utime(access.c_str(), &times), 0);
  EXPECT_TRUE(orvotest::ChildrenEnded(6)) << "monitor or transcoder still running";
  EXPECT_FALSE(orvotest::Exists(File("s", "")));
  EXPECT_FALSE(fs::exists(target));
  EXPECT_TRUE(orvotest::RegistryPids().empty());
}

TEST_F(HlsPlaybackTest, RemuxedMp4RestartsOnAJumpOfMoreThanSevenSegments) {
  ASSERT_EQ(Open("s", "remux"), "ok");
  const std::string target = fs::read_symlink(File("s", "")).string();
  const double first = Play(0);
  EXPECT_NEAR(Play(1) - first, 8.0, 0.15);
  EXPECT_NEAR(Play(9) - first, 72.0, 0.15);
  EXPECT_EQ(Text("seek_time"), "9");
  Play(11);
  EXPECT_EQ(Text("seek_time"), "9");
  EXPECT_TRUE(Close("s"));
  EXPECT_EQ(Leftovers(6), "");
  EXPECT_FALSE(orvotest::Exists(File("s", "")));
  EXPECT_FALSE(fs::exists(target));
}

constexpr char kVideo[] = "QualityLevels(200000)/Fragments(video=";

std::string Video(long long time) { return kVideo + std::to_string(time) + ")"; }

class SmoothPlayback : public orvotest::StreamTest {
 protected:
  void Open(orvotest::Media media, const std::string& id) {
    ASSERT_EQ(orvotest::CreateSession(media, "SS", "smooth.json",
                                      "smoothstreaming_240p_x264_vb200_vf15_aac_ab40", id),
              id);
    Json::Value params;
    params["url"] = "/api/stream";
    params["format"] = "ss";
    EXPECT_EQ(
        orvotest::RunInChild([&] { return SmoothStream(id).Init(params, {}, "", "") ? 0 : 1; }), 0);
  }

  // Starts a run at `fragment` (Transcoding alone) in a request of its own.
  bool Start(const std::string& id, const std::string& fragment) {
    return orvotest::RunInChild([&] { return SmoothStream(id).Transcoding(fragment) ? 0 : 1; }) ==
           0;
  }

  bool Close(const std::string& id) {
    const bool closed = orvotest::RunInChild([&] { return SmoothStream(id).Close() ? 0 : 1; }) == 0;
    return closed && !orvotest::Exists(SessionPath("SS", id));
  }

  // The recording stand-in in place of the transcoder, lingering a minute
  // once started (deaf to SIGINT and SIGTERM when `deaf`); the launcher.
  fs::path UseStandIn(bool deaf) {
    const std::string program = Root().At(librh::machine::kPackageFFmpeg);
    const fs::path launcher = fs::read_symlink(program);
    fs::remove(program);
    fs::create_symlink(orvotest::StandInProgram(), program);
    orvotest::ArmStandIn(Root().At("/record"), 60000, deaf);
    return launcher;
  }
};

// A phone clip held upright (a quarter turn) in the predicted landscape
// frame: after a seek, its fragment, decoded with nothing but the manifest's
// codec data, fitted between bars, never stretched, each picture at its time.
TEST_F(SmoothPlayback, RotatedClipKeepsItsShapeAndEveryPictureItsTime) {
  Open(orvotest::Media::kRotatedClockMp4, "phone");
  const std::string manifest = toolkit::ReadWholeFile(SmoothStream("phone").GetMainfest());
  const int width = std::stoi(orvotest::Attribute(manifest, "MaxWidth"));
  const int height = std::stoi(orvotest::Attribute(manifest, "MaxHeight"));
  const std::vector<long long> chunks = orvotest::ChunkTimes(manifest);
  ASSERT_EQ(chunks.size(), 12u);

  // A chunk less than 50 s in, as a player resuming there asks for it
  // before anything has started.
  const std::string fragment = SessionPath("SS", "phone", "smooth/" + Video(chunks[9]));
  ASSERT_EQ(orvotest::Fetch<SmoothStream>("phone", Video(chunks[9])), fragment);
  ASSERT_TRUE(orvotest::WaitUntil([] { return !SmoothStream("phone").IsFFmpegRun(); }, 90000));
  const std::string stream = Root().At("/v.h264");
  ASSERT_EQ(orvotest::WriteSmoothVideo(manifest, {fragment}, stream), "");
  orvotest::ProbedMedia media;
  std::vector<orvotest::Picture> pictures;
  ASSERT_EQ(orvotest::DecodeMedia(stream, &media, "h264", &pictures, 1000), "");
  ASSERT_EQ(pictures.size(), 75u);

  // The picture's extent across the middle row and down the middle column:
  // the bars are black (luma 16), the picture never below 64.
  const orvotest::Picture& first = pictures.front();
  ASSERT_EQ(first.width, width);
  ASSERT_EQ(first.height, height);
  int left = width, right = -1, shownHeight = 0;
  for (int x = 0; x < width; ++x) {
    if (first.Luma(x, height / 2) > 40) right = x, left = std::min(left, x);
  }
  for (int y = 0; y < height; ++y) shownHeight += first.Luma(width / 2, y) > 40;
  EXPECT_EQ(shownHeight, height);
  // Shown upright, 180 wide and 320 high.
  EXPECT_NEAR((right - left + 1.0) / shownHeight, 180.0 / 320, 2.0 / shownHeight);
  EXPECT_NEAR(left, width - 1 - right, 1) << "not centred";

  // Picture n of the stream (15 a second) is at n/15 s and shows the grey
  // of its second, or of a frame's time either side.
  const auto secondOf = [](long long picture) { return (picture / 15) % 12; };
  std::string late;
  for (size_t i = 0; i < pictures.size(); ++i) {
    const long long n = chunks[9] * 15 / 10000000 + static_cast<long long>(i);
    const int grey = (pictures[i].Luma(width / 2, height / 2) - 64 + 6) / 12;
    if (grey != secondOf(n) && grey != secondOf(n + 1) && grey != secondOf(n - 1)) {
      late += " " + std::to_string(n) + ":" + std::to_string(grey);
    }
  }
  EXPECT_EQ(late, "") << "pictures (n:grey) off their time n/15 s by more than a frame";
  EXPECT_TRUE(Close("phone"));
}

// A request killed in its restart, before its monitor started, leaves
// "seek_time" at its position and nothing running there: the next request
// for it restarts rather than wait for a fragment nobody writes.
TEST_F(SmoothPlayback, RestartAbandonedByAKilledRequestIsTakenUpByTheNext) {
  // A first run that lingers, so that the restart waits for its monitor.
  const fs::path launcher = UseStandIn(false);
  Open(orvotest::Media::kLongH264AacMp4, "k");
  ASSERT_TRUE(Start("k", Video(0)));
  ASSERT_GT(orvotest::RecordedPid(SessionPath("SS", "k", "monitor.pid")), 0);
  fs::remove(Root().At(librh::machine::kPackageFFmpeg));
  fs::create_symlink(launcher, Root().At(librh::machine::kPackageFFmpeg));

  const pid_t killed =
      orvotest::StartChild([] { return SmoothStream("k").Transcoding(Video(800000000)) ? 0 : 1; });
  ASSERT_TRUE(orvotest::WaitUntil(
      [&] { return ReadFile(SessionPath("SS", "k", "seek_time")) == "80"; }, 5000));
  ASSERT_EQ(kill(killed, SIGKILL), 0);
  orvotest::WaitForChild(killed, 5);

  const std::string served = orvotest::Fetch<SmoothStream>("k", Video(800000000));
  EXPECT_EQ(served, SessionPath("SS", "k", "smooth/" + Video(800000000)));
  EXPECT_NE(orvotest::FragmentSamples(served), "");
  EXPECT_TRUE(Close("k"));
}

// A hung transcoder, deaf to SIGINT and SIGTERM, ended with its monitor by
// Close; its transcoding slot freed.
TEST_F(SmoothPlayback, CloseEndsEvenAHungTranscoder) {
  UseStandIn(true);
  Open(orvotest::Media::kH264AacMp4, "hung");
  ASSERT_TRUE(Start("hung", Video(0)));
  const int monitor = orvotest::RecordedPid(SessionPath("SS", "hung", "monitor.pid"));
  ASSERT_TRUE(orvotest::WaitUntil([] { return orvotest::RegistryPids().size() == 1; }, 10000));
  const int transcoder = orvotest::RegistryPids()[0];
  EXPECT_TRUE(Close("hung"));
  EXPECT_TRUE(orvotest::Ends(monitor));
  EXPECT_TRUE(orvotest::Ends(transcoder));
  EXPECT_TRUE(orvotest::WaitUntil([] { return orvotest::RegistryPids().empty(); }, 5000));
}

}  // namespace
}  // namespace LibOrvoVTE
