// Faults under real playback: processes killed with SIGKILL, the session or
// the registry destroyed under a running stream, a
// transcoder that dies at once, a burst of seeks. After each: nothing left
// running once the stream is closed, the registry valid and holding only
// live pids, and a later stream plays.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <set>
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
#include "tests/support/test_media.h"
#include "vte/http_live_stream.h"
#include "vte/http_stream.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::HostileRow;

// The test clips have 10 pictures a second.
constexpr long kFramesPerSecond = 10;

class FaultTest : public orvotest::PlaybackTest {
 protected:
  // Whether segment `number` at `path` holds all the pictures of its
  // `length` seconds, or of what is left of a clip of `clip` seconds.
  static bool WholeSegment(const std::string& path, int number, int length, int clip = 100) {
    long frames = 0;
    const int seconds = std::min(length, clip - number * length);
    return orvotest::CompleteSegment(path, nullptr, &frames) &&
           frames >= seconds * kFramesPerSecond - 1;
  }

  // The segment files of HLS session `id` cut short (`length`-second
  // segments of a 100-second clip).
  static std::string CutSegments(const std::string& id, int length = 5) {
    std::string cut;
    std::error_code error;
    for (const auto& entry :
         fs::directory_iterator(fs::read_symlink(orvotest::SessionPath("HLS", id)), error)) {
      const std::string name = entry.path().filename().string();
      int number = 0;
      if (sscanf(name.c_str(), "slice-%d.ts", &number) != 1) continue;
      if (!WholeSegment(entry.path().string(), number, length)) cut += name + "; ";
    }
    return cut;
  }

  // The common ending, once the stream is closed: nothing of it may remain
  // and a new stream must play. Records the row when all of the case held.
  void Record(bool closed, const std::string& fault, const std::string& seen) {
    EXPECT_TRUE(closed) << fault;
    EXPECT_EQ(Leftovers(), "") << fault;
    EXPECT_TRUE(LaterStreamWorks("later")) << fault;
    EXPECT_EQ(Leftovers(), "") << fault;
    if (!HasFailure()) {
      HostileRow("fault", fault, seen + "; after close nothing left, registry valid, next stream plays");
    }
  }
  void CloseAndRecord(const std::string& id, const std::string& fault, const std::string& seen) {
    Record(Close(id), fault, seen);
  }

  // A transcode session with its first segment served.
  void Start(const std::string& id) {
    ASSERT_EQ(Open(id, "paced"), "ok");
    ASSERT_TRUE(orvotest::CompleteSegment(Segment(id, 0)));
  }
};

TEST_F(FaultTest, MonitorKilled) {
  // Stands for the web request's client connection: every request process
  // inherits it.
  Root().WriteFile("/connection", "");
  const std::string connection = Root().At("/connection");
  const int client = open(connection.c_str(), O_RDONLY);
  ASSERT_GE(client, 0);
  // The request runs as the web server's user, with root saved for the
  // library's own scopes: the transcoder's raise to root must not cost it
  // its tie to the monitor.
  fs::permissions(Root().Path(), fs::perms::all);
  ASSERT_EQ(Open("s", "paced"), "ok");
  const std::string first = FinishRequest(StartRequest([&] {
    if (!orvotest::BecomeWebServerUser()) return std::string("<setres>");
    HttpLiveStream stream("s");
    return stream.Transcoding("0") ? stream.ReadFragment("0") : std::string();
  }));
  ASSERT_TRUE(orvotest::CompleteSegment(first)) << first;
  const int monitor = MonitorPid("s");
  ASSERT_GT(monitor, 0);
  const std::vector<int> transcoders = orvotest::RegistryPids();
  ASSERT_EQ(transcoders.size(), 1u);
  // The monitor outlived its request holding nothing of it.
  for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(monitor) + "/fd")) {
    std::error_code error;
    EXPECT_NE(fs::read_symlink(fd.path(), error), connection) << "descriptor " << fd.path();
  }
  close(client);
  ASSERT_EQ(kill(monitor, SIGKILL), 0);
  ASSERT_TRUE(orvotest::Ends(monitor));
  // Its transcoder, seconds short of the end of the clip, goes with it
  // rather than running on unsupervised, closing the segment it was
  // writing cut short.
  EXPECT_TRUE(orvotest::Ends(transcoders[0], 3000));
  int last = 0;
  char name[32];
  while (snprintf(name, sizeof(name), "slice-%05d.ts", last + 1) > 0 && fs::exists(File("s", name))) {
    ++last;
  }
  // The next request finds no monitor, clears the cut segment away and
  // starts a new run: what it serves is whole.
  const std::string cut = Segment("s", last);
  EXPECT_TRUE(WholeSegment(cut, last, 5)) << "segment " << last << ": " << cut;
  EXPECT_TRUE(orvotest::CompleteSegment(Segment("s", 14)));
  // The new run writes on to the end of the clip; what it leaves is whole.
  EXPECT_TRUE(orvotest::Ends(MonitorPid("s"), 30000));
  EXPECT_EQ(CutSegments("s"), "");
  CloseAndRecord("s", "`kill -9` of the monitor (its request ran as nobody, root saved)",
                 "its transcoder ends with it, leaving segment " + std::to_string(last) +
                     " cut short; the next request for it clears it and is served the whole "
                     "segment, a far one too");
}

