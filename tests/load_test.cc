// Many sessions on one machine: 20 remux streams read at once beside a
// transcode, and every request process flat in descriptors
// and memory over a run of segments.
#include <dirent.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/hostile_table.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "vte/http_live_stream.h"
#include "vte/utils/md5.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

// How the table names who the requests ran as.
std::string AsWho() { return geteuid() == 0 ? " (requests as nobody, root saved)" : ""; }

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

// Every request runs as the web server's user with root saved, as the web
// API runs them on the NAS.
class LoadTest : public orvotest::PlaybackTest {
 protected:
  void SetUp() override {
    PlaybackTest::SetUp();
    ServeAsWebServerUser();
  }
};

// A generic box runs one software transcoder. Of four transcode opens at
// once one is admitted, and plays; the others are refused at open, and so
// is a later one while it lasts, while remux sessions still open. A request
// waiting for one of its segments gives up as soon as it is closed, and the
// place is free again.
TEST_F(LoadTest, TranscodeSessionsAreAdmittedOnceAtOpen) {
  std::vector<Request> opens;
  for (int i = 0; i < 4; ++i) opens.push_back(StartOpen("t" + std::to_string(i), "slow"));
  std::vector<std::string> admitted;
  int refused = 0;
  for (int i = 0; i < 4; ++i) {
    const std::string answer = FinishRequest(opens[i], 60);
    if (answer == "ok") admitted.push_back("t" + std::to_string(i));
    refused += answer == "TransEnable" ? 1 : 0;
  }
  ASSERT_EQ(admitted.size(), 1u);
  EXPECT_EQ(refused, 3);
  const std::string& id = admitted[0];
  EXPECT_TRUE(orvotest::CompleteSegment(Segment(id, 0)));
  EXPECT_EQ(Open("t4", "paced"), "TransEnable");
  EXPECT_EQ(Open("r0", "remux"), "ok");

  // Far ahead: a new run starts there, seconds from writing it.
  const pid_t waiting = StartSegment(id, 15);
  ASSERT_TRUE(orvotest::WaitUntil([&] { return ReadFile(File(id, "seek_time")) == "15"; }, 10000));
  EXPECT_TRUE(Close(id));
  EXPECT_EQ(orvotest::WaitForChild(waiting, 5), 1) << "the request waited on after the close";
  EXPECT_EQ(Open("t5", "paced"), "ok");
  for (const std::string id : {"t5", "r0"}) Close(id);
  EXPECT_EQ(Leftovers(15), "");
  if (!HasFailure()) {
    orvotest::HostileRow("load", "4 transcode opens at once, one transcoder allowed" + AsWho(),
                         "1 admitted and served, 3 refused with TransEnable at open, as is a 5th "
                         "while it plays; remux still opens; its waiting request gives up at "
                         "close, then the next open is admitted");
  }
}

// Ten opens of one file at once, as ten viewers starting the same video:
// ten sessions of their own, none refused for want of space, and none
// numbered as seeding rand() with the clock would have numbered it. Ten
// opens under one caller's id all get it.
TEST_F(LoadTest, OpensOfOneFileAtOnceEachGetTheirSession) {
  const std::string media = orvotest::TestMedia(orvotest::Media::kH264AacMp4);
  const std::string profiles = std::string(ORVOVTE_SAMPLE_PROFILES) + "/hls.json";
  const auto openAll = [&](const Json::Value& params) {
    std::vector<Request> opens;
    for (int i = 0; i < 10; ++i) {
      opens.push_back(StartRequest([&] {
        return VTEStream::VTE_Init(media, "HLS", params, profiles, "hls_remux_h264_aac_ab128",
                                   "browser", 0);
      }));
    }
    std::set<std::string> ids;
    for (Request& open : opens) ids.insert(FinishRequest(open, 60));
    return ids;
  };
  const time_t now = time(nullptr);
  const std::set<std::string> drawn = openAll(Json::Value());
  EXPECT_EQ(drawn.size(), 10u);
  const std::string digest = LibReelhall::GetMD5(media);
  for (const std::string& id : drawn) {
    EXPECT_EQ(id.rfind(digest + "_", 0), 0u) << id;
    EXPECT_TRUE(orvotest::Exists(orvotest::SessionPath("HLS", id, "video_metadata"))) << id;
  }
  for (time_t seed = now - 600; seed <= now + 60; ++seed) {
    srand(static_cast<unsigned int>(seed));
    EXPECT_EQ(drawn.count(digest + "_" + std::to_string(rand())), 0u) << "seed " << seed;
  }
  Json::Value shared;
  shared["stream_id"] = "shared";
  EXPECT_EQ(openAll(shared), std::set<std::string>{"shared"});
  if (!HasFailure()) {
    orvotest::HostileRow("load", "10 opens of one file at once; 10 more with one `stream_id`",
                         "10 sessions of their own, no id a clock-seeded rand() gives; all 10 "
                         "get the shared one; none refused for space");
  }
}

