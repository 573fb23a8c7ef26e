// Smooth Streaming from end to end: sessions made by VTE_Init from generated
// media, every web request in a process of its own as the web API runs
// them, and the detached monitors and transcoders accounted for.
#include <signal.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>
#include <json/json.h>
extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"
#include "tests/support/mp4_fragment.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "toolkit/files.h"
#include "vte/smooth_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::SessionPath;

constexpr char kProfile[] = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";
constexpr char kVideo[] = "QualityLevels(200000)/Fragments(video=";
constexpr char kAudio[] = "QualityLevels(40000)/Fragments(audio=";
constexpr int kRequestSeconds = 90;

std::string Fragment(const char* stream, long long time) {
  return stream + std::to_string(time) + ")";
}

// The start times of the manifest's video chunks, summed from their
// durations as a client does.
std::vector<long long> ChunkStarts(const std::string& manifest) {
  std::vector<long long> starts;
  long long time = 0;
  const size_t audio = manifest.find("Type=\"audio\"");
  for (size_t at = manifest.find("<c "); at < audio; at = manifest.find("<c ", at + 1)) {
    starts.push_back(time);
    time += std::stoll(orvotest::Attribute(manifest, "d", at));
  }
  return starts;
}

std::vector<long long> FragmentTimes(const std::string& dir, const std::string& type) {
  std::vector<long long> times;
  std::error_code failure;
  const std::string marker = "Fragments(" + type + "=";
  for (const fs::directory_entry& entry : fs::directory_iterator(dir, failure)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(marker, 0) == 0) times.push_back(std::stoll(name.substr(marker.size())));
  }
  std::sort(times.begin(), times.end());
  return times;
}

// The pictures of a video fragment, decoded in order with nothing but the
// manifest's parameter sets; none when they do not decode.
std::vector<orvotest::Picture> DecodePictures(const std::string& privateData,
                                              const orvotest::Mp4Fragment& fragment,
                                              const std::string& scratch) {
  std::ofstream(scratch, std::ios::binary) << privateData << fragment.AnnexB();
  orvotest::ProbedMedia media;
  std::vector<orvotest::Picture> pictures;
  if (!orvotest::DecodeMedia(scratch, &media, "h264", nullptr, &pictures).empty()) return {};
  return pictures;
}

// The luma at column `x` and row `y` of a picture.
int Luma(const orvotest::Picture& picture, int x, int y) {
  return picture.frame->data[0][y * picture.frame->linesize[0] + x];
}

class SmoothPlayback : public orvotest::MachineRootTest {
 protected:
  void SetUp() override {
    MachineRootTest::SetUp();
    ASSERT_TRUE(orvotest::BecomeSubreaper());
  }
  void TearDown() override {
    // Every monitor and transcoder of the test has ended by now.
    EXPECT_TRUE(orvotest::ChildrenEnded(10));
    EXPECT_TRUE(orvotest::RegistryPids().empty());
    MachineRootTest::TearDown();
  }

  // Creates and opens the session in a process of its own.
  void Open(orvotest::Media media, const std::string& id) {
    ASSERT_EQ(orvotest::CreateSession(media, "SS", "smooth.json", kProfile, id), id);
    Json::Value params;
    params["url"] = "/api/stream";
    params["format"] = "ss";
    EXPECT_EQ(orvotest::RunInChild([&] { return SmoothStream(id).Init(params, {}, "", "") ? 0 : 1; }),
              0);
  }

  // One request: Transcoding, then ReadFragment unless `read` is false.
  // "ok <path>" or "failed".
  std::string Request(const std::string& id, const std::string& fragment, bool read = true) {
    const std::string chatter = Root().At("/transcoders.log");
    return orvotest::TextFromChild(
        [&] {
          orvotest::SendOutputTo(chatter);
          SmoothStream stream(id);
          if (!stream.Transcoding(fragment)) return std::string("failed");
          return read ? "ok " + stream.ReadFragment(fragment) : "ok";
        },
        kRequestSeconds);
  }

  std::string Served(const std::string& id, const std::string& fragment) {
    return "ok " + SessionPath("SS", id, "smooth/" + fragment);
  }

  bool Close(const std::string& id) {
    return orvotest::RunInChild([&] { return SmoothStream(id).Close() ? 0 : 1; }) == 0;
  }

