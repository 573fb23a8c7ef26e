// HLS playback from end to end: sessions made by VTE_Init from generated
// media, the launchers in place of the NAS's transcoders, and every web
// request in a process of its own, as the web API runs them.
#include <signal.h>
#include <time.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/olibc.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "toolkit/process_table.h"
#include "vte/http_live_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;

// Every case plays session "s" of the 100-second clip.
class HlsPlaybackTest : public orvotest::PlaybackTest {
 protected:
  std::string Text(const std::string& name) const { return ReadFile(File("s", name)); }
  std::string Slice(int fragment) const {
    char name[32];
    snprintf(name, sizeof(name), "slice-%05d.ts", fragment);
    return File("s", name);
  }

  // Serves segment `fragment` (`id` as the request spells it) and gives its
  // first video timestamp after checking that it is a whole MPEG-TS with
  // picture and sound; -1 when it is not.
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
  for (int fragment = 1; fragment < 3; ++fragment) {
    EXPECT_NEAR(Play(fragment) - first, 5.0 * fragment, 0.15) << fragment;
    EXPECT_EQ(MonitorPid("s"), monitor) << fragment;
    EXPECT_EQ(Text("seek_time"), "0") << fragment;
  }
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

}  // namespace
}  // namespace LibOrvoVTE
