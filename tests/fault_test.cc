// Faults under real playback: processes killed with SIGKILL, the session or
// the registry destroyed under a running stream, a
// transcoder that dies at once, a burst of seeks. After each: nothing left
// running once the stream is closed, the registry valid and holding only
// live pids, and a later stream plays.
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/hostile_table.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "vte/http_live_stream.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::HostileRow;

class FaultTest : public orvotest::PlaybackTest {
 protected:
  // The common ending: close, then nothing of the stream may remain and a
  // new stream must play. Records the row when all of it held.
  void CloseAndRecord(const std::string& id, const std::string& fault, const std::string& seen) {
    Close(id);
    const std::string left = Leftovers();
    EXPECT_EQ(left, "") << fault;
    const bool later = LaterStreamWorks("later");
    EXPECT_TRUE(later) << fault;
    EXPECT_EQ(Leftovers(), "") << fault;
    if (left.empty() && later && !HasFailure()) {
      HostileRow("fault", fault, seen + "; after close nothing left, registry valid, next stream plays");
    }
  }

  // A transcode session with its first segment served.
  void Start(const std::string& id) {
    ASSERT_EQ(Open(id, "paced"), "ok");
    ASSERT_TRUE(orvotest::CompleteSegment(Segment(id, 0)));
  }
};

TEST_F(FaultTest, MonitorKilled) {
  Start("s");
  const int monitor = MonitorPid("s");
  ASSERT_GT(monitor, 0);
  ASSERT_EQ(kill(monitor, SIGKILL), 0);
  ASSERT_TRUE(orvotest::Ends(monitor));
  // The next request finds no monitor and starts a new run.
  EXPECT_TRUE(orvotest::CompleteSegment(Segment("s", 1)));
  EXPECT_TRUE(orvotest::CompleteSegment(Segment("s", 14)));
  CloseAndRecord("s", "`kill -9` of the monitor", "later requests, near and far, are served");
}

TEST_F(FaultTest, RequestKilledInTheMiddleOfAWait) {
  Start("s");
  // Far ahead: the request restarts the run and waits for the segment.
  const pid_t request = StartSegment("s", 18);
  ASSERT_GT(request, 0);
  usleep(300 * 1000);
  ASSERT_EQ(kill(request, SIGKILL), 0);
  orvotest::WaitForChild(request, 5);
  EXPECT_TRUE(orvotest::CompleteSegment(Segment("s", 18)));
  CloseAndRecord("s", "`kill -9` of a request waiting in ReadFragment",
                 "the run it started goes on; the same segment is served to the next request");
}

