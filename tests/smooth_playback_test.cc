// Smooth Streaming from end to end: sessions made by VTE_Init from generated
// media, every web request in a process of its own as the web API runs
// them, and the detached monitors and transcoders accounted for.
#include <signal.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/mp4_fragment.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "toolkit/files.h"
#include "vte/smooth_stream.h"
#include "vte/utils/recorded_process.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::SessionPath;

constexpr char kProfile[] = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";
constexpr char kVideo[] = "QualityLevels(200000)/Fragments(video=";
constexpr char kAudio[] = "QualityLevels(40000)/Fragments(audio=";
// One frame of the profile's 15 fps, in 100 ns.
constexpr long long kFrame = 10000000 / 15;
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
    EXPECT_EQ(orvotest::RunInChild([&] {
                return SmoothStream(id).Init(params, Json::Value(), "", "") ? 0 : 1;
              }),
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

  bool RunEnds(const std::string& id) {
    return orvotest::WaitUntil([&] { return !SmoothStream(id).IsFFmpegRun(); },
                               kRequestSeconds * 1000);
  }
};

// The launcher's real fragments against the manifest the client was given,
// and restarts at the distances that make them.
TEST_F(SmoothPlayback, ServesWhatTheManifestNamesAndRestartsOnSeeks) {
  orvotest::InstallLaunchers(Root());
  Open(orvotest::Media::kLongLowResMp4, "play");
  const std::string fragments = SessionPath("SS", "play", "smooth/");

  // The first request starts a run at 0 and is served complete.
  ASSERT_EQ(Request("play", Fragment(kVideo, 0)), Served("play", Fragment(kVideo, 0)));
  EXPECT_EQ(ReadFile(SessionPath("SS", "play", "seek_time")), "0");
  const auto first = orvotest::ReadMp4Fragment(fragments + Fragment(kVideo, 0));
  EXPECT_TRUE(first.complete);
  EXPECT_NEAR(first.time, 0, kFrame);
  ASSERT_TRUE(RunEnds("play"));
  EXPECT_TRUE(orvotest::RegistryPids().empty());

  // The manifest's chunks (the launcher's own test holds its fragments to
  // exactly these names).
  const std::string manifest = toolkit::ReadWholeFile(SmoothStream("play").GetMainfest());
  const std::vector<long long> chunks = ChunkStarts(manifest);
  ASSERT_EQ(chunks.size(), 26u);  // 130 s

  // As if the run were still going and had reached 60 s.
  for (long long time : chunks) {
    if (time <= 600000000) continue;
    fs::remove(fragments + Fragment(kVideo, time));
    fs::remove(fragments + Fragment(kAudio, time));
  }
  const int firstMonitor = orvotest::StartChild([] {
    for (;;) pause();
    return 0;
  });
  ASSERT_TRUE(RecordProcess(SessionPath("SS", "play", "monitor.pid"), firstMonitor));
  // Within 50 s of the newest fragment, and audio at any distance: no restart.
  EXPECT_EQ(Request("play", Fragment(kVideo, 1000000000), false), "ok");
  EXPECT_EQ(Request("play", Fragment(kAudio, 1200000000), false), "ok");
  EXPECT_EQ(ReadFile(SessionPath("SS", "play", "seek_time")), "0");
  EXPECT_EQ(orvotest::RecordedPid(SessionPath("SS", "play", "monitor.pid")), firstMonitor);
  EXPECT_TRUE(fs::exists(fragments + Fragment(kVideo, 600000000)));

  // 120 s is beyond: a new run starts there and serves it under its name.
  ASSERT_EQ(Request("play", Fragment(kVideo, 1200000000)),
            Served("play", Fragment(kVideo, 1200000000)));
  EXPECT_EQ(ReadFile(SessionPath("SS", "play", "seek_time")), "120");
  EXPECT_FALSE(fs::exists(fragments + Fragment(kVideo, 0)));
  const auto far = orvotest::ReadMp4Fragment(fragments + Fragment(kVideo, 1200000000));
  EXPECT_TRUE(far.complete);
  EXPECT_NEAR(far.time, 1200000000, kFrame);
  EXPECT_TRUE(orvotest::Ends(firstMonitor));

  // Before the run's start: restarts there.
  EXPECT_EQ(Request("play", Fragment(kVideo, 500000000), false), "ok");
  EXPECT_EQ(ReadFile(SessionPath("SS", "play", "seek_time")), "50");

  EXPECT_EQ(orvotest::RunInChild([] { return SmoothStream("play").Close() ? 0 : 1; }), 0);
  EXPECT_FALSE(orvotest::Exists(SessionPath("SS", "play")));
}

