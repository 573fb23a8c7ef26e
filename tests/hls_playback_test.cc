// HLS playback from end to end: sessions made by VTE_Init from generated
// media, the launchers in place of the NAS's transcoders, and every web
// request in a process of its own, as the web API runs them.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "vte/http_live_stream.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// The encode is paced to ten times real time, so that a seek can land
// ahead of the running transcoder on any machine.
constexpr char kProfiles[] = R"({
  "paced": "-vcodec libx264 -preset ultrafast -s 160x120 -b:v 200k -vf realtime=speed=10 -acodec libfdk_aac -ab 64k",
  "remux": "-vcodec copy -bsf:v h264_mp4toannexb -acodec libfdk_aac -ab 128k",
  "gst": "vaapipostproc width=320 height=240 @VERTICAL@ ! videoflip ! vaapih264enc rate-control=cbr bitrate=300 ! h264parse$audioconvert ! audioresample ! audio/x-raw,rate=48000,channels=2 ! avenc_aac bitrate=64000 ! aacparse$mpegtsmux"
})";

constexpr int kRequestTimeoutSeconds = 90;

Json::Value StreamParams() {
  Json::Value params;
  params["url"] = "/api/stream";
  params["format"] = "hls";
  return params;
}

long long MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), {});
}

int ReadPid(const std::string& path) { return OLIBCReadPidFile(path.c_str()); }

// Live processes whose parent is `parent`.
std::vector<pid_t> ChildrenOf(pid_t parent) {
  std::vector<pid_t> children;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return children;
  while (const dirent* entry = readdir(proc)) {
    const pid_t pid = atoi(entry->d_name);
    if (pid <= 0) continue;
    const std::string stat = Slurp("/proc/" + std::string(entry->d_name) + "/stat");
    const size_t end = stat.rfind(')');
    if (end == std::string::npos) continue;
    char state = 0;
    int ppid = 0;
    if (sscanf(stat.c_str() + end + 1, " %c %d", &state, &ppid) == 2 && ppid == parent &&
        state != 'Z') {
      children.push_back(pid);
    }
  }
  closedir(proc);
  return children;
}

