#include "vte/transcoder_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>

#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "vte/http_stream.h"
#include "vte/liborvovte.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::Media;

class Stream : public VTEStream {
 public:
  Stream(const std::string& id, const std::string& type) : VTEStream(id, type) {}
};

void KillAndReap(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

// Hardware decoding only where it works (not for flv or rotated sources). The
// pipe reaches the transcoder though close-on-exec here, and nothing else.
TEST(TranscoderStartTest, ArgumentVectorAndPipeReachTheTranscoder) {
  orvotest::MachineRoot root;
  const std::string program = orvotest::StandInProgram();
  int pipeFds[2];
  ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC));
  const std::string gst =
      "vaapipostproc width=1280 @VERTICAL@ ! videoflip ! vaapih264enc ! h264parse$audioconvert ! "
      "avenc_aac$mpegtsmux";
  const std::string chain = "vaapipostproc width=1280 @VERTICAL@ ! videoflip ! vaapih264enc ! h264parse";
  const std::string queue = " ! queue max-size-time=0 max-size-buffers=0 max-size-bytes=0 ! ";
  const struct {
    const char* platform;
    std::string type;
    Media media;
    std::string profile, container, device, audioId, audioFormat;
    unsigned int rotate;
    long seek;
    bool shift;  // copied timestamps for ffmpeg
    std::string expected;
  } rows[] = {
      {"evansport", "HLS", Media::kTracksMkv, "-vcodec libx264", "", "", "2", "", 0, 7, true,
       "-ss 7 -copyts -i @IN -vcodec libx264 -map 0:0 -map 0:2 pipe:@FD"},
      {"evansport", "HLS", Media::kH264AacMp4, "-vcodec h264_smd", "", "", "", "", 0, 7, false,
       "-ss 7 -prefer_smd -i @IN -vcodec h264_smd -map 0:0 -map 0:1 pipe:@FD"},
      {"evansport", "HLS", Media::kH264AacMp4, "-vcodec h264_smd", "flv", "", "", "", 0, 7, false,
       "-ss 7 -i @IN -vcodec h264_smd -map 0:0 -map 0:1 pipe:@FD"},
      {"evansport", "HLS", Media::kH264AacMp4, "-vcodec h264_smd", "", "", "", "", 90, 7, false,
       "-ss 7 -i @IN -vcodec h264_smd -map 0:0 -map 0:1 pipe:@FD"},
      {"evansport", "WEBM", Media::kVideoOnlyAvi, "-vcodec libx264", "", "", "", "", 0, 7, false,
       "-ss 7 -i @IN -vcodec libx264 pipe:@FD"},
      {"monaco", "HLS", Media::kH264AacMp4, gst, "asf", "chromecast", "", "aac", 0, 5, true,
       "-f -S 5 filesrc location=@IN ! asfdemux name=demux ! queue ! stvideo ! " + chain + queue +
           "mpegtsmux shift-pts=5 name=mux ! queue ! fdsink fd=@FD demux.audio_0 ! queue ! aacparse ! "
           "avdec_aac ! audioconvert ! audio/x-raw,channels=2 ! faac rate-control=ABR ! queue ! "
           "aacparse" + queue + "mux."},
      {"x86", "HLS", Media::kTracksMkv, gst, "", "", "2", "ac3_copy", 0, 0, false,
       "-f -s 0 filesrc location=@IN ! matroskademux name=demux ! queue ! avdec_h264 ! " + chain +
           queue + "mpegtsmux name=mux ! queue ! fdsink fd=@FD demux.audio_1 ! queue ! ac3parse" +
           queue + "mux."},
  };
  for (const auto& row : rows) {
    orvotest::PlatformFiles platform;
    platform.name = row.platform;
    root.Play(platform);
    Json::Value doc = orvotest::SessionDocument(row.media, row.profile);
    if (!row.container.empty()) doc["container_type"] = row.container;
    if (!row.device.empty()) doc["device"] = row.device;
    if (row.rotate != 0) doc["track_info"]["video"][0u]["rotate"] = row.rotate;
    const std::string dir = orvotest::WriteSession(row.type, "argv", doc);
    if (!row.audioId.empty()) std::ofstream(dir + "/audio_id") << row.audioId;
    if (!row.audioFormat.empty()) std::ofstream(dir + "/audio_format") << row.audioFormat;
    const std::string fd = std::to_string(pipeFds[1]);
    int status = -1;
    const orvotest::Recording recording = orvotest::RecordStart(
        root.At("/record"),
        [&] {
          Stream stream("argv", row.type);
          if (row.profile == gst) {
            return stream.ExecuteGstreamerTranscoding(row.seek, {"fdsink", "fd=" + fd}, program, row.shift);
          }
          return stream.ExecuteTranscoding(row.seek, row.shift, StringExplode(row.profile, " "), "pipe:" + fd,
                                           program);
        },
        status);
    EXPECT_EQ(0, status) << row.expected;
    const std::string expected = std::regex_replace(
        std::regex_replace(row.expected, std::regex("@IN"), orvotest::TestMedia(row.media)), std::regex("@FD"), fd);
    EXPECT_EQ(program + " " + expected, orvotest::JoinWords(recording.argv));
    EXPECT_EQ((std::vector<int>{0, 1, 2, pipeFds[1]}), recording.fds) << row.expected;
    fs::remove_all(dir);
  }
  close(pipeFds[0]);
  close(pipeFds[1]);
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
      if (!Stream("m", "HLS").SaveMonitorPid(getpid(), true)) return 2;
      sleep(30);
      return 0;
    });
  }
  usleep(300 * 1000);
  EXPECT_EQ("", RecordedMonitor()) << "recorded without the lock";
  // The racers share the lock's open file: closing it here would not free it.
  flock(lock, LOCK_UN);
  close(lock);

  int loserStatus = 0;
  const pid_t loser = waitpid(-1, &loserStatus, 0);
  const pid_t winner = loser == racers[0] ? racers[1] : racers[0];
  // The loser may be gone before the winner's record is written.
  orvotest::WaitUntil([&] { return RecordedMonitor() == std::to_string(winner); }, 5000);
  EXPECT_TRUE(WIFSIGNALED(loserStatus) && WTERMSIG(loserStatus) == SIGTERM) << "both survived";
  EXPECT_EQ(std::to_string(winner), RecordedMonitor());
  EXPECT_TRUE(OLIBCProcAlive(winner));
  KillAndReap(winner);
}

