#include "vte/liborvovte.h"

#include <filesystem>
#include <fstream>
#include <regex>

#include <gtest/gtest.h>

#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/md5.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::Media;

constexpr char kCopyProfile[] = "-vcodec copy -bsf:v h264_mp4toannexb -acodec aac";
constexpr char kEncodeProfile[] = "-vcodec libx264 -s hd720 -acodec aac";

// Exposes what a stream derived from its session.
class SessionView : public VTEStream {
 public:
  SessionView(const std::string& id, const std::string& type) : VTEStream(id, type) {}
  std::string Derived() const {
    return std::string(remux_ ? "remux" : "transcode") + " [" + profileArgs_ + "] " + metadata_.GetProfileKey() +
           " " + metadata_.GetDevice() + " " + metadata_.GetFilePath();
  }
};

class SessionTest : public orvotest::MachineRootTest {
 protected:
  void SetUp() override {
    MachineRootTest::SetUp();
    clip_ = orvotest::TestMedia(Media::kH264AacMp4);
    profiles_ = Root().At("/profiles.json");
    std::ofstream(profiles_) << "{\"copy\": \"" << kCopyProfile << "\", \"encode\": \"" << kEncodeProfile
                             << "\"}\n";
  }
  std::string Create(const std::string& type, const std::string& profile,
                     unsigned long long neededBytes = 0, const std::string& streamId = "") {
    Json::Value params;
    if (!streamId.empty()) params["stream_id"] = streamId;
    return VTEStream::VTE_Init(clip_, type, params, profiles_, profile, "browser", neededBytes);
  }
  std::string SessionPath(const std::string& type, const std::string& id) {
    return Root().At("/tmp/Reelhall/" + type + "/" + id);
  }

  std::string clip_;
  std::string profiles_;
};

// Without a string "stream_id" the id is the MD5 of the path, "_" and a
// number. "HTTP" sessions are plain directories; the others link to one on
// a volume, replacing a stale file in the way. Every later request is
// another process: what it sees is only what the session left on disk.
TEST_F(SessionTest, SessionsAreMadeOnDiskAndReadBackInAnotherProcess) {
  const std::string id = Create("HTTP", "encode");
  EXPECT_TRUE(std::regex_match(id, std::regex(LibReelhall::GetMD5(clip_) + "_[0-9]+"))) << id;
  // Every digest is 32 hex digits, one starting with a zero byte too.
  EXPECT_EQ("0019d23bef56a136a1891211d7007f6f", LibReelhall::GetMD5(std::string(100000, '\0')));
  EXPECT_TRUE(fs::is_directory(fs::symlink_status(SessionPath("HTTP", id))));
  for (const std::string type : {"HLS", "SS", "WEBM"}) {
    const std::string link = SessionPath(type, "fixed");
    fs::create_directories(fs::path(link).parent_path());
    std::ofstream(link) << "left over";
    ASSERT_EQ("fixed", Create(type, "copy", 0, "fixed")) << type;
    const std::string target = Root().At("/volume1/@tmp/Reelhall/" + type + "/fixed");
    EXPECT_EQ(target, fs::read_symlink(link).string()) << type;
    EXPECT_TRUE(fs::exists(target + "/video_metadata")) << type;
  }
  EXPECT_EQ("remux [" + std::string(kCopyProfile) + "] copy browser " + clip_,
            orvotest::TextFromChild([] { return SessionView("fixed", "HLS").Derived(); }));
  EXPECT_EQ("transcode [" + std::string(kEncodeProfile) + "] encode browser " + clip_,
            orvotest::TextFromChild([&] { return SessionView(id, "HTTP").Derived(); }));
}

// A profile that cannot be read, or an argument missing, leaves no session
// a later request could use.
TEST_F(SessionTest, UnusableArgumentsLeaveNoUsableSession) {
  const std::string notJson = Root().At("/not.json");
  std::ofstream(notJson) << "hls = -vcodec copy";
  const struct {
    std::string path, type, file, profile;
  } rows[] = {{clip_, "HTTP", profiles_, "absent"}, {clip_, "HLS", profiles_, "absent"},
              {clip_, "HLS", notJson, "encode"},    {clip_, "HLS", Root().At("/missing.json"), "encode"},
              {"", "HLS", profiles_, "encode"},     {clip_, "", profiles_, "encode"},
              {clip_, "HLS", "", "encode"},         {clip_, "HLS", profiles_, ""}};
  for (const auto& row : rows) {
    Json::Value params;
    params["stream_id"] = "bad";
    EXPECT_EQ("", VTEStream::VTE_Init(row.path, row.type, params, row.file, row.profile, "", 0))
        << row.type << " " << row.file << " " << row.profile;
    EXPECT_EQ("transcode [] ", SessionView("bad", row.type).Derived().substr(0, 13)) << row.file;
  }
  EXPECT_FALSE(fs::exists(SessionPath("HLS", "bad") + "/video_metadata"));
}

}  // namespace
}  // namespace LibOrvoVTE
