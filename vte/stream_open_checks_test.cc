#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/documents.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "vte/liborvovte.h"
#include "vte/utils/md5.h"
#include "vte/utils/vteutils.h"

// Every case opens a session holding the probe document of generated media.
namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::Media;

class OpenedStream : public VTEStream {
 public:
  OpenedStream(const std::string& id, const std::string& type) : VTEStream(id, type) {}
};

class OpenChecksTest : public ::testing::Test {
 protected:
  // A session of `media` with `profile` as VTE_Init leaves it, its video
  // changed by the keys of `video`, opened by a new stream object.
  std::string Open(Media media, const char* profile, const std::string& audioId = "",
                   bool stopOfflineConversion = false, const std::string& video = "{}") {
    Json::Value doc = orvotest::SessionDocument(media, kProfiles.at(profile));
    const Json::Value change = orvotest::ParseJson(video);
    for (const std::string& key : change.getMemberNames()) doc["track_info"]["video"][0u][key] = change[key];
    // Each open gets a session of its own, as VTE_Init would give it.
    id_ = "open-" + std::to_string(++sessions_);
    orvotest::WriteSession(kType, id_, doc);
    OpenedStream stream(id_, kType);
    const std::string outcome = stream.InitStreamCommon(audioId, stopOfflineConversion) ? "opened" : "refused";
    return outcome + (stream.GetErrorString().empty() ? "" : " " + stream.GetErrorString());
  }

  // A progressive type: an adaptive one would hold its place from the open on.
  static constexpr char kType[] = "WEBM";
  const std::map<std::string, std::string> kProfiles = {
      {"encode", "-vcodec libx264 -s hd720 -acodec aac"},
      {"pipeline", "vaapih264enc rate-control=cbr ! h264parse ! mpegtsmux"},
      {"smd", "-vcodec h264_smd -s hd720 -acodec aac"}};
  orvotest::MachineRoot root_;
  std::string id_;
  int sessions_ = 0;
};

TEST_F(OpenChecksTest, AudioMustBeDecodableUnlessThereIsNone) {
  // Restricted audio as track 1: E-AC-3 and DTS.
  const Media eac3 = Media::kH264High10Eac3Mkv, dts = Media::kAnamorphicDtsMkv;
  const Media tracks = Media::kTracksMkv;  // AAC 1, AC-3 2
  enum Allowance { kNone, kSwitchedOn, kCustomFFmpeg };
  const struct {
    Media media;
    std::string audioId;
    Allowance allowance;
    std::string outcome;
  } rows[] = {
      {tracks, "2", kNone, "opened"},
      {tracks, "7", kNone, "refused TransAudioNotSupported"},
      {eac3, "", kNone, "refused TransAudioNotSupported"},
      {dts, "1", kNone, "refused TransAudioNotSupported"},
      {eac3, "1", kSwitchedOn, "opened"},
      {dts, "1", kCustomFFmpeg, "opened"},
      {Media::kVideoOnlyAvi, "5", kNone, "opened"},  // no audio at all: any id will do
  };
  for (const auto& row : rows) {
    const std::string context = orvotest::MediaName(row.media) + " [" + row.audioId + "] " + std::to_string(row.allowance);
    root_.WriteFile(librh::machine::kCodecsConf,
                    std::string("support_codec_dts=") + (row.allowance == kSwitchedOn ? "\"yes\"\n" : "\"no\"\n"));
    std::error_code ignored;
    fs::remove(root_.At(librh::machine::kSystemFFmpeg), ignored);
    if (row.allowance == kCustomFFmpeg) root_.WriteFile(librh::machine::kSystemFFmpeg, "#!/bin/sh\n");

    EXPECT_EQ(row.outcome, Open(row.media, "encode", row.audioId)) << context;
    const bool saved = row.outcome == "opened" && !row.audioId.empty();
    EXPECT_EQ(saved ? row.audioId : "", ReadFile(root_.At("/tmp/Reelhall/WEBM/" + id_ + "/audio_id"))) << context;
  }
}

