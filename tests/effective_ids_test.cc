// Root rights only inside the library's own scopes: a caller running with
// an unprivileged effective user, but a saved root the library may raise to,
// must have its own effective ids back after every public call.
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "metadata/video_metadata.h"
#include "subtitle/subtitle.h"
#include "tests/support/child.h"
#include "tests/support/hostile_table.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "vte/http_live_stream.h"
#include "vte/utils/trans_loading.h"

namespace LibOrvoVTE {
namespace {

using EffectiveIdsTest = orvotest::PlaybackTest;

TEST_F(EffectiveIdsTest, EveryPublicCallHandsTheCallersIdsBack) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to keep a saved root";
  const struct passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  const uid_t uid = nobody->pw_uid;
  const gid_t gid = nobody->pw_gid;
  std::filesystem::permissions(Root().Path(), std::filesystem::perms::all);
  const std::string media = orvotest::TestMedia(orvotest::Media::kLongH264AacMp4);
  ASSERT_EQ(Open("s", "remux"), "ok");

  const std::string result = orvotest::TextFromChild(
      [&] {
        if (!orvotest::BecomeWebServerUser()) return std::string("setres");
        std::string wrong;
        const auto check = [&](const std::string& call, const std::function<void()>& body) {
          body();
          if (geteuid() != uid || getegid() != gid) {
            wrong += call + " left " + std::to_string(geteuid()) + "/" +
                     std::to_string(getegid()) + "; ";
          }
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
        return wrong.empty() ? std::string("ok") : wrong;
      },
      90);
  EXPECT_EQ(result, "ok");
  EXPECT_EQ(Leftovers(), "");
  if (result == "ok") {
    orvotest::HostileRow("privileges",
                         "effective uid/gid nobody with saved root; VTE_Init, LoadFile, probe, "
                         "subtitle search, registry, Transcoding, ReadFragment, GetMainfest, Close",
                         "the caller's effective ids after every call");
  }
}

}  // namespace
}  // namespace LibOrvoVTE