TEST_F(FaultTest, TranscoderKilled) {
  Start("s");
  const int monitor = MonitorPid("s");
  const std::vector<int> transcoders = orvotest::RegistryPids();
  ASSERT_EQ(transcoders.size(), 1u);
  ASSERT_EQ(kill(transcoders[0], SIGKILL), 0);
  // The monitor sees its run end, unregisters it, clears what it cut short.
  EXPECT_TRUE(orvotest::Ends(monitor, 10000));
  EXPECT_FALSE(orvotest::Registered(transcoders[0]));
  EXPECT_FALSE(orvotest::Exists(File("s", "monitor.pid")));
  EXPECT_EQ(CutSegments("s"), "");
  EXPECT_TRUE(orvotest::CompleteSegment(Segment("s", 14)));
  CloseAndRecord("s", "`kill -9` of the transcoder",
                 "its monitor unregisters it and clears the segment it cut short; a later request "
                 "is served");
}

// A progressive request killed while it reads: its transcoder, writing into
// a pipe nobody can read any more, ends.
TEST_F(FaultTest, RequestKilledInTheMiddleOfARead) {
  const std::string ffmpeg = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
  const pid_t reader = orvotest::StartChild([&] {
    if (orvotest::CreateSession(orvotest::Media::kLongH264Mp3Mkv, "HTTP", "http.json",
                                "http_320x240_x264_vb256_mp3_ab64", "p") != "p") {
      return 1;
    }
    HttpStream stream("p");
    if (!stream.Init("") || !stream.Transcoding(ffmpeg, 0)) return 2;
    // A slow client: the transcoder waits on the pipe between its reads.
    char buffer[16384];
    while (stream.Read(buffer, sizeof(buffer)) > 0) usleep(100 * 1000);
    return 3;
  });
  const int transcoder = orvotest::RecordedPid(orvotest::SessionPath("HTTP", "p", "monitor.pid"));
  ASSERT_GT(transcoder, 0);
  ASSERT_TRUE(orvotest::WaitUntil([&] { return orvotest::Registered(transcoder); }, 10000));
  usleep(500 * 1000);
  ASSERT_TRUE(OLIBCProcAlive(transcoder)) << "the run ended before the reader was killed";
  ASSERT_EQ(kill(reader, SIGKILL), 0);
  orvotest::WaitForChild(reader, 5);
  EXPECT_TRUE(orvotest::Ends(transcoder, 5000)) << "the transcoder outlives its reader";
  const bool closed = orvotest::RunInChild([] { return HttpStream("p").Close() ? 0 : 1; }) == 0;
  EXPECT_FALSE(orvotest::Exists(orvotest::SessionPath("HTTP", "p")));
  Record(closed, "`kill -9` of a progressive request in the middle of a Read",
         "its transcoder ends on the broken pipe");
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

// The data volume is a small tmpfs: a remux session that asks for little
// space opens on it, and its segments fill it up part-way through the clip.
TEST_F(FaultTest, DataVolumeFillsUpWhileSegmentsAreWritten) {
  const std::string volume = Root().At("/volume1");
  if (mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=1536k") != 0) {
    GTEST_SKIP() << "cannot mount a small volume here: " << strerror(errno);
  }
  struct Unmount {
    std::string path;
    ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
  } unmount{volume};

  ASSERT_EQ(Open("full", "remux", orvotest::Media::kLongH264AacMp4, 256 * 1024), "ok");
  // The 13 segments of the clip need more than the volume holds. Every
  // segment served must be whole; once the volume is full, requests are
  // refused at once instead of waiting for what cannot be written.
  int served = 0;
  int refused = 0;
  // A request that waits out its minute is cut off and fails as a cut
  // segment would.
  for (int fragment = 0; fragment < 13; ++fragment) {
    const std::string path = Segment("full", fragment, 30);
    if (path.empty()) {
      ++refused;
    } else {
      EXPECT_TRUE(WholeSegment(path, fragment, 8)) << "segment " << fragment << ": " << path;
      EXPECT_EQ(refused, 0) << "segment " << fragment << " served after a refusal";
      ++served;
    }
  }
  EXPECT_GT(served, 0);
  EXPECT_GT(refused, 0) << "the volume never filled up";
  // Once its run has ended, the monitor has cleared away what it cut short.
  EXPECT_TRUE(orvotest::Ends(MonitorPid("full"), 20000));
  EXPECT_EQ(CutSegments("full", 8), "");
  const bool closed = Close("full");
  umount2(volume.c_str(), MNT_DETACH);
  Record(closed, "the data volume fills up while segments are written",
         std::to_string(served) + " whole segments served, then " + std::to_string(refused) +
             " requests refused at once; no cut segment left");
}

// Sessions nobody will use again: an open whose probe failed, one opened and
// never streamed for a quarter of an hour, a volume directory no link
// points to, and a close racing a transcoder that goes on writing (through
// the session's link, and straight into its volume directory).
TEST_F(FaultTest, SessionsNobodyUsesAreRemoved) {
  const std::string links = Root().At(std::string(librh::machine::kTempRoot) + "/HLS");
  const std::string volume = Root().At("/volume1/@tmp/Reelhall/HLS");
  const auto names = [](const std::string& dir) {
    std::set<std::string> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(dir, error)) {
      found.insert(entry.path().filename().string());
    }
    return found;
  };
  const auto age = [](const std::string& id) {
    const time_t then = time(nullptr) - 1000;
    const struct timespec times[2] = {{then, 0}, {then, 0}};
    const std::string link = orvotest::SessionPath("HLS", id);
    utimensat(AT_FDCWD, link.c_str(), times, AT_SYMLINK_NOFOLLOW);
    utimensat(AT_FDCWD, fs::read_symlink(link).c_str(), times, 0);
  };
  const std::set<std::string> none;

  EXPECT_EQ(orvotest::TextFromChild([] {
              return orvotest::CreateSession(orvotest::Media::kNotMedia, "HLS", "hls.json",
                                             "hls_remux_h264_aac_ab128", "bad");
            }),
            "");
  EXPECT_EQ(names(links), none) << "a failed open";
  EXPECT_EQ(names(volume), none) << "a failed open";

  ASSERT_EQ(Open("idle", "remux"), "ok");
  age("idle");
  fs::create_directories(volume + "/orphan/smooth");
  EXPECT_EQ(orvotest::RunQuietly({ORVOTEST_VTETOOL, "sweep"}, 30), 0);
  EXPECT_EQ(names(links), none) << "vtetool sweep";
  EXPECT_EQ(names(volume), none) << "vtetool sweep";
  // The next open sweeps too.
  ASSERT_EQ(Open("idle", "remux"), "ok");
  age("idle");
  ASSERT_EQ(Open("w", "remux"), "ok");
  EXPECT_EQ(names(links), std::set<std::string>{"w"}) << "the next open";

  const std::string link = orvotest::SessionPath("HLS", "w");
  const std::string target = fs::read_symlink(link);
  std::vector<pid_t> writers;
  for (const std::string& dir : {link, target}) {
    writers.push_back(orvotest::StartChild([dir] {
      for (int n = 0; n < 100000; ++n) {
        const std::string file = dir + "/slice-" + std::to_string(n) + ".ts";
        const int fd = open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd < 0) return 0;
        close(fd);
      }
      return 1;
    }));
  }
  usleep(100 * 1000);
  EXPECT_TRUE(Close("w"));
  for (pid_t writer : writers) EXPECT_EQ(orvotest::WaitForChild(writer, 60), 0);
  EXPECT_EQ(names(links), none) << "a close racing writes";
  EXPECT_EQ(names(volume), none) << "a close racing writes";
  EXPECT_EQ(Leftovers(), "");
  if (!HasFailure()) {
    HostileRow("fault",
               "sessions nobody uses: an open whose probe fails, one never streamed for 15 "
               "minutes, a volume directory no link points to, a close racing a writer",
               "the failed open leaves nothing; `vtetool sweep`, and the next open, remove "
               "the idle session and the orphan; the close leaves nothing and the writers "
               "stop");
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
  // Once its monitor has seen the run end, nothing is left to wait for: a
  // request that waits out its minute is cut off and fails.
  EXPECT_EQ(Segment("s", 0, 30), "");
  EXPECT_TRUE(orvotest::RegistryPids().empty());
  CloseAndRecord("s", "a transcoder that exits at once",
                 "the request returns \"\" within seconds, not after its minute; its registry "
                 "entry goes");
}