// Each picture exceeds one limit of a hardware engine: taller than 2160,
// 4K-sized at 25 fps, 10-bit, and too tall for Evansport's MJPEG decoder.
TEST_F(OpenChecksTest, HardwareEnginesRefuseWhatExceedsThem) {
  const std::string tall = R"({"resolutionx": 16, "resolutiony": 2176, "framerate": 25.0})";
  const std::string fast4k = R"({"resolutionx": 16, "resolutiony": 1936, "framerate": 25.0})";
  const std::string mjpeg = R"({"resolutionx": 16, "resolutiony": 496, "framerate": 25.0, "codec": "mjpeg"})";
  const std::string vp9 = R"({"codec": "vp9"})";
  const struct {
    const char* platform;
    const char* profile;
    std::string video;
    std::string outcome;
  } rows[] = {
      {"monaco", "pipeline", vp9, "refused TransVideoNotHardwareSupported"},
      {"monaco", "pipeline", tall, "refused TransVideoOutOfResolutionCapability"},
      {"monaco", "pipeline", R"({"profile": "High 10"})", "refused TransVideoOutOfProfileCapability"},
      {"monaco", "pipeline", fast4k, "refused TransVideoOutOfFramerateCapability"},
      {"monaco", "pipeline", "{}", "opened"},
      {"monaco", "encode", vp9, "opened"},  // software needs no engine
      {"evansport", "smd", mjpeg, "refused TransVideoNotSupported"},
      {"evansport", "smd", tall, "opened"},
      {"evansport", "encode", mjpeg, "opened"},
      {"braswell", "pipeline", vp9, "opened"},  // its pipeline choice decides instead
  };
  for (const auto& row : rows) {
    orvotest::PlatformFiles files;
    files.name = row.platform;
    root_.Play(files);
    EXPECT_EQ(row.outcome, Open(Media::kH264AacMp4, row.profile, "", false, row.video))
        << row.platform << " " << row.profile << ", expected " << row.outcome;
  }
}

// Asked to, the stream waits for the service to give up its slot; on
// Braswell it need not.
TEST_F(OpenChecksTest, OfflineConversionBlocksUnlessAskedToYield) {
  const std::string pidFile = librh::machine::Resolve(librh::machine::kConversionPidFile);
  // The service writes its pid file once its registry entry is in place.
  const auto start = [&](std::vector<std::string> argv) {
    argv.insert(argv.begin(), ORVOTEST_CONVERSION_STANDIN);
    const pid_t pid = orvotest::StartProgram(argv);
    EXPECT_TRUE(orvotest::WaitUntil([&] { return OLIBCReadPidFile(pidFile.c_str()) == pid; }, 10000));
    return pid;
  };
  const pid_t service = start({"--yield-after", "1"});
  EXPECT_EQ("refused TransEnableOfflineConverting", Open(Media::kH264AacMp4, "encode"));
  EXPECT_TRUE(OLIBCProcAlive(service)) << "a stream that does not ask must not disturb the service";
  EXPECT_EQ("opened", Open(Media::kH264AacMp4, "encode", "", true));
  EXPECT_EQ(-1, OLIBCReadPidFile(pidFile.c_str())) << "opened before the service yielded";
  EXPECT_EQ(0, orvotest::WaitForChild(service, 10)) << "the service was asked to yield and did";

  // Braswell's engine has room for both: its stream leaves the service be.
  orvotest::PlatformFiles braswell;
  braswell.name = "braswell";
  root_.Play(braswell);
  const pid_t hardware = start({"--hardware"});
  EXPECT_EQ("opened", Open(Media::kH264AacMp4, "pipeline"));
  EXPECT_EQ(hardware, OLIBCReadPidFile(pidFile.c_str())) << "the service must be left undisturbed";
  kill(hardware, SIGTERM);
  orvotest::WaitForChild(hardware, 10);
}

// Without a "stream_id" the id is the MD5 of the path, "_" and a number; a
// profile that cannot be read, or an argument missing, leaves no session.
TEST_F(OpenChecksTest, VTEInitNamesSessionsAndRefusesUnusableArguments) {
  const std::string clip = orvotest::TestMedia(Media::kH264AacMp4);
  const std::string profiles = root_.At("/profiles.json");
  root_.WriteFile("/profiles.json", R"({"encode": "-vcodec libx264"})");
  root_.WriteFile("/not.json", "hls = -vcodec copy");
  const std::string id = VTEStream::VTE_Init(clip, "HTTP", Json::Value(), profiles, "encode", "browser", 0);
  EXPECT_TRUE(std::regex_match(id, std::regex(LibReelhall::GetMD5(clip) + "_[0-9]+"))) << id;
  const struct {
    std::string path, type, file, profile;
  } rows[] = {{clip, "HLS", profiles, "absent"}, {clip, "HLS", root_.At("/not.json"), "encode"},
              {clip, "HLS", root_.At("/missing.json"), "encode"}, {"", "HLS", profiles, "encode"},
              {clip, "", profiles, "encode"}, {clip, "HLS", profiles, ""}};
  for (const auto& row : rows) {
    EXPECT_EQ("", VTEStream::VTE_Init(row.path, row.type, orvotest::ParseJson(R"({"stream_id": "bad"})"),
                                      row.file, row.profile, "", 0))
        << row.path << " " << row.type << " " << row.file << " " << row.profile;
  }
  EXPECT_FALSE(fs::exists(root_.At("/tmp/Reelhall/HLS/bad/video_metadata")));
}

}  // namespace
}  // namespace LibOrvoVTE