// The data volume is a 512 KiB tmpfs: a remux session that asks for little
// space opens on it, and its segments fill it up part-way through.
TEST_F(FaultTest, DataVolumeFillsUpWhileSegmentsAreWritten) {
  const std::string volume = Root().At("/volume1");
  if (mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=512k") != 0) {
    GTEST_SKIP() << "cannot mount a small volume here: " << strerror(errno);
  }
  struct Unmount {
    std::string path;
    ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
  } unmount{volume};

  const std::string source = orvotest::TestMedia(orvotest::Media::kLongH264AacMp4);
  Root().WriteFile("/full-profiles.json",
                   R"({"remux": "-vcodec copy -bsf:v h264_mp4toannexb -acodec libfdk_aac -ab 64k"})");
  const std::string profiles = Root().At("/full-profiles.json");
  const std::string opened = orvotest::TextFromChild([&] {
    Json::Value options(Json::objectValue);
    options["stream_id"] = "full";
    if (VTEStream::VTE_Init(source, "HLS", options, profiles, "remux", "", 256 * 1024) != "full") {
      return std::string("VTE_Init refused");
    }
    HttpLiveStream stream("full");
    Json::Value params;
    params["url"] = "/api/stream";
    params["format"] = "hls";
    return stream.Init(params, Json::Value(), "", "") ? std::string("ok") : stream.GetErrorString();
  });
  ASSERT_EQ(opened, "ok");
  // Somewhere in the 100-second clip the volume is full. The transcoder's
  // writes then fail while it goes on naming segments, so later segments are
  // served empty or cut short: nothing tells a short segment from a whole one
  // once it exists. What must hold: the first is whole, no request hangs.
  std::vector<std::string> served;
  for (int fragment = 0; fragment < 13; ++fragment) {
    const std::string path = Segment("full", fragment, 80);
    if (path.empty() || path[0] == '<') break;
    served.push_back(path);
  }
  ASSERT_FALSE(served.empty());
  EXPECT_TRUE(orvotest::CompleteSegment(served[0]));
  std::error_code error;
  size_t shortOnes = 0;
  for (const std::string& path : served) {
    if (fs::file_size(path, error) < 1024 || error) ++shortOnes;
  }
  EXPECT_GT(shortOnes, 0u) << "the 512 KiB volume never filled up";
  const bool closed = Close("full");
  EXPECT_TRUE(closed);
  const std::string left = Leftovers();
  EXPECT_EQ(left, "");
  umount2(volume.c_str(), MNT_DETACH);
  EXPECT_TRUE(LaterStreamWorks("later"));
  if (!HasFailure()) {
    HostileRow("fault", "the data volume fills up while segments are written",
               std::to_string(served.size()) + " requests answered at once, " +
                   std::to_string(shortOnes) +
                   " of them with segments left empty by the full volume; after close nothing "
                   "left, registry valid, next stream plays");
  }
}

TEST_F(FaultTest, SessionDirectoryDeletedUnderARunningMonitor) {
  Start("s");
  const int monitor = MonitorPid("s");
  const std::string session = orvotest::SessionPath("HLS", "s");
  const fs::path target = fs::read_symlink(session);
  fs::remove_all(target);
  fs::remove(session);
  // Requests find no session to serve from.
  EXPECT_EQ(Segment("s", 1, 70), "");
  EXPECT_TRUE(orvotest::Ends(monitor, 20000)) << "the monitor outlives its session";
  CloseAndRecord("s", "session directory deleted under a running monitor",
                 "requests are refused; the monitor and its transcoder end");
}

TEST_F(FaultTest, RegistryCorruptedBetweenTwoRequests) {
  Start("s");
  for (const std::string garbage : {"{\"PID\":", "\x00\xff\x01 not json", "[{\"PID\":\"x\"}, 7]"}) {
    Root().WriteFile(librh::machine::kLoadRegistry, garbage);
    EXPECT_TRUE(orvotest::CompleteSegment(Segment("s", 1))) << orvotest::Printable(garbage);
  }
  CloseAndRecord("s", "registry file overwritten with broken JSON between two requests",
                 "the next request is served and rewrites a valid registry");
}

TEST_F(FaultTest, TranscoderThatExitsAtOnce) {
  ASSERT_EQ(Open("s", "broken"), "ok");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Segment("s", 0, 80), "");
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::steady_clock::now() - start)
                           .count();
  EXPECT_TRUE(orvotest::RegistryPids().empty());
  CloseAndRecord("s", "a transcoder that exits at once",
                 "the request returns \"\" after " + std::string(seconds < 10 ? "< 10 s" : "its wait") +
                     "; its registry entry goes");
}

TEST_F(FaultTest, ManyQuickSeeksInARow) {
  Start("s");
  std::vector<pid_t> requests;
  for (int fragment : {15, 3, 19, 8, 12, 17, 5, 10}) {
    requests.push_back(StartSegment("s", fragment));
    usleep(50 * 1000);
  }
  for (pid_t request : requests) orvotest::WaitForChild(request, 90);
  // At most one transcoder runs for the stream, whatever was superseded.
  EXPECT_LE(orvotest::RegistryPids().size(), 1u);
  EXPECT_TRUE(orvotest::CompleteSegment(Segment("s", 10)));
  CloseAndRecord("s", "8 seeks within 0.4 s", "at most one transcoder runs; the last seek is served");
}

}  // namespace
}  // namespace LibOrvoVTE
