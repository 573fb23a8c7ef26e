// The ffmpeg launcher on the library's Smooth Streaming command lines: the
// launcher, which stays to rename the fragments, must stand for the
// transcoder it supervises. What the fragments hold against the predicted
// manifest (names, times, codec data, pictures) is the playback test's
// (tests/smooth_playback_test.cc), through the library.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/mp4_fragment.h"
#include "tests/support/test_media.h"

namespace {

namespace fs = std::filesystem;
using Argv = std::vector<std::string>;

constexpr long long kTicks = 10000000;  // Smooth Streaming's 100 ns units per second
constexpr long long kFragment = 5 * kTicks;
constexpr long long kVideoFrame = kTicks / 15;  // the profile's -r 15
constexpr char kVideoDir[] = "QualityLevels(200000)";

std::string FragmentName(const char* type, long long time) {
  return std::string("Fragments(") + type + "=" + std::to_string(time) + ")";
}

// Waits at most `timeoutMs` for `pid` (a child, or an orphan we reap).
bool WaitRaw(pid_t pid, int timeoutMs, int* status) {
  for (int waited = 0; waited <= timeoutMs; waited += 10) {
    if (waitpid(pid, status, WNOHANG) == pid) return true;
    struct timespec tick = {0, 10 * 1000 * 1000};
    nanosleep(&tick, nullptr);
  }
  return false;
}

class SmoothFragmentsTest : public orvotest::LauncherTest {
 protected:
  // The library's command line for the 240p software profile of a 4:3
  // source ("-s 240" made 320x240), started at 0.
  Argv SmoothArgv(const std::string& output, const std::string& filters) {
    return {FFmpeg(), "-ss", "0", "-i", clip_, "-vcodec", "libx264", "-preset", "veryfast",
            "-profile:v", "baseline", "-level", "3.0", "-b:v", "200000", "-crf", "25",
            "-maxrate", "200000", "-bufsize", "400000", "-s", "320x240", "-vf", filters, "-r",
            "15", "-acodec", "libfdk_aac", "-ab", "40k", "-ar", "48000", "-ac", "2",
            "-fragment_length", "5", "-seek_time", "0", "-map", "0:0", "-map", "0:1", output};
  }

  // Every file under `dir`, by relative path.
  static std::set<std::string> Files(const std::string& dir) {
    std::set<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
      if (entry.is_regular_file()) files.insert(fs::relative(entry.path(), dir).string());
    }
    return files;
  }

  const std::string clip_ = orvotest::TestMedia(orvotest::Media::kLongLowResMp4);
};

TEST_F(SmoothFragmentsTest, StoppedOrKilledRunsLeaveFragmentsAndNoTranscoder) {
  // Orphans come to this process, so a transcoder outliving the launcher is seen and reaped.
  ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
  for (const int signal : {SIGINT, SIGKILL}) {
    SCOPED_TRACE(strsignal(signal));
    const std::string output = SessionDir(std::string("ss-") + std::to_string(signal)) + "/smooth";
    // Paced so that the signal lands mid-run.
    const pid_t launcher =
        orvotest::StartProgram(SmoothArgv(output, "setsar=0/1,realtime=speed=10"));
    ASSERT_TRUE(orvotest::WaitForPath(
        output + "/" + kVideoDir + "/" + FragmentName("video", kFragment), 20000));
    std::ifstream children("/proc/" + std::to_string(launcher) + "/task/" +
                           std::to_string(launcher) + "/children");
    pid_t transcoder = -1;
    children >> transcoder;
    ASSERT_GT(transcoder, 0);

    const auto stop = std::chrono::steady_clock::now();
    kill(launcher, signal);
    int status = 0;
    ASSERT_TRUE(WaitRaw(launcher, 5000, &status));
    EXPECT_LT(std::chrono::steady_clock::now() - stop, std::chrono::seconds(2));
    if (signal == SIGINT) {
      // ffmpeg's own status after an interrupt, passed on; the child already reaped.
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 255) << status;
      EXPECT_NE(0, kill(transcoder, 0));
    } else {
      int transcoderStatus = 0;
      ASSERT_TRUE(WaitRaw(transcoder, 2000, &transcoderStatus));
      EXPECT_TRUE(WIFSIGNALED(transcoderStatus) && WTERMSIG(transcoderStatus) == SIGKILL);
    }

    // Fragments 0, 1, ... with nothing missing, each whole.
    const std::set<std::string> files = Files(output);
    size_t videos = 0;
    while (files.count(std::string(kVideoDir) + "/" + FragmentName("video", videos * kFragment))) {
      ++videos;
    }
    EXPECT_GE(videos, 2u);
    for (size_t k = 0; k + 1 < videos; ++k) {
      const auto fragment = orvotest::ReadMp4Fragment(
          output + "/" + kVideoDir + "/" + FragmentName("video", k * kFragment));
      EXPECT_NEAR(kFragment, fragment.duration, kVideoFrame) << k;
    }
    if (signal == SIGINT) {
      // The final flush: every video fragment has its audio, and no staging is left.
      EXPECT_EQ(2 * videos, files.size());
    }
  }
}

}  // namespace