TEST_F(FaultTest, ManyQuickSeeksInARow) {
  Start("s");
  std::vector<pid_t> requests;
  for (int fragment : {15, 3, 19, 8, 12, 17, 5, 10}) {
    requests.push_back(StartSegment("s", fragment));
    usleep(50 * 1000);
  }
  // Which request restarts last is a race among them, and that one is
  // served. The player has given up on the others; one that found its
  // segment under way when a newer seek moved the run elsewhere would wait
  // out its minute, so the rest are dropped as the web server drops a
  // request whose client has gone.
  int served = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (served == 0 && !requests.empty() && std::chrono::steady_clock::now() < deadline) {
    for (auto request = requests.begin(); request != requests.end();) {
      int status = 0;
      if (waitpid(*request, &status, WNOHANG) != *request) {
        ++request;
        continue;
      }
      served += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 1 : 0;
      request = requests.erase(request);
    }
    usleep(100 * 1000);
  }
  EXPECT_GT(served, 0) << "no seek of the burst was served";
  for (pid_t request : requests) orvotest::WaitForChild(request, 1);
  // At most one transcoder runs for the stream, whatever was superseded.
  EXPECT_LE(orvotest::RegistryPids().size(), 1u);
  EXPECT_TRUE(orvotest::CompleteSegment(Segment("s", 10)));
  CloseAndRecord("s", "8 seeks within 0.4 s",
                 "the seek that restarts last is served; at most one transcoder runs");
}

}  // namespace
}  // namespace LibOrvoVTE
