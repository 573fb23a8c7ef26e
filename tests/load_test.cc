// Many sessions on one machine: 20 remux streams read at once beside a
// transcode, and every request process flat in descriptors
// and memory over a run of segments.
#include <dirent.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fcntl.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/hostile_table.h"
#include "tests/support/launchers.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "vte/http_live_stream.h"

namespace LibOrvoVTE {
namespace {

constexpr int kSessions = 20;
constexpr int kSegmentsEach = 3;

int OpenDescriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

long ResidentKb() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "VmRSS:") == 0) return atol(line.c_str() + 6);
  }
  return -1;
}

using LoadTest = orvotest::PlaybackTest;

// A generic box runs one software transcoder: while one plays, the next
// transcode session is refused, and remux sessions still open.
TEST_F(LoadTest, TranscodesBeyondTheLimitAreRefused) {
  ASSERT_EQ(Open("t0", "slow"), "ok");
  ASSERT_TRUE(orvotest::CompleteSegment(Segment("t0", 0)));
  EXPECT_EQ(orvotest::RegistryPids().size(), 1u) << "the running transcoder is registered";
  EXPECT_EQ(Open("t1", "slow"), "TransEnable");
  EXPECT_EQ(Open("t2", "paced"), "TransEnable");
  EXPECT_EQ(Open("r0", "remux"), "ok");
  for (const std::string id : {"t0", "t1", "t2", "r0"}) Close(id);
  EXPECT_EQ(Leftovers(15), "");
  if (!HasFailure()) {
    orvotest::HostileRow("load", "transcode sessions beyond the limit of one",
                         "refused with TransEnable while a transcode runs; remux still opens");
  }
}

TEST_F(LoadTest, TwentyRemuxStreamsReadAtOnceBesideATranscode) {
  for (int i = 0; i < kSessions; ++i) {
    ASSERT_EQ(Open("r" + std::to_string(i), "remux"), "ok") << i;
  }
  // Each reader is one process serving its stream's first segments in turn;
  // it reports every segment it got and whether its descriptors and memory
  // stayed where they were after the first.
  std::vector<pid_t> readers;
  std::vector<int> pipes;
  for (int i = 0; i < kSessions; ++i) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    const std::string id = "r" + std::to_string(i);
    readers.push_back(orvotest::StartChild([id, fds] {
      std::string report;
      int firstFds = 0;
      long firstKb = 0;
      for (int fragment = 0; fragment < kSegmentsEach; ++fragment) {
        HttpLiveStream stream(id);
        const std::string number = std::to_string(fragment);
        const std::string path = stream.Transcoding(number) ? stream.ReadFragment(number) : "";
        report += path + "\n";
        if (fragment == 0) {
          firstFds = OpenDescriptors();
          firstKb = ResidentKb();
        }
      }
      report += "fds " + std::to_string(OpenDescriptors() - firstFds) + " kb " +
                std::to_string(ResidentKb() - firstKb) + "\n";
      return write(fds[1], report.data(), report.size()) == static_cast<ssize_t>(report.size()) ? 0 : 1;
    }));
    close(fds[1]);
    pipes.push_back(fds[0]);
  }

  // Meanwhile a transcode session plays beside them.
  ASSERT_EQ(Open("t0", "paced"), "ok");
  EXPECT_TRUE(orvotest::CompleteSegment(Segment("t0", 0)));

  int segments = 0;
  for (int i = 0; i < kSessions; ++i) {
    EXPECT_EQ(orvotest::WaitForChild(readers[i], 60), 0) << i;
    std::string report;
    ASSERT_TRUE(orvotest::ReadPipe(pipes[i], &report, 2000)) << i;
    close(pipes[i]);
    std::istringstream lines(report);
    std::string line;
    for (int fragment = 0; fragment < kSegmentsEach; ++fragment) {
      std::getline(lines, line);
      EXPECT_TRUE(orvotest::CompleteSegment(line)) << i << " segment " << fragment << ": " << line;
      segments += orvotest::CompleteSegment(line) ? 1 : 0;
    }
    std::getline(lines, line);
    int fds = -1;
    long kb = -1;
    ASSERT_EQ(sscanf(line.c_str(), "fds %d kb %ld", &fds, &kb), 2) << line;
    EXPECT_EQ(fds, 0) << i;
    EXPECT_LT(kb, 2048) << i;
  }

  for (int i = 0; i < kSessions; ++i) EXPECT_TRUE(Close("r" + std::to_string(i))) << i;
  EXPECT_TRUE(Close("t0"));
  EXPECT_EQ(Leftovers(15), "");
  if (!HasFailure()) {
    orvotest::HostileRow("load", std::to_string(kSessions) + " remux HLS sessions read at once, " +
                           std::to_string(kSessions * kSegmentsEach) + " segments",
               std::to_string(segments) + " complete segments; request descriptors and memory flat");
  }
}

}  // namespace
}  // namespace LibOrvoVTE
