// Smooth Streaming from end to end: sessions made by VTE_Init from generated
// media, every web request in a process of its own as the web API runs
// them, and the detached monitors and transcoders accounted for.
#include <signal.h>
#include <utime.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/decoded_media.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "tests/support/transcoder_stand_in.h"
#include "toolkit/files.h"
#include "vte/smooth_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::SessionPath;

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
// frame: fitted between bars, never stretched; after a seek and from the
// start, every fragment the manifest lists, decoded with nothing but the
// manifest's codec data, each picture shown at its own time.
TEST_F(SmoothPlayback, RotatedClipKeepsItsShapeAndEveryPictureItsTime) {
  Open(orvotest::Media::kRotatedClockMp4, "phone");
  const std::string dir = SessionPath("SS", "phone", "smooth/");
  const std::string manifest = toolkit::ReadWholeFile(SmoothStream("phone").GetMainfest());
  const int width = std::stoi(orvotest::Attribute(manifest, "MaxWidth"));
  const int height = std::stoi(orvotest::Attribute(manifest, "MaxHeight"));
  // The chunks' start times, summed from their durations as a client does.
  std::vector<long long> chunks = {0};
  for (size_t at = manifest.find("<c "); at < manifest.find("Type=\"audio\"");
       at = manifest.find("<c ", at + 1)) {
    chunks.push_back(chunks.back() + std::stoll(orvotest::Attribute(manifest, "d", at)));
  }
  chunks.pop_back();
  ASSERT_EQ(chunks.size(), 12u);

  // First a chunk less than 50 s in, as a player resuming there asks for it
  // before anything has started; then back to the start.
  for (const long long start : {chunks[9], chunks[0]}) {
    SCOPED_TRACE("run from " + std::to_string(start));
    ASSERT_EQ(orvotest::Fetch<SmoothStream>("phone", Video(start)), dir + Video(start));
    ASSERT_TRUE(orvotest::WaitUntil([] { return !SmoothStream("phone").IsFFmpegRun(); }, 90000));
    for (auto chunk = std::find(chunks.begin(), chunks.end(), start); chunk != chunks.end();
         ++chunk) {
      SCOPED_TRACE("chunk at " + std::to_string(*chunk));
      const std::string audio =
          "QualityLevels(40000)/Fragments(audio=" + std::to_string(*chunk) + ")";
      EXPECT_NE(orvotest::FragmentSamples(dir + audio), "");
      orvotest::ProbedMedia media;
      std::vector<orvotest::Picture> pictures;
      ASSERT_EQ(orvotest::DecodeSmoothVideo(manifest, {dir + Video(*chunk)}, Root().At("/v.h264"),
                                            &media, &pictures, 1000),
                "");
      ASSERT_EQ(pictures.size(), 75u);

      // The picture's extent across the middle row and down the middle
      // column: the bars are black (luma 16), the picture never below 64.
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

      // Picture n of the stream (15 a second) is at n/15 s and shows the
      // grey of its second, or of a frame's time either side.
      const auto secondOf = [](long long picture) { return (picture / 15) % 12; };
      std::string late;
      for (size_t i = 0; i < pictures.size(); ++i) {
        const long long n = *chunk * 15 / 10000000 + static_cast<long long>(i);
        const int grey = (pictures[i].Luma(width / 2, height / 2) - 64 + 6) / 12;
        if (grey != secondOf(n) && grey != secondOf(n + 1) && (n == 0 || grey != secondOf(n - 1))) {
          late += " " + std::to_string(n) + ":" + std::to_string(grey);
        }
      }
      EXPECT_EQ(late, "") << "pictures (n:grey) off their time n/15 s by more than a frame";
    }
  }
  EXPECT_TRUE(Close("phone"));
}

// A request killed in the middle of its restart, before its monitor has
// started, leaves "seek_time" at its position and nothing running there:
// the next request for that position restarts instead of being handed a
// fragment nobody writes.
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
// Close, by the idle rule or by a signal to the monitor; its transcoding
// slot freed each time.
TEST_F(SmoothPlayback, EndsByCloseIdlenessOrSignalEvenWithAHungTranscoder) {
  UseStandIn(true);
  for (const std::string ending : {"close", "idle", "signal"}) {
    Open(orvotest::Media::kH264AacMp4, ending);
    ASSERT_TRUE(Start(ending, Video(0))) << ending;
    const int monitor = orvotest::RecordedPid(SessionPath("SS", ending, "monitor.pid"));
    ASSERT_TRUE(orvotest::WaitUntil([] { return orvotest::RegistryPids().size() == 1; }, 10000))
        << ending;
    const int transcoder = orvotest::RegistryPids()[0];
    if (ending == "close") {
      EXPECT_TRUE(Close(ending));
    } else if (ending == "idle") {
      const std::string access = SessionPath("SS", ending, "access_status");
      std::ofstream{access};
      const struct utimbuf old = {time(nullptr) - 1000, time(nullptr) - 1000};
      ASSERT_EQ(utime(access.c_str(), &old), 0);
    } else {
      ASSERT_EQ(kill(monitor, SIGTERM), 0);
    }
    EXPECT_TRUE(orvotest::Ends(monitor)) << ending;
    EXPECT_TRUE(orvotest::Ends(transcoder)) << ending;
    EXPECT_TRUE(orvotest::WaitUntil([] { return orvotest::RegistryPids().empty(); }, 5000))
        << ending;
    // Idleness removes the session; a signal leaves it for Close.
    EXPECT_EQ(orvotest::Exists(SessionPath("SS", ending)), ending == "signal") << ending;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
