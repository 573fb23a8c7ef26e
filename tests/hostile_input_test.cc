// Client-controlled ids and query values that try to leave the session
// directory or break a playlist or manifest line. Every case records what it
// tried in the hostile-input table.
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/hostile_table.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "toolkit/files.h"
#include "vte/hls_subtitle_playlists.h"
#include "vte/http_live_stream.h"
#include "vte/smooth_stream.h"

namespace LibOrvoVTE {
namespace {

using orvotest::HostileRow;
using orvotest::Printable;

constexpr char kHlsProfile[] = "hls_remux_h264_aac_ab128";
constexpr char kSmoothProfile[] = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";

class HostileInputTest : public orvotest::MachineRootTest {
 protected:
  // Files a hostile id would reach from a session directory.
  void PlantVictims() {
    Root().WriteFile(std::string(librh::machine::kTempRoot) + "/victim/keep", "keep");
    Root().WriteFile("/victim/keep", "keep");
  }
  bool VictimsIntact() {
    return toolkit::ReadWholeFile(Root().At(std::string(librh::machine::kTempRoot) + "/victim/keep")) == "keep" &&
           toolkit::ReadWholeFile(Root().At("/victim/keep")) == "keep";
  }

  // Creates and opens a session as two web requests would; "ok", or what
  // failed.
  std::string Open(const std::string& type, const std::string& id, const Json::Value& params) {
    return orvotest::TextFromChild([&] {
      const bool hls = type == "HLS";
      const std::string made =
          orvotest::CreateSession(orvotest::Media::kH264AacMp4, type, hls ? "hls.json" : "smooth.json",
                                  hls ? kHlsProfile : kSmoothProfile, id);
      if (made != id) return "VTE_Init gave \"" + made + "\"";
      const bool opened = hls ? HttpLiveStream(id).Init(params, Json::Value(), "", "")
                              : SmoothStream(id).Init(params, Json::Value(), "", "");
      return std::string(opened ? "ok" : "Init failed");
    });
  }
};

TEST_F(HostileInputTest, StreamIdsThatLeaveTheSessionDirectoryAreRefusedEverywhere) {
  PlantVictims();
  const std::vector<std::string> ids = {"../victim", "../../victim", "/victim", "a/b", ".", "..",
                                        "", "  \t ", "id\nx", "id\rx", "id\x1b", "id\x7f"};
  for (const std::string& id : ids) {
    for (const std::string type : {"HLS", "SS"}) {
      // Every entry point: session creation, then a stream object of the id
      // asked to open, serve and close.
      const std::string result = orvotest::TextFromChild([&] {
        const std::string made = orvotest::CreateSession(orvotest::Media::kH264AacMp4, type,
                                                         type == "HLS" ? "hls.json" : "smooth.json",
                                                         type == "HLS" ? kHlsProfile : kSmoothProfile,
                                                         id);
        std::unique_ptr<AdaptStream> stream;
        if (type == "HLS") {
          stream = std::make_unique<HttpLiveStream>(id);
        } else {
          stream = std::make_unique<SmoothStream>(id);
        }
        Json::Value params;
        params["url"] = "/api/stream";
        params["format"] = "x";
        const bool opened = stream->Init(params, Json::Value(), "", "");
        const bool transcoding = stream->Transcoding("0");
        const std::string fragment = stream->ReadFragment("0");
        const bool closed = stream->Close();
        return "init=\"" + made + "\" " + std::to_string(opened) + std::to_string(transcoding) +
               std::to_string(closed) + fragment;
      });
      EXPECT_EQ(result, "init=\"\" 000") << type << " " << Printable(id);
      EXPECT_TRUE(VictimsIntact()) << type << " " << Printable(id);
      if (result == "init=\"\" 000" && VictimsIntact()) {
        HostileRow("stream id (" + type + ")", "`" + Printable(id) + "`",
                   "VTE_Init returns \"\"; Init, Transcoding, Close refuse; nothing outside touched");
      }
    }
  }
}

TEST_F(HostileInputTest, FragmentAndSubtitleIdsStayInTheSession) {
  PlantVictims();
  Json::Value params;
  params["url"] = "/api/stream";
  params["format"] = "ss";
  ASSERT_EQ(Open("SS", "ssid", params), "ok");
  for (const std::string fragment :
       {"QualityLevels(200000)/Fragments(video=../../victim)", "../../../victim/keep",
        "QualityLevels(200000)/../../victim", "QualityLevels(1)/Fragments(video=99999999999999999999999)",
        "QualityLevels(1)/Fragments(audio=-50000000)"}) {
    const std::string served = orvotest::TextFromChild(
        [&] { return SmoothStream("ssid").ReadFragment(fragment); }, 20);
    const std::string session = orvotest::SessionPath("SS", "ssid");
    EXPECT_TRUE(served.empty() || served.compare(0, session.size() + 1, session + "/") == 0)
        << fragment << " -> " << served;
    EXPECT_EQ(served.find(".."), std::string::npos) << fragment << " -> " << served;
    EXPECT_TRUE(VictimsIntact()) << fragment;
    HostileRow("Smooth fragment id", "`" + Printable(fragment) + "`",
               served.empty() ? "refused (\"\")" : "a path inside the session");
  }
  for (const auto& [id, name] :
       std::vector<std::pair<std::string, std::string>>{{"../../victim/keep", "keep.subtitle.m3u8"},
                                                       {"/etc/passwd", "passwd.subtitle.m3u8"},
                                                       {"..", "...subtitle.m3u8"},
                                                       {"dir/", ""}}) {
    EXPECT_EQ(hls::SubtitlePlaylistName(id), name) << id;
    HostileRow("subtitle id", "`" + Printable(id) + "`",
               name.empty() ? "no playlist name (refused)" : "playlist `" + name + "` in the session");
  }
}

TEST_F(HostileInputTest, QueryValuesThatWouldBreakALineFailTheUrl) {
  struct Case {
    std::string type, key, value;
    bool opens;
  };
  const std::vector<Case> cases = {
      {"HLS", "_sid", "abc\n#EXT-X-ENDLIST", false},
      {"HLS", "token", "a\rb", false},
      {"HLS", "api", "x\ty", false},
      {"HLS", "method", "m\x7f", false},
      {"HLS", "url", "/api\x01/stream", false},
      {"HLS", "OrvoToken", "safe-token_1.~", true},
      {"SS", "_sid", "abc\n</SmoothStreamingMedia>", false},
      {"SS", "sharing_id", "a\x0b", false},
      {"SS", "OrvoToken", "x\"/><Evil a=\"", true},
      {"SS", "method", "a<b&c", true},
  };
  int number = 0;
  for (const Case& c : cases) {
    Json::Value params;
    params["url"] = "/api/stream";
    params["format"] = c.type == "HLS" ? "hls" : "ss";
    params[c.key] = c.value;
    const std::string id = "q" + std::to_string(number++);
    const std::string result = Open(c.type, id, params);
    EXPECT_EQ(result, c.opens ? "ok" : "Init failed") << c.type << " " << c.key;
    std::string outcome = result == "ok" ? "opens" : "Init fails, no playlist written";
    if (c.opens && result == "ok") {
      const std::string text =
          toolkit::ReadWholeFile(orvotest::SessionPath(c.type, id, c.type == "HLS" ? id + ".m3u8" : "manifest_predict"));
      if (c.type == "HLS") {
        EXPECT_NE(text.find(c.value), std::string::npos) << text;
      } else {
        // Escaped inside the attribute: the document keeps its one root.
        EXPECT_EQ(text.find("<Evil"), std::string::npos) << text;
        EXPECT_EQ(text.find("a<b"), std::string::npos) << text;
        EXPECT_NE(text.find("&lt;"), std::string::npos) << text;
        outcome = "opens, value escaped in the manifest";
      }
    } else if (!c.opens) {
      EXPECT_FALSE(orvotest::Exists(orvotest::SessionPath(c.type, id, id + ".m3u8")));
      EXPECT_TRUE(toolkit::ReadWholeFile(orvotest::SessionPath(c.type, id, "manifest_predict")).empty());
    }
    HostileRow("query value (" + c.type + ")", "`" + c.key + "=" + Printable(c.value) + "`", outcome);
  }

  Json::Value subtitle;
  subtitle["url"] = "/api/subtitle";
  subtitle["id"] = "s";
  subtitle["subtitle_id"] = "1";
  subtitle["_sid"] = "a\nb";
  EXPECT_EQ(hls::SubtitleURLTemplate(subtitle), "");
  subtitle["_sid"] = "ab";
  EXPECT_NE(hls::SubtitleURLTemplate(subtitle), "");
  HostileRow("query value (subtitle URL)", "`_sid=a\\nb`", "no subtitle URL (the playlist is not written)");
}

}  // namespace
}  // namespace LibOrvoVTE
