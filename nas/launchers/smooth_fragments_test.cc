// The ffmpeg launcher on the library's Smooth Streaming command lines: the
// fragments must carry the names and the codec data that the predicted
// manifest announces, and the launcher, which stays to rename them, must
// stand for the transcoder it supervises.
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
#include <map>
#include <set>
#include <sstream>

#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/test_media.h"

namespace {

namespace fs = std::filesystem;
using Argv = std::vector<std::string>;

constexpr long long kTicks = 10000000;  // Smooth Streaming's 100 ns units per second
constexpr long long kFragment = 5 * kTicks;
constexpr long long kVideoFrame = kTicks / 15;          // the profile's -r 15
constexpr long long kAacFrame = 1024 * kTicks / 48000;  // -ar 48000
// The predicted manifest's CodecPrivateData for the 320x240 software row.
constexpr char kPredictedVideoData[] =
    "000000016742c01eda0507e840000003004000000783c58ba80000000168ce1f20";
constexpr char kVideoDir[] = "QualityLevels(200000)";
constexpr char kAudioDir[] = "QualityLevels(40000)";

// What a fragment (moof + mdat) holds, as far as the checks need it.
struct Fragment {
  long long time = -1;      // its tfxd box's absolute time
  long long duration = 0;   // the sum of its samples' durations
  bool startsWithSync = false;
  std::vector<std::string> samples;
};

unsigned long long BigEndian(const std::string& bytes, size_t at, int size) {
  unsigned long long value = 0;
  for (int i = 0; i < size && at + i < bytes.size(); ++i) {
    value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  }
  return value;
}

// Calls `visit(type, payload, end)` for each box in [begin, end).
template <typename Visit>
void ForEachBox(const std::string& bytes, size_t begin, size_t end, Visit visit) {
  while (begin + 8 <= end) {
    const size_t size = BigEndian(bytes, begin, 4);
    if (size < 8 || begin + size > end) return;
    visit(bytes.substr(begin + 4, 4), begin + 8, begin + size);
    begin += size;
  }
}

// ISO/IEC 14496-12 trun and tfhd, and the Smooth Streaming tfxd box.
Fragment ParseFragment(const std::string& bytes) {
  Fragment fragment;
  size_t moof = 0;
  ForEachBox(bytes, 0, bytes.size(), [&](const std::string& type, size_t at, size_t end) {
    if (type != "moof") return;
    moof = at - 8;
    ForEachBox(bytes, at, end, [&](const std::string& type, size_t at, size_t end) {
      if (type != "traf") return;
      unsigned long long defaultFlags = 0;
      ForEachBox(bytes, at, end, [&](const std::string& type, size_t at, size_t) {
        const unsigned flags = BigEndian(bytes, at, 4) & 0xffffff;
        if (type == "tfhd" && (flags & 0x20)) {
          // Optional fields before the default flags: base offset, description, duration, size.
          size_t field = at + 8 + ((flags & 1) ? 8 : 0);
          for (unsigned bit : {0x2u, 0x8u, 0x10u}) field += (flags & bit) ? 4 : 0;
          defaultFlags = BigEndian(bytes, field, 4);
        } else if (type == "uuid" && BigEndian(bytes, at, 4) == 0x6d1d9b05) {
          const bool wide = bytes[at + 16] == 1;
          fragment.time = BigEndian(bytes, at + 20, wide ? 8 : 4);
        } else if (type == "trun") {
          size_t field = at + 4;
          const auto take = [&](bool present) {
            const unsigned long long value = present ? BigEndian(bytes, field, 4) : 0;
            field += present ? 4 : 0;
            return value;
          };
          const unsigned long long count = take(true);
          size_t data = moof + take(flags & 1);
          unsigned long long sampleFlags = (flags & 4) ? take(true) : defaultFlags;
          for (unsigned long long i = 0; i < count; ++i) {
            fragment.duration += take(flags & 0x100);
            const size_t size = take(flags & 0x200);
            const unsigned long long ownFlags = take(flags & 0x400);
            take(flags & 0x800);
            if (i == 0 && (flags & 0x400) && !(flags & 4)) sampleFlags = ownFlags;
            fragment.samples.push_back(bytes.substr(data, size));
            data += size;
          }
          fragment.startsWithSync = count > 0 && !(sampleFlags & 0x10000);
        }
      });
    });
  });
  return fragment;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// Length-prefixed NAL units to Annex B start codes.
std::string AnnexB(const std::string& sample) {
  std::string out;
  for (size_t at = 0; at + 4 <= sample.size();) {
    const size_t size = BigEndian(sample, at, 4);
    out += std::string("\0\0\0\1", 4) + sample.substr(at + 4, size);
    at += 4 + size;
  }
  return out;
}

std::string Hex(const std::string& text) {
  std::string bytes;
  for (size_t at = 0; at + 1 < text.size(); at += 2) {
    bytes.push_back(static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16)));
  }
  return bytes;
}

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
  // source ("-s 240" made 320x240), started at `seek`.
  Argv SmoothArgv(int seek, const std::string& output, const std::string& filters) {
    const std::string seconds = std::to_string(seek);
    return {FFmpeg(), "-ss", seconds, "-i", clip_, "-vcodec", "libx264", "-preset", "veryfast",
            "-profile:v", "baseline", "-level", "3.0", "-b:v", "200000", "-crf", "25",
            "-maxrate", "200000", "-bufsize", "400000", "-s", "320x240", "-vf", filters, "-r",
            "15", "-acodec", "libfdk_aac", "-ab", "40k", "-ar", "48000", "-ac", "2",
            "-fragment_length", "5", "-seek_time", seconds, "-map", "0:0", "-map", "0:1", output};
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

TEST_F(SmoothFragmentsTest, RunAt120SecondsWritesWhatThePredictedManifestAnnounces) {
  const std::string output = SessionDir("ss") + "/smooth";
  const pid_t pid = orvotest::StartProgram(SmoothArgv(120, output, "setsar=0/1"));
  int status = -1;
  ASSERT_TRUE(WaitRaw(pid, 60000, &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  // The clip's last two chunks (of 26), at 120 and 125 s; nothing else.
  std::set<std::string> expected;
  for (long long k = 0; k < 2; ++k) {
    expected.insert(std::string(kVideoDir) + "/" + FragmentName("video", 120 * kTicks + k * kFragment));
    expected.insert(std::string(kAudioDir) + "/" + FragmentName("audio", 120 * kTicks + k * kFragment));
  }
  ASSERT_EQ(expected, Files(output));

  std::string video = Hex(kPredictedVideoData);
  size_t videoSamples = 0;
  for (const std::string& name : expected) {
    SCOPED_TRACE(name);
    const bool isVideo = name.find("video") != std::string::npos;
    const long long frame = isVideo ? kVideoFrame : kAacFrame;
    const Fragment fragment = ParseFragment(ReadAll(output + "/" + name));
    const long long named = std::stoll(name.substr(name.find('=') + 1));
    EXPECT_NEAR(named, fragment.time, frame);
    // Audio is cut at the frame that follows the video's cut, at either end.
    EXPECT_NEAR(kFragment, fragment.duration, isVideo ? frame : 2 * frame);
    EXPECT_TRUE(fragment.startsWithSync);
    if (!isVideo) continue;
    for (const std::string& sample : fragment.samples) video += AnnexB(sample);
    videoSamples += fragment.samples.size();
  }
  EXPECT_EQ(2 * 5 * 15u, videoSamples);

  // Decodable with nothing but the manifest's codec data.
  Root().WriteFile("/volume1/fragments.h264", video);
  orvotest::ProbedMedia media;
  ASSERT_TRUE(orvotest::ProbeMedia(Root().At("/volume1/fragments.h264"), &media, "h264"));
  ASSERT_TRUE(media.Stream("video"));
  EXPECT_EQ(static_cast<long>(videoSamples), media.Stream("video")->frames);
  EXPECT_EQ(320, media.Stream("video")->width);
  EXPECT_EQ(240, media.Stream("video")->height);
}

TEST_F(SmoothFragmentsTest, StoppedOrKilledRunsLeaveFragmentsAndNoTranscoder) {
  // Orphans come to this process, so a transcoder outliving the launcher is seen and reaped.
  ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
  for (const int signal : {SIGINT, SIGKILL}) {
    SCOPED_TRACE(strsignal(signal));
    const std::string output = SessionDir(std::string("ss-") + std::to_string(signal)) + "/smooth";
    // Paced so that the signal lands mid-run.
    const pid_t launcher =
        orvotest::StartProgram(SmoothArgv(0, output, "setsar=0/1,realtime=speed=10"));
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
      const Fragment fragment = ParseFragment(ReadAll(
          output + "/" + kVideoDir + "/" + FragmentName("video", k * kFragment)));
      EXPECT_NEAR(kFragment, fragment.duration, kVideoFrame) << k;
    }
    if (signal == SIGINT) {
      // The final flush: every video fragment has its audio, and no staging is left.
      EXPECT_EQ(2 * videos, files.size());
    }
  }
}

}  // namespace
