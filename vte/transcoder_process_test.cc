#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "vte/http_stream.h"
#include "vte/liborvovte.h"
#include "vte/transcoder_process.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::Media;
using Words = std::vector<std::string>;

class Stream : public VTEStream {
 public:
  Stream(const std::string& id, const std::string& type) : VTEStream(id, type) {}
};

constexpr char kEncode[] = "-vcodec libx264";
constexpr char kHardware[] = "-vcodec h264_smd";

// How `pid` ended: the signal that killed it, 0 for an exit, -1 when it still
// ran after `timeoutSeconds` (it is then killed and reaped).
int EndingSignal(pid_t pid, int timeoutSeconds) {
  int status = 0;
  if (orvotest::WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; },
                          timeoutSeconds * 1000)) {
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

// A `sleep` started on pid `wanted`, as the kernel hands out pids again
// once they are free: steered through ns_last_pid (root only). Other
// processes of the machine fork meanwhile and may take the pid; -1 then.
pid_t SleepOnPid(pid_t wanted) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    std::ofstream("/proc/sys/kernel/ns_last_pid") << wanted - 1;
    const pid_t pid = orvotest::StartProgram({"/bin/sleep", "30"});
    if (pid == wanted) return pid;
    if (pid > 0) EndingSignal(pid, 0);
  }
  return -1;
}


// The seek comes first, the hardware decoding path only where it works
// (not for flv sources or rotated pictures), both streams chosen explicitly
// where HLS needs them; the output pipe reaches the transcoder although it
// is close-on-exec here, and nothing else does.
TEST(ExecuteTranscodingTest, ArgumentVectorAndPipeReachTheTranscoder) {
  orvotest::PlatformFiles evansport;
  evansport.name = "evansport";
  orvotest::MachineRoot root(evansport);
  const std::string program = orvotest::StandInProgram();
  int pipeFds[2];
  ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC));
  const std::string pipe = "pipe:" + std::to_string(pipeFds[1]);
  const struct {
    std::string type;
    Media media;
    std::string profile, container;
    unsigned int rotate;
    std::string audioId, output, expected;  // the argv after "-ss 7"; "I": the input
  } rows[] = {
      {"HLS", Media::kTracksMkv, kEncode, "", 0, "2", pipe, "-copyts -i I -vcodec libx264 -map 0:0 -map 0:2 " + pipe},
      {"HLS", Media::kH264AacMp4, kHardware, "", 0, "", "out", "-prefer_smd -i I -vcodec h264_smd -map 0:0 -map 0:1 out"},
      {"HLS", Media::kH264AacMp4, kHardware, "flv", 0, "", "out", "-i I -vcodec h264_smd -map 0:0 -map 0:1 out"},
      {"HLS", Media::kH264AacMp4, kHardware, "", 90, "", "out", "-i I -vcodec h264_smd -map 0:0 -map 0:1 out"},
      {"WEBM", Media::kVideoOnlyAvi, kEncode, "", 0, "", "out", "-i I -vcodec libx264 out"},
  };
  for (const auto& row : rows) {
    Json::Value doc = orvotest::SessionDocument(row.media, row.profile);
    if (!row.container.empty()) doc["container_type"] = row.container;
    if (row.rotate != 0) doc["track_info"]["video"][0u]["rotate"] = row.rotate;
    const std::string dir = orvotest::WriteSession(row.type, "ffmpeg", doc);
    if (!row.audioId.empty()) std::ofstream(dir + "/audio_id") << row.audioId;
    int status = -1;
    const orvotest::Recording recording = orvotest::RecordStart(
        root.At("/record"),
        [&] {
          // Timestamps are copied where the expected argv says so.
          return Stream("ffmpeg", row.type)
              .ExecuteTranscoding(7, row.expected.rfind("-copyts", 0) == 0,
                                  StringExplode(row.profile, " "), row.output, program);
        },
        status);
    EXPECT_EQ(0, status) << row.expected;
    Words expected = orvotest::SplitWords(program + " -ss 7 " + row.expected);
    std::replace(expected.begin(), expected.end(), std::string("I"), orvotest::TestMedia(row.media));
    EXPECT_EQ(expected, recording.argv) << row.expected;
    std::vector<int> fds = {0, 1, 2};
    if (row.output == pipe) fds.push_back(pipeFds[1]);
    EXPECT_EQ(fds, recording.fds) << row.expected;
    fs::remove_all(dir);
  }
  close(pipeFds[0]);
  close(pipeFds[1]);
}

