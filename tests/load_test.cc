// Many sessions on one machine, every request run as the web server's user
// with root saved as on the NAS: transcodes admitted at open, opens of one
// file at once, 20 remux streams read beside a transcode.
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <iterator>
#include <set>
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

using LoadTest = orvotest::PlaybackTest;

// A generic box runs one software transcoder. Of four transcode opens at
// once, beside twenty remux opens of one file, one is admitted; the others
// are refused at open, and so is a later one while it lasts. The remux
// opens, as twenty viewers starting the same video, get sessions of their
// own, none numbered as seeding rand() with the clock would number it; each
// is read by one request process whose descriptors and memory stay put past
// its first segment. A request waiting for the transcode gives up as soon as
// it is closed, and the place is free again. Opens under one caller's id
// all get it.
TEST_F(LoadTest, ManySessionsOpenedAndReadAtOnce) {
  ServeAsWebServerUser();
  const std::string media = orvotest::TestMedia(orvotest::Media::kLongH264AacMp4);
  // VTE_Init, then (with `init`) Init as the next request would.
  const auto startOpen = [&](const Json::Value& options, bool init) {
    return StartRequest([&] {
      const std::string id = VTEStream::VTE_Init(media, "HLS", options,
                                                 std::string(ORVOVTE_SAMPLE_PROFILES) + "/hls.json",
                                                 "hls_remux_h264_aac_ab128", "browser", 0);
      if (!init) return id;
      Json::Value params;
      params["url"] = "/api/stream";
      params["format"] = "hls";
      return HttpLiveStream(id).Init(params, Json::Value(), "", "") ? id : "Init failed: " + id;
    });
  };
  const time_t now = time(nullptr);
  std::vector<Request> opens;
  for (int i = 0; i < 4; ++i) opens.push_back(StartOpen("t" + std::to_string(i), "slow"));
  for (int i = 0; i < 20; ++i) opens.push_back(startOpen(Json::Value(), true));
  std::multiset<std::string> answers;
  std::string transcode;
  for (int i = 0; i < 4; ++i) {
    answers.insert(FinishRequest(opens[i], 60));
    if (answers.count("ok") == 1 && transcode.empty()) transcode = "t" + std::to_string(i);
  }
  EXPECT_EQ(answers,
            (std::multiset<std::string>{"TransEnable", "TransEnable", "TransEnable", "ok"}));
  std::set<std::string> ids;
  for (int i = 4; i < 24; ++i) ids.insert(FinishRequest(opens[i], 60));
  ASSERT_EQ(ids.size(), 20u);
  const std::string digest = LibReelhall::GetMD5(media);
  for (const std::string& id : ids) ASSERT_EQ(id.rfind(digest + "_", 0), 0u) << id;
  for (time_t seed = now - 600; seed <= now + 60; ++seed) {
    srand(static_cast<unsigned int>(seed));
    EXPECT_EQ(ids.count(digest + "_" + std::to_string(rand())), 0u) << "seed " << seed;
  }

  std::vector<Request> readers;
  for (const std::string& id : ids) {
    readers.push_back(StartRequest([id] {
      const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
      };
      const auto residentKb = [] {
        struct rusage usage;
        return getrusage(RUSAGE_SELF, &usage) == 0 ? usage.ru_maxrss : -1;
      };
      std::vector<std::string> served;
      long fds = 0;
      long kb = 0;
      for (int fragment = 0; fragment < 3; ++fragment) {
        HttpLiveStream stream(id);
        const std::string number = std::to_string(fragment);
        served.push_back(stream.Transcoding(number) ? stream.ReadFragment(number) : "");
        if (fragment == 0) {
          fds = descriptors();
          kb = residentKb();
        }
      }
      std::string wrong;
      if (descriptors() != fds) wrong += "descriptors grew; ";
      if (residentKb() - kb >= 2048) wrong += "memory grew; ";
      for (const std::string& path : served) {
        if (!orvotest::CompleteSegment(path)) wrong += "not served whole: " + path + "; ";
      }
      return wrong;
    }));
  }
  EXPECT_TRUE(orvotest::CompleteSegment(Segment(transcode, 0)));
  EXPECT_EQ(Open("t4", "paced"), "TransEnable");
  for (Request& reader : readers) EXPECT_EQ(FinishRequest(reader, 60), "");
  for (const std::string& id : ids) EXPECT_TRUE(Close(id)) << id;

  // Far ahead: a new run starts there, seconds from writing it.
  const pid_t waiting = StartSegment(transcode, 15);
  ASSERT_TRUE(
      orvotest::WaitUntil([&] { return ReadFile(File(transcode, "seek_time")) == "15"; }, 10000));
  EXPECT_TRUE(Close(transcode));
  EXPECT_EQ(orvotest::WaitForChild(waiting, 5), 1) << "the request waited on after the close";
  EXPECT_EQ(Open("t5", "paced"), "ok");
  EXPECT_TRUE(Close("t5"));
  Json::Value shared;
  shared["stream_id"] = "shared";
  opens.clear();
  for (int i = 0; i < 10; ++i) opens.push_back(startOpen(shared, false));
  for (Request& open : opens) EXPECT_EQ(FinishRequest(open, 60), "shared");
  EXPECT_EQ(Leftovers(15), "");
  orvotest::HostileRow("load",
                       "4 transcode opens and 20 remux opens of one file at once, each remux "
                       "read 3 segments deep; 10 opens with one `stream_id`" +
                           std::string(geteuid() == 0 ? " (requests as nobody, root saved)" : ""),
                       "1 transcode admitted, 3 refused at open, as is a 5th while it plays, "
                       "the next admitted once it is closed (its waiting request giving up); 20 "
                       "sessions of their own, none a clock-seeded rand() id; 60 whole segments, "
                       "request descriptors and memory flat; all 10 get the shared id");
}

}  // namespace
}  // namespace LibOrvoVTE
