// HLS playback from end to end: sessions made by VTE_Init from generated
// media, the launchers in place of the NAS's transcoders, and every web
// request in a process of its own, as the web API runs them.
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/olibc.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "vte/http_live_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::ChildrenOf;

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

TEST_F(HlsPlaybackTest, SegmentsInOrderThenAFarSeekRestartsTheRunThere) {
  ASSERT_EQ(Open("s", "paced"), "ok");
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

  CloseAndCheck();
}

TEST_F(HlsPlaybackTest, OfTwoFarRequestsAtOnceTheNewerKeepsItsMonitor) {
  ASSERT_EQ(Open("s", "paced"), "ok");

  // Each outside the other's first five segments.
  const std::string fragments[2] = {"6", "16"};
  Request requests[2];
  for (int i = 0; i < 2; ++i) {
    const std::string fragment = fragments[i];
    requests[i] = StartRequest([fragment] {
      HttpLiveStream stream("s");
      const bool started = stream.Transcoding(fragment);
      const auto begin = std::chrono::steady_clock::now();
      const std::string path = started ? stream.ReadFragment(fragment) : "<failed>";
      return path + "|" +
             std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - begin)
                                .count());
    });
  }
  std::string results[2];
  for (int i = 0; i < 2; ++i) results[i] = FinishRequest(requests[i]);

  int served = 0;
  int winner = -1;
  for (int i = 0; i < 2; ++i) {
    const size_t bar = results[i].find('|');
    ASSERT_NE(bar, std::string::npos) << results[i];
    if (bar > 0) {
      ++served;
      winner = atoi(fragments[i].c_str());
      EXPECT_EQ(results[i].substr(0, bar), Slice(winner));
    } else {
      // Superseded: one round of waiting, then it gives up.
      EXPECT_LT(atol(results[i].c_str() + bar + 1), 2500) << fragments[i];
    }
  }
  ASSERT_EQ(served, 1) << results[0] << " " << results[1];

  // Only the newer request's monitor runs (its transcoder is its child, not
  // this process's); the other never started or is gone.
  const int monitor = Monitor();
  EXPECT_TRUE(orvotest::WaitUntil(
      [] {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        return ChildrenOf(getpid()).size() == 1;
      },
      5000))
      << ChildrenOf(getpid()).size() << " monitors";
  EXPECT_TRUE(OLIBCProcAlive(monitor));
  EXPECT_TRUE(fs::exists(Slice(winner + 1)));

  CloseAndCheck();
}

TEST_F(HlsPlaybackTest, MonitorEndsOnSignalAndOnIdleSessions) {
  ASSERT_EQ(Open("s", "paced"), "ok");
  EXPECT_EQ(Segment("s", 0), Slice(0));
  const int monitor = Monitor();
  const std::vector<pid_t> transcoders = ChildrenOf(monitor);
  ASSERT_EQ(transcoders.size(), 1U);
  EXPECT_TRUE(orvotest::Registered(transcoders[0]));
  ASSERT_EQ(kill(monitor, SIGTERM), 0);
  EXPECT_TRUE(orvotest::ChildrenEnded(4)) << "monitor or transcoder still running";
  EXPECT_FALSE(orvotest::Registered(transcoders[0]));
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
