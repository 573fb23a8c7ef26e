#include "vte/liborvovte.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include <gtest/gtest.h>

#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/log_capture.h"
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
constexpr char kEvansportProfile[] = "-vcodec h264_smd -s hd720 -acodec aac";
constexpr char kPipelineProfile[] = "vaapih264enc rate-control=cbr ! h264parse";

// Exposes what a stream derived from its session.
class SessionView : public VTEStream {
 public:
  SessionView(const std::string& id, const std::string& type) : VTEStream(id, type) {}
  bool remux() const { return remux_; }
  bool hardware() const { return hardware_; }
  bool gstreamer() const { return gstreamer_; }
  const std::string& profileArgs() const { return profileArgs_; }
  const VTEMetaData& metadata() const { return metadata_; }
};

class SessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    clip_ = orvotest::TestMedia(Media::kH264AacMp4);
    ASSERT_FALSE(clip_.empty());
    profiles_ = root_.At("/profiles.json");
    std::ofstream(profiles_) << "{\"copy\": \"" << kCopyProfile << "\", \"encode\": \""
                             << kEncodeProfile << "\", \"evansport\": \"" << kEvansportProfile
                             << "\", \"pipeline\": \"" << kPipelineProfile << "\"}\n";
  }

  std::string Create(const std::string& type, const std::string& profile,
                     unsigned long long neededBytes = 0, const Json::Value& params = Json::Value()) {
    return VTEStream::VTE_Init(clip_, type, params, profiles_, profile, "browser", neededBytes);
  }

  std::string SessionPath(const std::string& type, const std::string& id) const {
    return root_.At("/tmp/Reelhall/" + type + "/" + id);
  }

  orvotest::MachineRoot root_;
  std::string clip_;
  std::string profiles_;
};

TEST_F(SessionTest, HttpSessionIsAPlainDirectoryHoldingTheSessionMetadata) {
  // Without a string "stream_id" the id is the MD5 of the path, "_" and a
  // decimal number.
  Json::Value numbered;
  numbered["stream_id"] = 42;
  for (const Json::Value& params : {Json::Value(), numbered}) {
    const std::string id = Create("HTTP", "encode", 0, params);
    ASSERT_TRUE(std::regex_match(id, std::regex(LibReelhall::GetMD5(clip_) + "_[0-9]+"))) << id;

    const std::string dir = SessionPath("HTTP", id);
    struct stat info;
    ASSERT_EQ(0, lstat(dir.c_str(), &info));
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(0777u, info.st_mode & 07777);

    Json::Value stored;
    ASSERT_TRUE(LibReelhall::ReadJsonFromFile(dir + "/video_metadata", stored));
    EXPECT_EQ(clip_, stored["path"].asString());
    EXPECT_TRUE(stored["filesize"].isString());
    EXPECT_EQ(1u, stored["track_info"]["video"].size());
    EXPECT_EQ("encode", stored["profile_key"].asString());
    EXPECT_EQ(kEncodeProfile, stored["profile_value"].asString());
    EXPECT_EQ("browser", stored["device"].asString());
  }
}

// A stale file or link in the way is replaced.
TEST_F(SessionTest, OtherTypesLinkToTheirDirectoryOnAVolume) {
  for (const std::string type : {"HLS", "SS", "WEBM"}) {
    Json::Value params;
    params["stream_id"] = "fixed-" + type;
    const std::string link = SessionPath(type, "fixed-" + type);
    fs::create_directories(fs::path(link).parent_path());
    std::ofstream(link) << "left over";
    for (int round = 0; round < 2; ++round) {
      ASSERT_EQ("fixed-" + type, Create(type, "encode", 0, params)) << round;
      std::error_code error;
      ASSERT_TRUE(fs::is_symlink(link, error)) << type;
      const std::string target = root_.At("/volume1/@tmp/Reelhall/" + type + "/fixed-" + type);
      EXPECT_EQ(target, fs::read_symlink(link, error).string()) << type;
      EXPECT_TRUE(fs::exists(target + "/video_metadata")) << type;
    }
  }
}

// The space a session asks for shows in the shortage message.
TEST_F(SessionTest, SpaceAskedFollowsTypeAndRemux) {
  // More than any volume here has.
  EXPECT_EQ(kTransSpaceNotEnough, Create("HLS", "copy", 1ULL << 62));
  EXPECT_EQ(0xDD00, OLIBCErrGet()) << "a volume, but too full";

  fs::remove_all(root_.At("/volume1"));
  struct Case {
    std::string type, profile;
    unsigned long long needed;
    std::string asked;
  } cases[] = {
      {"HLS", "copy", 0, "2147483648"},      {"HLS", "copy", 1234, "1234"},
      {"HLS", "encode", 1234, "536870912"},  {"SS", "copy", 1234, "536870912"},
      {"WEBM", "encode", 0, "536870912"},
  };
  for (const Case& c : cases) {
    orvotest::LogCapture log;
    EXPECT_EQ(kTransSpaceNotEnough, Create(c.type, c.profile, c.needed)) << c.type << c.profile;
    EXPECT_TRUE(log.Contains("There are not enough volume space for streaming " + c.type +
                             ". Need space [" + c.asked + " bytes]"))
        << c.type << " " << c.profile << "\n" << log.Dump();
    EXPECT_EQ(0x8300, OLIBCErrGet()) << "no volume at all";
  }
}