  // The recording stand-in as the transcoder, lingering `lingerMs` once it
  // has recorded its start in Root()/record; its path.
  std::string UseStandIn(int lingerMs, bool deaf = false) {
    const std::string program = Root().At(librh::machine::kPackageFFmpeg);
    fs::create_directories(fs::path(program).parent_path());
    fs::create_symlink(orvotest::StandInProgram(), program);
    orvotest::ArmStandIn(Root().At("/record"), lingerMs, deaf);
    return program;
  }

  bool RunEnds(const std::string& id) {
    return orvotest::WaitUntil([&] { return !SmoothStream(id).IsFFmpegRun(); },
                               kRequestSeconds * 1000);
  }
};

// A phone clip held upright (its rotation a quarter turn) in the predicted
// landscape frame: the picture fitted between bars, never stretched; every
// fragment carrying the time the manifest gives it; and every picture shown
// at its own time within a frame, after a seek and from the start.
TEST_F(SmoothPlayback, RotatedClipKeepsItsShapeAndEveryPictureItsTime) {
  orvotest::InstallLaunchers(Root());
  Open(orvotest::Media::kRotatedClockMp4, "phone");
  const std::string fragments = SessionPath("SS", "phone", "smooth/");
  const std::string manifest = toolkit::ReadWholeFile(SmoothStream("phone").GetMainfest());
  const std::string privateData = orvotest::BytesFromHex(orvotest::Attribute(manifest, "CodecPrivateData"));
  // The frame the 16:9 class predicts for the clip's stored picture.
  const int width = std::stoi(orvotest::Attribute(manifest, "MaxWidth"));
  const int height = std::stoi(orvotest::Attribute(manifest, "MaxHeight"));
  ASSERT_EQ(width, 430);
  ASSERT_EQ(height, 240);
  // The clip stores 320x180 and is shown upright, 180 wide and 320 high.
  constexpr double kShownAspect = 180.0 / 320;
  const std::vector<long long> chunks = ChunkStarts(manifest);
  ASSERT_EQ(chunks.size(), 12u);

  // First a chunk less than 50 s in, as a player resuming there asks for
  // it before anything has started; then back to the start.
  for (const long long start : {chunks[9], chunks.front()}) {
    SCOPED_TRACE("run from " + std::to_string(start));
    ASSERT_EQ(Request("phone", Fragment(kVideo, start)), Served("phone", Fragment(kVideo, start)));
    ASSERT_TRUE(RunEnds("phone"));
    const std::vector<long long> produced(std::find(chunks.begin(), chunks.end(), start),
                                          chunks.end());
    EXPECT_EQ(FragmentTimes(fragments + "QualityLevels(200000)", "video"), produced);
    EXPECT_EQ(FragmentTimes(fragments + "QualityLevels(40000)", "audio"), produced);
    for (const long long time : produced) {
      SCOPED_TRACE("chunk at " + std::to_string(time));
      EXPECT_EQ(orvotest::ReadMp4Fragment(fragments + Fragment(kAudio, time)).time, time);
      const orvotest::Mp4Fragment video = orvotest::ReadMp4Fragment(fragments + Fragment(kVideo, time));
      EXPECT_EQ(video.time, time);
      const std::vector<orvotest::Picture> pictures =
          DecodePictures(privateData, video, Root().At("/picture.h264"));
      ASSERT_EQ(pictures.size(), 75u);

      // The picture's extent across the middle row and down the middle
      // column; the bars are black (luma 16), the picture never darker than 64.
      const orvotest::Picture& first = pictures.front();
      ASSERT_EQ(first.width, width);
      ASSERT_EQ(first.height, height);
      int left = width;
      int right = -1;
      for (int x = 0; x < width; ++x) {
        if (Luma(first, x, height / 2) > 40) {
          left = std::min(left, x);
          right = x;
        }
      }
      int shownHeight = 0;
      for (int y = 0; y < height; ++y) {
        shownHeight += Luma(first, width / 2, y) > 40;
      }
      EXPECT_EQ(shownHeight, height);
      EXPECT_NEAR(static_cast<double>(right - left + 1) / shownHeight, kShownAspect,
                  2.0 / shownHeight);
      EXPECT_NEAR(left, width - 1 - right, 1) << "not centred";

      // Picture n of the stream (15 a second) is at n/15 s on the clock and
      // shows the grey of its second, or of a frame's time either side.
      const auto secondOf = [](long long picture) { return (picture / 15) % 12; };
      std::string late;
      for (size_t i = 0; i < pictures.size(); ++i) {
        const long long n = time * 15 / 10000000 + static_cast<long long>(i);
        const int luma = Luma(pictures[i], width / 2, height / 2);
        const int grey = (luma - 64 + 6) / 12;
        if (grey != secondOf(n) && grey != secondOf(n + 1) && (n == 0 || grey != secondOf(n - 1))) {
          late += " " + std::to_string(n) + ":" + std::to_string(grey);
        }
      }
      EXPECT_EQ(late, "") << "pictures (n:grey) off their time n/15 s by more than a frame";
    }
  }
  EXPECT_TRUE(Close("phone"));
  EXPECT_FALSE(orvotest::Exists(SessionPath("SS", "phone")));
}

