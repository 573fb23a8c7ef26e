// HLS playback from end to end: sessions made by VTE_Init from generated
// media, the launchers in place of the NAS's transcoders, and every web
// request in a process of its own, as the web API runs them.
#include <signal.h>
#include <time.h>
#include <unistd.h>
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
  std::string Dir() const { return File("s", ""); }
  std::string Text(const std::string& name) const { return ReadFile(File("s", name)); }
  std::string Slice(int fragment) const {
    char name[32];
    snprintf(name, sizeof(name), "slice-%05d.ts", fragment);
    return File("s", name);
  }
  int Monitor() const { return MonitorPid("s"); }

  // The first video timestamp of a served segment, after checking that it
  // is a whole MPEG-TS with picture and sound; -1 when it is not.
  double VideoStart(int fragment) const {
    double start = -1;
    EXPECT_TRUE(orvotest::CompleteSegment(Slice(fragment), &start)) << fragment;
    return start;
  }

  // Ends the stream as the web API does; nothing of it may be left.
  void CloseAndCheck() {
    const std::string target = fs::read_symlink(Dir()).string();
    EXPECT_TRUE(Close("s"));
    EXPECT_EQ(Leftovers(6), "");
    EXPECT_FALSE(orvotest::Exists(Dir()));
    EXPECT_FALSE(fs::exists(target)) << target;
  }
};

TEST_F(HlsPlaybackTest, SegmentsInOrderAFarSeekThenASignalAndIdleness) {
  // At the pace of playback, so that the run after the seek is still going
  // when the signal comes.
  ASSERT_EQ(Open("s", "slow"), "ok");
  EXPECT_TRUE(fs::is_symlink(Dir()));
  // 100 seconds in twenty segments of 5.
  const std::string playlist = Text("s.m3u8");
  const std::string last =
      "#EXTINF:5,\n/api/stream?format=hls&id=s&fragment_id=00019\n#EXT-X-ENDLIST\n";
  ASSERT_GT(playlist.size(), last.size());
  EXPECT_EQ(playlist.substr(playlist.size() - last.size()), last) << playlist;

  double first = 0;
  int monitor = 0;
  for (int fragment = 0; fragment < 3; ++fragment) {
    EXPECT_EQ(Segment("s", fragment), Slice(fragment));
    const double start = VideoStart(fragment);
    if (fragment == 0) {
      first = start;
      monitor = Monitor();
      EXPECT_TRUE(OLIBCProcAlive(monitor));
    }
    EXPECT_NEAR(start - first, 5.0 * fragment, 0.15) << fragment;
    EXPECT_EQ(Monitor(), monitor) << fragment;
    EXPECT_EQ(Text("seek_time"), "0") << fragment;
  }
  const std::string sequence = Text("request_sequence");

  EXPECT_EQ(Segment("s", 16), Slice(16));
  EXPECT_EQ(Text("seek_time"), "16");
  EXPECT_GT(Text("request_sequence"), sequence);
  const int seeker = Monitor();
  EXPECT_NE(seeker, monitor);
  EXPECT_FALSE(OLIBCProcAlive(monitor));
  EXPECT_TRUE(OLIBCProcAlive(seeker));
  EXPECT_FALSE(fs::exists(Slice(0))) << "the previous run's segments stay";
  EXPECT_NEAR(VideoStart(16) - first, 80.0, 0.15);

  // Inside the new run's first segments: waited for, not restarted. The
  // zero-padded id is the playlist's own spelling.
  const std::string padded = FinishRequest(StartRequest([] {
    HttpLiveStream stream("s");
    return stream.Transcoding("00018") ? stream.ReadFragment("00018") : "<Transcoding failed>";
  }));
  EXPECT_EQ(padded, Slice(18));
  EXPECT_EQ(Text("seek_time"), "16");
  EXPECT_NEAR(VideoStart(18) - first, 90.0, 0.15);

  // A signal ends the monitor and its transcoder and keeps the session.
  const std::vector<toolkit::ProcessEntry> transcoders = toolkit::ChildrenOf(seeker);
  ASSERT_EQ(transcoders.size(), 1U);
  EXPECT_TRUE(orvotest::Registered(transcoders[0].pid));
  ASSERT_EQ(kill(seeker, SIGTERM), 0);
  EXPECT_TRUE(orvotest::ChildrenEnded(4)) << "monitor or transcoder still running";
  EXPECT_FALSE(orvotest::Registered(transcoders[0].pid));
  EXPECT_TRUE(fs::exists(File("s", "video_metadata"))) << "a signal alone keeps the session";

  // Nobody asked for data for 900 seconds: the monitor gives the stream up.
  EXPECT_EQ(Segment("s", 10), Slice(10));
  const std::string target = fs::read_symlink(Dir()).string();
  const std::string access = File("s", "access_status");
  std::ofstream(access).put('x');
  const time_t then = time(nullptr) - 900;
  const struct utimbuf times = {then, then};
  ASSERT_EQ(utime(access.c_str(), &times), 0);
  EXPECT_TRUE(orvotest::ChildrenEnded(6)) << "monitor or transcoder still running";
  EXPECT_FALSE(orvotest::Exists(Dir()));
  EXPECT_FALSE(fs::exists(target));
  EXPECT_TRUE(orvotest::RegistryPids().empty());
}

TEST_F(HlsPlaybackTest, RemuxedMp4RestartsOnAJumpOfMoreThanSevenSegments) {
  ASSERT_EQ(Open("s", "remux"), "ok");
  EXPECT_EQ(Segment("s", 0), Slice(0));
  // The request that started the run is no jump to remember.
  EXPECT_FALSE(fs::exists(File("s", "request_fragment_id")));
  const double first = VideoStart(0);
  EXPECT_EQ(Segment("s", 1), Slice(1));
  EXPECT_NEAR(VideoStart(1) - first, 8.0, 0.15);

  EXPECT_EQ(Segment("s", 9), Slice(9));
  EXPECT_EQ(Text("seek_time"), "9");
  EXPECT_NEAR(VideoStart(9) - first, 72.0, 0.15);
  EXPECT_EQ(Segment("s", 11), Slice(11));
  EXPECT_EQ(Text("seek_time"), "9");
  EXPECT_EQ(Text("request_fragment_id"), "11");

  CloseAndCheck();
}

}  // namespace
}  // namespace LibOrvoVTE