// Polls `condition` every 50 ms for at most `seconds`.
bool Eventually(const std::function<bool()>& condition, int seconds) {
  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// Reaps what this process adopted; true once nothing is left.
bool NothingLeft(int seconds) {
  return Eventually(
      [] {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        return ChildrenOf(getpid()).empty();
      },
      seconds);
}

// Where the transcoders' chatter goes: the monitors and transcoders a
// request starts inherit its output. Shown when a case fails.
std::string gRequestLog;

void QuietTranscoders() {
  const int log = open(gRequestLog.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (log < 0) return;
  dup2(log, STDOUT_FILENO);
  dup2(log, STDERR_FILENO);
  close(log);
}

// One web request: `body` runs in a child process, whose text comes back
// through `fd`. The pipe is read without waiting for its end, which a
// monitor forked by the request keeps open.
pid_t StartRequest(const std::function<std::string()>& body, int* fd) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = orvotest::StartChild([&] {
    QuietTranscoders();
    const std::string text = body();
    return write(fds[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
  });
  close(fds[1]);
  *fd = fds[0];
  return pid;
}

std::string FinishRequest(pid_t pid, int fd) {
  const int status = orvotest::WaitForChild(pid, kRequestTimeoutSeconds);
  fcntl(fd, F_SETFL, O_NONBLOCK);
  char buffer[4096];
  const ssize_t got = read(fd, buffer, sizeof(buffer));
  close(fd);
  if (status != 0) return "<request failed: " + std::to_string(status) + ">";
  return got > 0 ? std::string(buffer, got) : "";
}

std::string Request(const std::function<std::string()>& body) {
  int fd = -1;
  const pid_t pid = StartRequest(body, &fd);
  return FinishRequest(pid, fd);
}

std::string SegmentRequest(const std::string& id, const std::string& fragment) {
  return Request([id, fragment] {
    HttpLiveStream stream(id);
    if (!stream.Transcoding(fragment)) return std::string("<Transcoding failed>");
    return stream.ReadFragment(fragment);
  });
}

class HlsPlaybackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Monitors are detached; as their subreaper this process sees them all.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  }

  void TearDown() override {
    // Whatever a failed case left behind goes now.
    for (int round = 0; round < 3; ++round) {
      for (pid_t pid : ChildrenOf(getpid())) kill(pid, SIGKILL);
      NothingLeft(2);
    }
    const std::string log = HasFailure() ? Slurp(gRequestLog) : "";
    std::cerr << log.substr(log.size() > 4000 ? log.size() - 4000 : 0);
    root_.reset();
  }

  // Plays `platform`, then creates and opens a session of the long clip
  // with `profile`; its id, or a text in <> telling what failed.
  std::string Open(const std::string& platform, const std::string& profile) {
    orvotest::PlatformFiles files;
    files.name = platform;
    root_ = std::make_unique<orvotest::MachineRoot>(files);
    orvotest::InstallLaunchers(*root_);
    gRequestLog = root_->Path() + "/requests.log";
    profiles_ = root_->Path() + "/profiles.json";
    std::ofstream(profiles_) << kProfiles;
    const std::string media = orvotest::TestMedia(orvotest::Media::kLongH264AacMp4);
    const std::string profiles = profiles_;
    const std::string id = Request([=] {
      const std::string made = VTEStream::VTE_Init(media, "HLS", Json::Value(), profiles,
                                                   profile, "browser", 0);
      if (made.empty() || made == kTransSpaceNotEnough) return "<VTE_Init: " + made + ">";
      HttpLiveStream stream(made);
      if (!stream.Init(StreamParams(), Json::Value(), "", "")) {
        return "<Init: " + stream.GetErrorString() + ">";
      }
      return made;
    });
    dir_ = librh::machine::Resolve(librh::machine::kTempRoot) + "/HLS/" + id;
    return id;
  }

  std::string File(const std::string& name) const { return dir_ + "/" + name; }
  std::string Segment(int fragment) const {
    char name[32];
    snprintf(name, sizeof(name), "slice-%05d.ts", fragment);
    return File(name);
  }

  // The first video timestamp of a segment, after checking that it is a
  // whole MPEG-TS with picture and sound.
  double VideoStart(int fragment) {
    orvotest::ProbedMedia media;
    if (!orvotest::ProbeMedia(Segment(fragment), &media, "mpegts")) return -1;
    const orvotest::ProbedStream* video = media.Stream("video");
    const orvotest::ProbedStream* audio = media.Stream("audio");
    EXPECT_TRUE(video != nullptr && video->frames > 0) << fragment;
    EXPECT_TRUE(audio != nullptr && audio->frames > 0) << fragment;
    return video != nullptr ? video->start : -1;
  }

  // Ends the stream as the web API does, and checks that nothing of it is left.
  void CloseAndCheck(const std::string& id) {
    const std::string target = fs::read_symlink(dir_).string();
    EXPECT_EQ(Request([id] { return HttpLiveStream(id).Close() ? "closed" : "refused"; }),
              "closed");
    EXPECT_TRUE(NothingLeft(6)) << ChildrenOf(getpid()).size() << " processes left";
    EXPECT_FALSE(fs::exists(fs::symlink_status(dir_)));
    EXPECT_FALSE(fs::exists(target)) << target;
  }

  std::unique_ptr<orvotest::MachineRoot> root_;
  std::string profiles_;
  std::string dir_;
};

TEST_F(HlsPlaybackTest, SegmentsInOrderThenAFarSeekRestartsTheRunThere) {
  const std::string id = Open("x86", "paced");
  ASSERT_EQ(id.find('<'), std::string::npos) << id;
  EXPECT_TRUE(fs::is_symlink(dir_));
  // 100 seconds in twenty segments of 5.
  const std::string playlist = Slurp(File(id + ".m3u8"));
  const std::string last =
      "#EXTINF:5,\n/api/stream?format=hls&id=" + id + "&fragment_id=00019\n#EXT-X-ENDLIST\n";
  ASSERT_GT(playlist.size(), last.size());
  EXPECT_EQ(playlist.substr(playlist.size() - last.size()), last) << playlist;

  double first = 0;
  int monitor = 0;
  for (int fragment = 0; fragment < 3; ++fragment) {
    EXPECT_EQ(SegmentRequest(id, std::to_string(fragment)), Segment(fragment));
    const double start = VideoStart(fragment);
    if (fragment == 0) {
      first = start;
      monitor = ReadPid(File("monitor.pid"));
      EXPECT_TRUE(OLIBCProcAlive(monitor));
    }
    EXPECT_NEAR(start - first, 5.0 * fragment, 0.15) << fragment;
    EXPECT_EQ(ReadPid(File("monitor.pid")), monitor) << fragment;
    EXPECT_EQ(Slurp(File("seek_time")), "0") << fragment;
  }
  const std::string sequence = Slurp(File("request_sequence"));

  EXPECT_EQ(SegmentRequest(id, "16"), Segment(16));
  EXPECT_EQ(Slurp(File("seek_time")), "16");
  EXPECT_GT(Slurp(File("request_sequence")), sequence);
  const int seeker = ReadPid(File("monitor.pid"));
  EXPECT_NE(seeker, monitor);
  EXPECT_FALSE(OLIBCProcAlive(monitor));
  EXPECT_TRUE(OLIBCProcAlive(seeker));
  EXPECT_FALSE(fs::exists(Segment(0))) << "the previous run's segments stay";
  EXPECT_NEAR(VideoStart(16) - first, 80.0, 0.15);

  // Inside the new run's first segments: waited for, not restarted.
  EXPECT_EQ(SegmentRequest(id, "00018"), Segment(18));
  EXPECT_EQ(ReadPid(File("monitor.pid")), seeker);
  EXPECT_EQ(Slurp(File("seek_time")), "16");
  EXPECT_NEAR(VideoStart(18) - first, 90.0, 0.15);

  CloseAndCheck(id);
}

TEST_F(HlsPlaybackTest, OfTwoFarRequestsAtOnceTheNewerKeepsItsMonitor) {
  const std::string id = Open("x86", "paced");
  ASSERT_EQ(id.find('<'), std::string::npos) << id;

  // Each outside the other's first five segments.
  const std::string fragments[2] = {"6", "16"};
  pid_t pids[2];
  int fds[2];
  for (int i = 0; i < 2; ++i) {
    pids[i] = StartRequest(
        [&, i] {
          HttpLiveStream stream(id);
          const bool started = stream.Transcoding(fragments[i]);
          const auto begin = Clock::now();
          const std::string path = started ? stream.ReadFragment(fragments[i]) : "<failed>";
          return path + "|" + std::to_string(MsSince(begin));
        },
        &fds[i]);
  }
  std::string results[2];
  for (int i = 0; i < 2; ++i) results[i] = FinishRequest(pids[i], fds[i]);

  int served = 0;
  std::string winner;
  for (int i = 0; i < 2; ++i) {
    const size_t bar = results[i].find('|');
    ASSERT_NE(bar, std::string::npos) << results[i];
    if (bar > 0) {
      ++served;
      winner = fragments[i];
      EXPECT_EQ(results[i].substr(0, bar), Segment(atoi(winner.c_str())));
    } else {
      // Superseded: one round of waiting, then it gives up.
      EXPECT_LT(atol(results[i].c_str() + bar + 1), 2500) << fragments[i];
    }
  }
  ASSERT_EQ(served, 1) << results[0] << " " << results[1];

  // Only the newer request's monitor runs (its transcoder is its child, not
  // this process's); the other never started or is gone.
  const int monitor = ReadPid(File("monitor.pid"));
  EXPECT_TRUE(Eventually(
      [] {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        return ChildrenOf(getpid()).size() == 1;
      },
      5))
      << ChildrenOf(getpid()).size() << " monitors";
  EXPECT_TRUE(OLIBCProcAlive(monitor));
  EXPECT_TRUE(fs::exists(Segment(atoi(winner.c_str()) + 1)));

  CloseAndCheck(id);
}

TEST_F(HlsPlaybackTest, MonitorEndsOnSignalAndOnIdleSessions) {
  const std::string id = Open("x86", "paced");
  ASSERT_EQ(id.find('<'), std::string::npos) << id;
  const std::string registry = librh::machine::Resolve(librh::machine::kLoadRegistry);

  EXPECT_EQ(SegmentRequest(id, "0"), Segment(0));
  const int monitor = ReadPid(File("monitor.pid"));
  const std::vector<pid_t> transcoders = ChildrenOf(monitor);
  ASSERT_EQ(transcoders.size(), 1U);
  EXPECT_NE(Slurp(registry).find("\"PID\":" + std::to_string(transcoders[0])), std::string::npos)
      << Slurp(registry);
  ASSERT_EQ(kill(monitor, SIGTERM), 0);
  EXPECT_TRUE(NothingLeft(4)) << "monitor or transcoder still running";
  EXPECT_EQ(Slurp(registry).find("\"PID\":" + std::to_string(transcoders[0])), std::string::npos)
      << Slurp(registry);
  EXPECT_TRUE(fs::exists(File("video_metadata"))) << "a signal alone keeps the session";

  // Nobody asked for data for 900 seconds: the monitor gives the stream up.
  EXPECT_EQ(SegmentRequest(id, "10"), Segment(10));
  const std::string target = fs::read_symlink(dir_).string();
  std::ofstream(File("access_status")).put('x');
  const time_t then = time(nullptr) - 900;
  const struct utimbuf times = {then, then};
  ASSERT_EQ(utime(File("access_status").c_str(), &times), 0);
  EXPECT_TRUE(NothingLeft(6)) << "monitor or transcoder still running";
  EXPECT_FALSE(fs::exists(fs::symlink_status(dir_)));
  EXPECT_FALSE(fs::exists(target));
  EXPECT_EQ(Slurp(registry).find("\"PID\""), std::string::npos) << Slurp(registry);
}

TEST_F(HlsPlaybackTest, RemuxedMp4RestartsOnAJumpOfMoreThanSevenSegments) {
  const std::string id = Open("x86", "remux");
  ASSERT_EQ(id.find('<'), std::string::npos) << id;

  EXPECT_EQ(SegmentRequest(id, "0"), Segment(0));
  // The request that started the run is no jump to remember.
  EXPECT_FALSE(fs::exists(File("request_fragment_id")));
  const double first = VideoStart(0);
  EXPECT_EQ(SegmentRequest(id, "1"), Segment(1));
  EXPECT_NEAR(VideoStart(1) - first, 8.0, 0.15);
  const int monitor = ReadPid(File("monitor.pid"));

  EXPECT_EQ(SegmentRequest(id, "9"), Segment(9));
  EXPECT_EQ(Slurp(File("seek_time")), "9");
  EXPECT_NE(ReadPid(File("monitor.pid")), monitor);
  EXPECT_NEAR(VideoStart(9) - first, 72.0, 0.15);
  EXPECT_EQ(SegmentRequest(id, "11"), Segment(11));
  EXPECT_EQ(Slurp(File("seek_time")), "9");
  EXPECT_EQ(Slurp(File("request_fragment_id")), "11");

  CloseAndCheck(id);
}

TEST_F(HlsPlaybackTest, GStreamerPlatformsSegmentThroughASeparateSegmenter) {
  const std::string id = Open("braswell", "gst");
  ASSERT_EQ(id.find('<'), std::string::npos) << id;

  EXPECT_EQ(SegmentRequest(id, "0"), Segment(0));
  const int monitor = ReadPid(File("monitor.pid"));
  EXPECT_EQ(ChildrenOf(monitor).size(), 2U) << "transcoder and segmenter";
  EXPECT_EQ(SegmentRequest(id, "1"), Segment(1));
  // The segmenter cuts at the first keyframe from 5 seconds on; the software
  // stand-in for the hardware encoder makes one every 30 frames (3 seconds
  // of this clip).
  const double first = VideoStart(0);
  const double second = VideoStart(1);
  EXPECT_GE(second - first, 4.95);
  EXPECT_LE(second - first, 8.05);

  CloseAndCheck(id);
}

}  // namespace
}  // namespace LibOrvoVTE