// A request killed in the middle of its restart, before its monitor has
// started, leaves "seek_time" at its position and nothing running there:
// the next request for that position restarts instead of being handed a
// fragment nobody writes.
TEST_F(SmoothPlayback, RestartAbandonedByAKilledRequestIsTakenUpByTheNext) {
  // A first run that lingers, so that the restart waits for its monitor.
  const std::string program = Root().At(librh::machine::kPackageFFmpeg);
  fs::create_directories(fs::path(program).parent_path());
  fs::create_symlink(orvotest::StandInProgram(), program);
  orvotest::ArmStandIn(Root().At("/record"), 60000);
  Open(orvotest::Media::kLongLowResMp4, "k");
  ASSERT_EQ(Request("k", Fragment(kVideo, 0), false), "ok");
  const int lingering = orvotest::RecordedPid(SessionPath("SS", "k", "monitor.pid"));
  ASSERT_GT(lingering, 0);
  fs::remove(program);
  orvotest::InstallLaunchers(Root());

  const std::string far = Fragment(kVideo, 1200000000);
  const pid_t killed = orvotest::StartChild([&] { return SmoothStream("k").Transcoding(far) ? 0 : 1; });
  ASSERT_TRUE(orvotest::WaitUntil(
      [&] { return ReadFile(SessionPath("SS", "k", "seek_time")) == "120"; }, 5000));
  ASSERT_EQ(kill(killed, SIGKILL), 0);
  orvotest::WaitForChild(killed, 5);

  ASSERT_EQ(Request("k", far), Served("k", far));
  const auto served = orvotest::ReadMp4Fragment(SessionPath("SS", "k", "smooth/" + far));
  EXPECT_TRUE(served.complete);
  EXPECT_NEAR(served.time, 1200000000, kFrame);
  EXPECT_EQ(orvotest::RunInChild([] { return SmoothStream("k").Close() ? 0 : 1; }), 0);
  EXPECT_FALSE(orvotest::Exists(SessionPath("SS", "k")));
}

// How a run ends, with a hung stand-in transcoder that would otherwise
// linger for a minute, deaf to SIGINT and SIGTERM: Close, the idle rule, a
// signal to the monitor. Whatever ends the monitor kills the transcoder and
// frees its transcoding slot.
TEST_F(SmoothPlayback, EndsByCloseIdlenessOrSignalEvenWithAHungTranscoder) {
  const std::string program = Root().At(librh::machine::kPackageFFmpeg);
  fs::create_directories(fs::path(program).parent_path());
  fs::create_symlink(orvotest::StandInProgram(), program);
  const std::string record = Root().At("/record");
  orvotest::ArmStandIn(record, 60000, true);

  for (const std::string ending : {"close", "idle", "signal"}) {
    Open(orvotest::Media::kH264AacMp4, ending);
    ASSERT_EQ(Request(ending, Fragment(kVideo, 0), false), "ok") << ending;
    const int monitor = orvotest::RecordedPid(SessionPath("SS", ending, "monitor.pid"));
    ASSERT_TRUE(orvotest::WaitUntil([] { return orvotest::RegistryPids().size() == 1; }, 10000))
        << ending;
    const int transcoder = orvotest::RegistryPids()[0];

    if (ending == "close") {
      // The transcoder writes straight into the volume the session links to.
      const orvotest::Recording run = orvotest::ReadRecording(record, 10);
      ASSERT_GE(run.argv.size(), 4u);
      EXPECT_EQ(run.argv[1] + " " + run.argv[2] + " " + run.argv[3], "-ss 0 -i");
      EXPECT_EQ(run.argv.back(), fs::read_symlink(SessionPath("SS", ending)).string() + "/smooth");
      EXPECT_EQ(orvotest::RunInChild([&] { return SmoothStream(ending).Close() ? 0 : 1; }), 0);
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
  }
}

}  // namespace
}  // namespace LibOrvoVTE
