// Faults under real playback. After each: nothing left running, the
// registry valid, and a later stream plays.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/hostile_table.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "vte/http_stream.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;

class FaultTest : public orvotest::PlaybackTest, public testing::WithParamInterface<const char*> {
 protected:
  // The clip lasts 100 s at 10 pictures a second.
  static bool WholeSegment(const std::string& path, int number, int length) {
    long frames = 0;
    return orvotest::CompleteSegment(path, nullptr, &frames) &&
           frames >= std::min(length, 100 - number * length) * 10 - 1;
  }

  // A paced transcode "s"; its monitor must not keep the client connection of the first request.
  void Start() {
    ServeAsWebServerUser();
    const std::string connection = Root().At("/connection");
    // Not close-on-exec: every request process inherits it.
    const int client = open(connection.c_str(), O_RDONLY | O_CREAT, 0600);
    ASSERT_EQ(Open("s", "paced"), "ok");
    ASSERT_TRUE(orvotest::CompleteSegment(Segment("s", 0)));
    close(client);
    monitor_ = MonitorPid("s");
    ASSERT_GT(monitor_, 0);
    ASSERT_EQ(orvotest::RegistryPids().size(), 1u);
    transcoder_ = orvotest::RegistryPids()[0];
    for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(monitor_) + "/fd")) {
      std::error_code error;
      EXPECT_NE(fs::read_symlink(fd.path(), error), connection) << "the monitor holds it";
    }
  }

  void Record(bool closed, const std::string& fault, const std::string& seen) {
    EXPECT_TRUE(closed && LaterStreamWorks("later")) << fault;
    EXPECT_EQ(Leftovers(), "") << fault;
    orvotest::HostileRow("fault", fault, seen + "; then nothing left, registry valid, next plays");
  }

  int monitor_ = -1;
  int transcoder_ = -1;
};

// Then the registry is overwritten with broken JSON before each of three
// requests. A transcoder does not run on unsupervised. Once a seek is served
// the others are killed, as the web server kills a request whose client left.
TEST_P(FaultTest, StreamDisrupted) {
  const std::string what = GetParam();
  ASSERT_NO_FATAL_FAILURE(Start());
  if (what == "seeks") {
    std::vector<pid_t> requests;
    for (int fragment : {15, 3, 19, 8, 12, 17, 5, 10}) {
      requests.push_back(StartSegment("s", fragment));
      usleep(50 * 1000);
    }
    int served = 0;
    for (pid_t request : requests) {
      if (served > 0) kill(request, SIGKILL);
      served += orvotest::WaitForChild(request, 60) == 0;
    }
    EXPECT_GT(served, 0) << "no seek of the burst was served";
    EXPECT_LE(orvotest::RegistryPids().size(), 1u);
  } else {
    ASSERT_EQ(kill(what == "monitor" ? monitor_ : transcoder_, SIGKILL), 0);
    EXPECT_TRUE(orvotest::Ends(monitor_, 10000));
    EXPECT_TRUE(orvotest::Ends(transcoder_, 3000));
  }
  const char* garbage[] = {"{\"PID\":", "\x01\xff not json", "[{\"PID\":\"x\"}, 7]"};
  for (int n = 1; n < 15; ++n) {
    if (n <= 3) Root().WriteFile(librh::machine::kLoadRegistry, garbage[n - 1]);
    EXPECT_TRUE(WholeSegment(Segment("s", n), n, 5)) << n;
  }
  Record(Close("s"),
         (what == "seeks" ? "8 seeks in 0.4 s" : "`kill -9` of the " + what) + ", 3 bad registries",
         "later segments whole, the registry rewritten valid");
}

INSTANTIATE_TEST_SUITE_P(, FaultTest, testing::Values("monitor", "transcoder", "seeks"),
                         [](const auto& info) { return std::string(info.param); });