// A monitor killed outright leaves its record behind. Once an unrelated
// process has its pid, nothing takes that process for the monitor: not a
// check, a restart, or a close of an adaptive or an HTTP session.
TEST_F(MonitorTest, APidReusedByAnotherProcessIsNeverTakenForTheMonitor) {
  Stream stream("m", "HLS");
  pid_t reused = -1;
  for (int attempt = 0; attempt < 200 && reused < 0; ++attempt) {
    if (attempt % 20 == 0) {
      const pid_t monitor = orvotest::StartProgram({"/bin/sleep", "30"});
      ASSERT_TRUE(stream.SaveMonitorPid(monitor, false));
      usleep(50 * 1000);  // start times count in ticks of 10 ms
      KillAndReap(monitor);
    }
    // The kernel hands the pid out again when steered through ns_last_pid
    // (root only); other processes may take it first.
    const pid_t wanted = std::stoi(RecordedMonitor());
    std::ofstream("/proc/sys/kernel/ns_last_pid") << wanted - 1;
    const pid_t pid = orvotest::StartProgram({"/bin/sleep", "30"});
    if (pid == wanted) reused = pid;
    else if (pid > 0) KillAndReap(pid);
  }
  if (reused < 0 && geteuid() != 0) GTEST_SKIP() << "steering pids needs root";
  ASSERT_GT(reused, 0) << "the pid never came round again";
  const std::string identity = ReadFile(session_ + "/monitor.start");
  const std::function<void()> calls[] = {[&] { EXPECT_FALSE(stream.IsFFmpegRun()); },
                                         [&] { stream.SaveMonitorPid(0, true); },
                                         [&] { stream.CloseStreamCommon(); },
                                         [] { HttpStream("m").Close(); }};
  int number = 0;
  for (const auto& call : calls) {
    // The stale record as the killed monitor left it.
    const std::string session = number < 3 ? session_ : Root().At("/tmp/Reelhall/HTTP/m");
    fs::create_directories(session);
    SaveFile(session + "/monitor.pid", std::to_string(reused));
    SaveFile(session + "/monitor.start", identity);
    call();
    EXPECT_TRUE(OLIBCProcAlive(reused)) << "call " << number++ << " signalled the pid's new process";
  }
  KillAndReap(reused);
}

}  // namespace
}  // namespace LibOrvoVTE