// A monitor outlives the request that forked it: it must not keep that
// request's client connection (here: any descriptor) open.
TEST(DetachFromCallerTest, KeepsOnlyStdioAndTheNamedDescriptor) {
  // Numbers far above the one the child's own directory listing takes.
  auto high = [](int fd) {
    const int moved = fcntl(fd, F_DUPFD, 40);
    close(fd);
    return moved;
  };
  int request[2];
  ASSERT_EQ(0, pipe(request));  // inheritable, like a CGI's connection
  int kept[2];
  ASSERT_EQ(0, pipe(kept));
  for (int* fd : {&request[0], &request[1], &kept[0], &kept[1]}) *fd = high(*fd);
  // The child cannot report through a pipe of its own: it is about to let
  // go of every descriptor. It leaves its list in a file instead.
  const std::string report = std::filesystem::temp_directory_path() /
                             ("detach-" + std::to_string(getpid()));
  ASSERT_EQ(0, orvotest::RunInChild([&] {
    transcoder::DetachFromCaller(kept[1]);
    std::string listing;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      listing += entry.path().filename().string() + " ";
    }
    std::ofstream(report) << listing;
    return 0;
  }));
  std::string open;
  std::getline(std::ifstream(report), open);
  std::filesystem::remove(report);
  for (int fd : {request[0], request[1], kept[0]}) {
    EXPECT_EQ(std::string::npos, (" " + open).find(" " + std::to_string(fd) + " ")) << fd << ": " << open;
  }
  EXPECT_NE(std::string::npos, (" " + open).find(" " + std::to_string(kept[1]) + " ")) << open;
  for (int fd : {request[0], request[1], kept[0], kept[1]}) close(fd);
}

class MonitorTest : public orvotest::MachineRootTest {
 protected:
  void SetUp() override {
    MachineRootTest::SetUp();
    session_ = orvotest::MakeSession("HLS", "m");
  }
  std::string RecordedMonitor() const { return ReadFile(session_ + "/monitor.pid"); }

  std::string session_;
};

// Two requests replacing the monitor at once (say, two seeks): both wait for
// "filelock", and whoever records second stops the first.
TEST_F(MonitorTest, RacingMonitorsLeaveExactlyOne) {
  const int lock = open((session_ + "/filelock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0660);
  ASSERT_GE(lock, 0);
  ASSERT_EQ(0, flock(lock, LOCK_EX));
  pid_t racers[2];
  for (pid_t& racer : racers) {
    racer = orvotest::StartChild([] {
      Stream stream("m", "HLS");
      if (!stream.SaveMonitorPid(getpid(), true)) return 2;
      sleep(30);
      return 0;
    });
  }
  usleep(300 * 1000);
  EXPECT_EQ("", RecordedMonitor()) << "recorded without the lock";
  flock(lock, LOCK_UN);
  close(lock);

  // Bounded by the racers' own lives.
  int loserStatus = 0;
  const pid_t loser = waitpid(-1, &loserStatus, 0);
  const pid_t winner = loser == racers[0] ? racers[1] : racers[0];
  // The loser may be gone before the winner's record is written.
  orvotest::WaitUntil([&] { return RecordedMonitor() == std::to_string(winner); }, 5000);
  EXPECT_TRUE(WIFSIGNALED(loserStatus) && WTERMSIG(loserStatus) == SIGTERM) << "both survived";
  EXPECT_EQ(std::to_string(winner), RecordedMonitor());
  EXPECT_TRUE(OLIBCProcAlive(winner));
  kill(winner, SIGKILL);
  EndingSignal(winner, 5);
}

// A monitor killed outright leaves its record behind. Once an unrelated
// process has its pid, nothing takes that process for the monitor: not a
// restart, a close (of an adaptive or an HTTP session) or a check.
TEST_F(MonitorTest, APidReusedByAnotherProcessIsNeverTakenForTheMonitor) {
  Stream stream("m", "HLS");
  pid_t reused = -1;
  for (int attempt = 0; attempt < 10 && reused < 0; ++attempt) {
    const pid_t monitor = orvotest::StartProgram({"/bin/sleep", "30"});
    ASSERT_TRUE(stream.SaveMonitorPid(monitor, false));
    usleep(50 * 1000);  // start times count in ticks of 10 ms
    kill(monitor, SIGKILL);
    ASSERT_EQ(SIGKILL, EndingSignal(monitor, 5));
    reused = SleepOnPid(monitor);
  }
  if (reused < 0 && geteuid() != 0) GTEST_SKIP() << "steering pids needs root";
  ASSERT_GT(reused, 0) << "the pid never came round again";
  const std::string pidText = RecordedMonitor();
  const std::string identity = ReadFile(session_ + "/monitor.start");
  ASSERT_EQ(std::to_string(reused), pidText);
  const struct {
    std::string name, session;
    std::function<void()> call;
  } cases[] = {
      {"check", session_, [&] { EXPECT_FALSE(stream.IsFFmpegRun()); }},
      {"restart", session_, [&] { stream.SaveMonitorPid(0, true); }},
      {"close", session_, [&] { stream.CloseStreamCommon(); }},
      {"HTTP close", Root().At("/tmp/Reelhall/HTTP/m"), [] { HttpStream("m").Close(); }},
  };
  for (const auto& c : cases) {
    // The stale record as the killed monitor left it.
    fs::create_directories(c.session);
    SaveFile(c.session + "/monitor.pid", pidText);
    SaveFile(c.session + "/monitor.start", identity);
    c.call();
    EXPECT_TRUE(OLIBCProcAlive(reused)) << c.name << " signalled the pid's new process";
  }
  EndingSignal(reused, 0);
}

}  // namespace
}  // namespace LibOrvoVTE