TEST_F(LoadTest, TwentyRemuxStreamsReadAtOnceBesideATranscode) {
  for (int i = 0; i < kSessions; ++i) {
    ASSERT_EQ(Open("r" + std::to_string(i), "remux"), "ok") << i;
  }
  // Each reader is one request process serving its stream's first segments
  // in turn; it reports every segment it got and whether its descriptors
  // and memory stayed where they were after the first.
  std::vector<Request> readers;
  for (int i = 0; i < kSessions; ++i) {
    const std::string id = "r" + std::to_string(i);
    readers.push_back(StartRequest([id] {
      std::string report;
      int firstFds = 0;
      long firstKb = 0;
      for (int fragment = 0; fragment < kSegmentsEach; ++fragment) {
        HttpLiveStream stream(id);
        const std::string number = std::to_string(fragment);
        report += (stream.Transcoding(number) ? stream.ReadFragment(number) : "") + "\n";
        if (fragment == 0) {
          firstFds = OpenDescriptors();
          firstKb = ResidentKb();
        }
      }
      return report + "fds " + std::to_string(OpenDescriptors() - firstFds) + " kb " +
             std::to_string(ResidentKb() - firstKb) + "\n";
    }));
  }

  // Meanwhile a transcode session plays beside them.
  ASSERT_EQ(Open("t0", "paced"), "ok");
  EXPECT_TRUE(orvotest::CompleteSegment(Segment("t0", 0)));

  int segments = 0;
  for (int i = 0; i < kSessions; ++i) {
    std::istringstream lines(FinishRequest(readers[i], 60));
    std::string line;
    for (int fragment = 0; fragment < kSegmentsEach; ++fragment) {
      std::getline(lines, line);
      EXPECT_TRUE(orvotest::CompleteSegment(line)) << i << " segment " << fragment << ": " << line;
      segments += orvotest::CompleteSegment(line) ? 1 : 0;
    }
    std::getline(lines, line);
    int fds = -1;
    long kb = -1;
    ASSERT_EQ(sscanf(line.c_str(), "fds %d kb %ld", &fds, &kb), 2) << i << ": " << line;
    EXPECT_EQ(fds, 0) << i;
    EXPECT_LT(kb, 2048) << i;
  }

  for (int i = 0; i < kSessions; ++i) EXPECT_TRUE(Close("r" + std::to_string(i))) << i;
  EXPECT_TRUE(Close("t0"));
  EXPECT_EQ(Leftovers(15), "");
  if (!HasFailure()) {
    orvotest::HostileRow("load",
                         std::to_string(kSessions) + " remux HLS sessions read at once, " +
                             std::to_string(kSessions * kSegmentsEach) + " segments" + AsWho(),
               std::to_string(segments) + " complete segments; request descriptors and memory flat");
  }
}

}  // namespace
}  // namespace LibOrvoVTE