// A profile that cannot be read leaves no session a later request could use.
TEST_F(SessionTest, UnusableProfilesLeaveNoUsableSession) {
  const std::string notJson = root_.At("/not.json");
  std::ofstream(notJson) << "hls = -vcodec copy";
  const std::string directory = root_.At("/profiles.d");
  fs::create_directories(directory);
  const struct {
    std::string type, file, profile;
  } rows[] = {{"HTTP", profiles_, "absent"},
              {"HLS", profiles_, "absent"},
              {"HLS", notJson, "encode"},
              {"HLS", directory, "encode"},
              {"HLS", root_.At("/missing.json"), "encode"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.type + " " + row.file + " " + row.profile);
    orvotest::LogCapture log;
    Json::Value params;
    params["stream_id"] = "bad";
    EXPECT_EQ("", VTEStream::VTE_Init(clip_, row.type, params, row.file, row.profile, "", 0));
    EXPECT_TRUE(log.Has(LOG_ERR, "vtemetadata:93 Failed to copy transcoding profile [" +
                                     row.profile + "] in [" + row.file + "]"))
        << log.Dump();
    EXPECT_TRUE(log.Contains("VTEMetaData.ParserMetaData(bad, " + row.type + ") failed"))
        << log.Dump();
    SessionView later("bad", row.type);
    EXPECT_EQ("", later.profileArgs());
    EXPECT_FALSE(later.remux());
    EXPECT_EQ(0u, later.metadata().GetDuration());
  }
}

TEST_F(SessionTest, EmptyArgumentsCreateNothing) {
  EXPECT_EQ("", VTEStream::VTE_Init("", "HLS", Json::Value(), profiles_, "encode", "", 0));
  EXPECT_EQ("", VTEStream::VTE_Init(clip_, "", Json::Value(), profiles_, "encode", "", 0));
  EXPECT_EQ("", VTEStream::VTE_Init(clip_, "HLS", Json::Value(), "", "encode", "", 0));
  EXPECT_EQ("", VTEStream::VTE_Init(clip_, "HLS", Json::Value(), profiles_, "", "", 0));
  EXPECT_FALSE(fs::exists(root_.At("/tmp/Reelhall/HLS")));
}

// Every later request is another process: what it sees is only what the
// session left on disk.
TEST_F(SessionTest, StreamReattachesInAnotherProcess) {
  Json::Value params;
  params["stream_id"] = "copy";
  ASSERT_EQ("copy", Create("HLS", "copy", 0, params));
  const std::string seen = orvotest::TextFromChild([] {
    SessionView copy("copy", "HLS");
    const VTEMetaData& meta = copy.metadata();
    return std::string(copy.remux() ? "remux" : "transcode") + (copy.hardware() ? " hw" : "") +
           " [" + copy.profileArgs() + "] " + meta.GetProfileKey() + " " + meta.GetDevice() + " " +
           meta.GetFilePath() + " " + copy.GetFirstVideoInfo()["resolutionx"].asString();
  });
  EXPECT_EQ("remux [" + std::string(kCopyProfile) + "] copy browser " + clip_ + " 320", seen);
}

TEST(SessionPlatformTest, HardwareFlagsFollowThePlatform) {
  struct Case {
    std::string platform, profile;
    bool hardware, gstreamer;
  } cases[] = {
      {"evansport", "evansport", true, false}, {"evansport", "pipeline", false, false},
      {"braswell", "pipeline", true, true},    {"monaco", "pipeline", true, true},
      {"braswell", "encode", false, false},    {"x86", "pipeline", false, false},
  };
  for (const Case& c : cases) {
    orvotest::PlatformFiles platform;
    platform.name = c.platform;
    orvotest::MachineRoot root(platform);
    const std::string profiles = root.At("/profiles.json");
    std::ofstream(profiles) << "{\"evansport\": \"" << kEvansportProfile << "\", \"pipeline\": \""
                            << kPipelineProfile << "\", \"encode\": \"" << kEncodeProfile << "\"}";
    Json::Value params;
    params["stream_id"] = "hw";
    const std::string clip = orvotest::TestMedia(Media::kH264AacMp4);
    ASSERT_EQ("hw", VTEStream::VTE_Init(clip, "HLS", params, profiles, c.profile, "", 0));
    SessionView stream("hw", "HLS");
    EXPECT_EQ(c.hardware, stream.hardware()) << c.platform << " " << c.profile;
    EXPECT_EQ(c.gstreamer, stream.gstreamer()) << c.platform << " " << c.profile;
  }
}

TEST(SessionTrackInfoTest, ProbesVideoAndAudioLists) {
  orvotest::MachineRoot root;
  Json::Value video, audio;
  ASSERT_TRUE(VTEStream::GetTrackInfo(orvotest::TestMedia(Media::kTracksMkv), video, audio));
  EXPECT_EQ(1u, video.size());
  EXPECT_EQ(2u, audio.size());

  orvotest::LogCapture log;
  EXPECT_FALSE(VTEStream::GetTrackInfo(orvotest::TestMedia(Media::kNotMedia), video, audio));
  EXPECT_TRUE(log.Contains("ParserMetaDataFromFFMPEG fail.")) << log.Dump();
}

}  // namespace
}  // namespace LibOrvoVTE
