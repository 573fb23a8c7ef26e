// Requests served as on the NAS, by the web server's user with root saved.
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "metadata/video_metadata.h"
#include "subtitle/subtitle.h"
#include "tests/support/child.h"
#include "tests/support/documents.h"
#include "tests/support/hostile_table.h"
#include "tests/support/log_capture.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "vte/http_live_stream.h"
#include "vte/utils/md5.h"
#include "vte/utils/trans_loading.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

using LoadTest = orvotest::PlaybackTest;
using PrivilegeTest = orvotest::PlaybackTest;

// A generic box runs one software transcoder: of four opens at once one is
// admitted. Twenty viewers starting the same video get sessions of their own.
TEST_F(LoadTest, ManySessionsOpenedAndReadAtOnce) {
  ServeAsWebServerUser();
  const std::string media = orvotest::TestMedia(orvotest::Media::kLongH264AacMp4);
  // Twenty remux opens that name no id, then ten that all name one.
  std::vector<Request> opens;
  for (int i = 0; i < 4; ++i) opens.push_back(StartOpen("t" + std::to_string(i), "slow"));
  for (int i = 0; i < 30; ++i) {
    opens.push_back(StartRequest([&] {
      const std::string id = VTEStream::VTE_Init(
          media, "HLS", orvotest::ParseJson(i < 20 ? "{}" : R"({"stream_id":"shared"})"),
          std::string(ORVOVTE_SAMPLE_PROFILES) + "/hls.json", "hls_remux_h264_aac_ab128", "browser",
          0);
      const Json::Value params = orvotest::ParseJson(R"({"url":"/api/stream","format":"hls"})");
      return i >= 20 || HttpLiveStream(id).Init(params, Json::Value(), "", "") ? id : "";
    }));
  }
  std::string transcode;
  for (int i = 0; i < 4; ++i) {
    const std::string answer = FinishRequest(opens[i], 60);
    EXPECT_TRUE(answer == "ok" || answer == "TransEnable") << answer;
    if (answer == "ok") transcode += "t" + std::to_string(i);
  }
  ASSERT_EQ(transcode.size(), 2u) << "admitted: " << transcode;
  std::set<std::string> ids;
  for (int i = 4; i < 24; ++i) ids.insert(FinishRequest(opens[i], 60));
  ASSERT_EQ(ids.size(), 20u);
  const std::string digest = LibReelhall::GetMD5(media) + "_";
  for (const std::string& id : ids) EXPECT_EQ(id.rfind(digest, 0), 0u) << id;
  for (int i = 24; i < 34; ++i) EXPECT_EQ(FinishRequest(opens[i], 60), "shared");

  std::vector<Request> readers;
  for (const std::string& id : ids) {
    readers.push_back(StartRequest([id] {
      std::string wrong;
      for (int fragment = 0; fragment < 3; ++fragment) {
        HttpLiveStream stream(id);
        const std::string number = std::to_string(fragment);
        const std::string path = stream.Transcoding(number) ? stream.ReadFragment(number) : "";
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
  EXPECT_EQ(Leftovers(15), "");
  orvotest::HostileRow("load", "4 transcode and 20 remux opens of one file at once, 10 of one id",
                       "1 transcode admitted; 20 sessions read 3 segments deep; the 10 share one");
}

// A process that gave root up for good must not see media, which may belong
// to any user.
TEST_F(PrivilegeTest, RootOnlyInsideTheLibrarysScopes) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to keep a saved root and to drop it";
  ServeAsWebServerUser();
  const std::string media = orvotest::TestMedia(orvotest::Media::kLongH264AacMp4);
  ASSERT_EQ(Open("s", "remux"), "ok");
  const std::string kept = FinishRequest(StartRequest([&] {
    std::string wrong;
    const auto check = [&](const std::string& call, const std::function<void()>& body) {
      body();
      if (geteuid() != getuid() || getegid() != getgid()) wrong += call + " kept root; ";
    };
    Json::Value doc, out(Json::arrayValue);
    check("VTE_Init", [&] {
      VTEStream::VTE_Init(media, "HLS", Json::Value(), "/nonexistent", "remux", "browser", 0);
    });
    check("LoadFile", [&] { VideoMetaData().LoadFile(media); });
    check("ReadMetaDataFromFFMPEG", [&] { VideoMetaData::ReadMetaDataFromFFMPEG(media, doc); });
    check("GetExternalSubtitle", [&] { librh::subtitle::GetExternalSubtitle(media, out); });
    check("TransLoading", [&] { LibReelhall::TransLoading().TransEnable(false); });
    HttpLiveStream stream("s");
    check("Transcoding", [&] { stream.Transcoding("0"); });
    check("ReadFragment", [&] { stream.ReadFragment("0"); });
    check("GetMainfest", [&] { stream.GetMainfest("", ""); });
    check("Close", [&] { stream.Close(); });
    return wrong;
  }));
  EXPECT_EQ(kept, "");
  EXPECT_EQ(Leftovers(), "");
  orvotest::HostileRow("privileges", "effective ids nobody, root saved; every public call",
                       "the caller's effective ids after every call");

  ASSERT_EQ(0, access(media.c_str(), R_OK)) << "the clip must be readable without root";
  const std::string seen = orvotest::TextFromChild([&] {
    if (!orvotest::DropToUnprivilegedUser()) return std::string("cannot drop");
    orvotest::LogCapture log;
    Json::Value doc(Json::objectValue);
    const int found = VerifyFileExist(media, 0) + VideoMetaData().LoadFile(media) +
                      VideoMetaData::ReadMetaDataFromFFMPEG(media, doc);
    int refusals = 0;
    for (const orvotest::LoggedLine& line : log.Lines()) {
      refusals += line.priority == (LOG_AUTH | LOG_ERR) &&
                  line.text.find(" ERROR: IF_RUN_AS(0, 0)") != std::string::npos;
    }
    return std::to_string(found) + " seen, " + std::to_string(refusals) + " refusals logged";
  });
  EXPECT_EQ(seen, "0 seen, 3 refusals logged");
}

}  // namespace
}  // namespace LibOrvoVTE