// A request killed in the middle of its restart, before its monitor has
// started, leaves "seek_time" at its position and nothing running there:
// the next request for that position restarts instead of being handed a
// fragment nobody writes.
TEST_F(SmoothPlayback, RestartAbandonedByAKilledRequestIsTakenUpByTheNext) {
  // A first run that lingers, so that the restart waits for its monitor.
  const std::string program = UseStandIn(60000);
  Open(orvotest::Media::kLongH264AacMp4, "k");
  ASSERT_EQ(Request("k", Fragment(kVideo, 0), false), "ok");
  const int lingering = orvotest::RecordedPid(SessionPath("SS", "k", "monitor.pid"));
  ASSERT_GT(lingering, 0);
  fs::remove(program);
  orvotest::InstallLaunchers(Root());

  const std::string far = Fragment(kVideo, 800000000);
  const pid_t killed = orvotest::StartChild([&] { return SmoothStream("k").Transcoding(far) ? 0 : 1; });
  ASSERT_TRUE(orvotest::WaitUntil(
      [&] { return ReadFile(SessionPath("SS", "k", "seek_time")) == "80"; }, 5000));
  ASSERT_EQ(kill(killed, SIGKILL), 0);
  orvotest::WaitForChild(killed, 5);

  ASSERT_EQ(Request("k", far), Served("k", far));
  const auto served = orvotest::ReadMp4Fragment(SessionPath("SS", "k", "smooth/" + far));
  EXPECT_TRUE(served.complete);
  EXPECT_EQ(served.time, 800000000);
  EXPECT_TRUE(Close("k"));
  EXPECT_FALSE(orvotest::Exists(SessionPath("SS", "k")));
}

// How a run ends, with a hung stand-in transcoder that would otherwise
// linger for a minute, deaf to SIGINT and SIGTERM: Close, the idle rule, a
// signal to the monitor. Whatever ends the monitor kills the transcoder and
// frees its transcoding slot.
TEST_F(SmoothPlayback, EndsByCloseIdlenessOrSignalEvenWithAHungTranscoder) {
  UseStandIn(60000, true);
  // What the monitors log, through the library's log file.
  const orvotest::LogCapture log(orvotest::LogCapture::kLogFile);

  for (const std::string ending : {"close", "idle", "signal"}) {
    Open(orvotest::Media::kH264AacMp4, ending);
    ASSERT_EQ(Request(ending, Fragment(kVideo, 0), false), "ok") << ending;
    const int monitor = orvotest::RecordedPid(SessionPath("SS", ending, "monitor.pid"));
    ASSERT_TRUE(orvotest::WaitUntil([] { return orvotest::RegistryPids().size() == 1; }, 10000))
        << ending;
    const int transcoder = orvotest::RegistryPids()[0];

    if (ending == "close") {
      // The transcoder writes straight into the volume the session links to.
      const orvotest::Recording run = orvotest::ReadRecording(Root().At("/record"), 10);
      ASSERT_GE(run.argv.size(), 4u);
      EXPECT_EQ(run.argv[1] + " " + run.argv[2] + " " + run.argv[3], "-ss 0 -i");
      EXPECT_EQ(run.argv.back(), fs::read_symlink(SessionPath("SS", ending)).string() + "/smooth");
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
    // A signal leaves the session (and its fragments) for Close.
    EXPECT_EQ(orvotest::Exists(SessionPath("SS", ending)), ending == "signal") << ending;
    if (ending == "idle") {
      EXPECT_TRUE(log.Contains(" time out for access [900 seconds]")) << log.Dump();
    }
  }
}

}  // namespace
}  // namespace LibOrvoVTE