// Its transcoder, writing into a pipe nobody reads any more, ends.
TEST_F(FaultTest, ProgressiveRequestKilledInTheMiddleOfARead) {
  const pid_t reader = orvotest::StartChild([] {
    HttpStream stream(orvotest::CreateSession(orvotest::Media::kLongH264Mp3Mkv, "HTTP", "http.json",
                                              "http_320x240_x264_vb256_mp3_ab64", "p"));
    const std::string ffmpeg = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
    if (!stream.Init("") || !stream.Transcoding(ffmpeg, 0)) return 2;
    // A slow client: the transcoder waits on the pipe between its reads.
    char buffer[16384];
    while (stream.Read(buffer, sizeof(buffer)) > 0) usleep(100 * 1000);
    return 3;
  });
  const int transcoder = orvotest::RecordedPid(orvotest::SessionPath("HTTP", "p", "monitor.pid"));
  ASSERT_TRUE(orvotest::WaitUntil([&] { return orvotest::Registered(transcoder); }, 10000));
  usleep(500 * 1000);
  ASSERT_TRUE(OLIBCProcAlive(transcoder)) << "the run ended before the reader was killed";
  ASSERT_EQ(kill(reader, SIGKILL), 0);
  orvotest::WaitForChild(reader, 5);
  EXPECT_TRUE(orvotest::Ends(transcoder, 5000)) << "the transcoder outlives its reader";
  const bool closed = orvotest::RunInChild([] { return HttpStream("p").Close() ? 0 : 1; }) == 0;
  Record(closed, "`kill -9` of a progressive request in the middle of a Read",
         "its transcoder ends on the broken pipe");
}

// A remux session that asks for little space fills a small tmpfs part-way;
// a request that waited out its minute would be cut off at 30 s.
TEST_F(FaultTest, DataVolumeFillsUpWhileSegmentsAreWritten) {
  const std::string volume = Root().At("/volume1");
  if (mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=1536k") != 0) {
    GTEST_SKIP() << "cannot mount a small volume here: " << strerror(errno);
  }
  EXPECT_EQ(Open("full", "remux", orvotest::Media::kLongH264AacMp4, 256 * 1024), "ok");
  int refused = 0;
  for (int fragment = 0; fragment < 13; ++fragment) {
    const std::string path = Segment("full", fragment, 30);
    refused += path.empty();
    EXPECT_TRUE(path.empty() || (WholeSegment(path, fragment, 8) && refused == 0)) << fragment;
  }
  EXPECT_TRUE(refused > 0 && refused < 13) << refused << " of 13 refused";
  EXPECT_TRUE(orvotest::Ends(MonitorPid("full"), 20000));
  const bool closed = Close("full");
  umount2(volume.c_str(), MNT_DETACH);
  Record(closed, "the data volume fills up while segments are written",
         "whole segments served, then every request refused at once");
}

TEST_F(FaultTest, SessionsNobodyUsesAreRemoved) {
  const std::string volume = Root().At("/volume1/@tmp/Reelhall/HLS");
  const auto entries = [&] {
    std::error_code error;
    return std::distance(fs::directory_iterator(orvotest::SessionPath("HLS", ""), error), {}) +
           std::distance(fs::directory_iterator(volume, error), {});
  };
  EXPECT_EQ(Open("bad", "remux", orvotest::Media::kNotMedia), "VTE_Init gave \"\"");
  EXPECT_EQ(entries(), 0) << "a failed open";
  for (const bool byTool : {true, false}) {
    ASSERT_EQ(Open("idle", "remux"), "ok");
    const std::string link = orvotest::SessionPath("HLS", "idle");
    const struct timespec then[2] = {{time(nullptr) - 1000, 0}, {time(nullptr) - 1000, 0}};
    utimensat(AT_FDCWD, link.c_str(), then, AT_SYMLINK_NOFOLLOW);
    utimensat(AT_FDCWD, fs::read_symlink(link).c_str(), then, 0);
    fs::create_directories(volume + "/orphan/smooth");
    ASSERT_TRUE(byTool ? orvotest::RunQuietly({ORVOTEST_VTETOOL, "sweep"}, 30) == 0
                       : Open("w", "remux") == "ok");
    EXPECT_EQ(entries(), byTool ? 0 : 2) << byTool;
  }
  const bool closed = Close("w");
  EXPECT_EQ(entries(), 0) << "the close";
  Record(closed, "a failed open, a session idle for 15 minutes, an orphan volume directory",
         "the failed open leaves nothing; `vtetool sweep` and the next open remove the others");
}

// Once the run cannot go on, waiting out the minute would be cut off at 30 s.
TEST_F(FaultTest, RunThatCannotGoOnIsRefused) {
  ASSERT_NO_FATAL_FAILURE(Start());
  fs::remove_all(fs::read_symlink(File("s", "")));
  fs::remove(File("s", ""));
  EXPECT_EQ(Segment("s", 1, 70), "");
  EXPECT_TRUE(orvotest::Ends(monitor_, 20000)) << "the monitor outlives its session";
  ASSERT_EQ(Open("b", "broken"), "ok");
  EXPECT_EQ(Segment("b", 0, 30), "");
  Record(Close("s") && Close("b"), "session deleted under its monitor; a transcoder that exits",
         "requests refused within seconds; the monitor goes");
}

}  // namespace
}  // namespace LibOrvoVTE
