// Root rights only inside the library's own scopes. A caller with an
// unprivileged effective user but a saved root gets its own effective ids
// back after every public call; a process that gave root up for good gets
// "no" from the existence test and the probe (media may belong to any user),
// and each refused switch reaches the auth log.
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <string>

#include "metadata/video_metadata.h"
#include "subtitle/subtitle.h"
#include "tests/support/child.h"
#include "tests/support/hostile_table.h"
#include "tests/support/log_capture.h"
#include "tests/support/playback.h"
#include "vte/http_live_stream.h"
#include "vte/utils/trans_loading.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

using PrivilegeTest = orvotest::PlaybackTest;

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
  orvotest::HostileRow("privileges",
                       "effective uid/gid nobody with saved root; VTE_Init, LoadFile, probe, "
                       "subtitle search, registry, Transcoding, ReadFragment, GetMainfest, Close",
                       "the caller's effective ids after every call");

  const std::string clip = orvotest::TestMedia(orvotest::Media::kH264AacMp4);
  ASSERT_EQ(0, access(clip.c_str(), R_OK)) << "the clip must be readable without root";
  const std::string seen = orvotest::TextFromChild([&] {
    if (!orvotest::DropToUnprivilegedUser()) return std::string("cannot drop");
    orvotest::LogCapture log;
    // The number of refused switches logged so far.
    const auto refusals = [&] {
      int count = 0;
      for (const orvotest::LoggedLine& line : log.Lines()) {
        const size_t at = line.text.rfind(" ERROR: IF_RUN_AS(0, 0)");
        count += line.priority == (LOG_AUTH | LOG_ERR) && at != std::string::npos &&
                 at + 23 == line.text.size();
      }
      return count;
    };
    std::string wrong;
    if (VerifyFileExist(clip, 0) || refusals() != 1) wrong += "existence; ";
    if (VideoMetaData().LoadFile(clip) || refusals() != 2) wrong += "load; ";
    // The file itself is world-readable, yet the probe must not run
    // unprivileged either.
    Json::Value doc(Json::objectValue);
    if (VideoMetaData::ReadMetaDataFromFFMPEG(clip, doc) || refusals() != 3 ||
        !log.Has(LOG_ERR, "video_metadata:386 ParserMetaDataFromFFMPEG fail.")) {
      wrong += "probe; ";
    }
    return wrong;
  });
  EXPECT_EQ(seen, "") << "seen, or not logged";
}

}  // namespace
}  // namespace LibOrvoVTE
