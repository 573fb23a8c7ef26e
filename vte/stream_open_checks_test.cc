#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "vte/liborvovte.h"
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

// "opened" or "refused", and the error code the stream was left with.
std::string Outcome(bool opened, const VTEStream& stream) {
  const std::string error = stream.GetErrorString();
  return std::string(opened ? "opened" : "refused") + (error.empty() ? "" : " " + error);
}

// The offline conversion service, played by the conversion-standin program.
class StandIn {
 public:
  explicit StandIn(std::vector<std::string> options) {
    options.insert(options.begin(), ORVOTEST_CONVERSION_STANDIN);
    if (access(options[0].c_str(), X_OK) != 0) {
      ADD_FAILURE() << options[0] << " is missing: build the conversion-standin target";
      return;
    }
    pid_ = orvotest::StartProgram(options);
    // It writes its pid file once its registry entry is in place.
    for (int tick = 0; tick < 1000 && !Ready(); ++tick) usleep(10 * 1000);
    EXPECT_TRUE(Ready()) << "the stand-in never registered";
  }
  ~StandIn() {
    if (pid_ > 0) kill(pid_, SIGTERM);
    Wait(10);
  }

  bool Ready() const { return pid_ > 0 && OLIBCReadPidFile(PidFile().c_str()) == pid_; }
  bool Running() const { return pid_ > 0 && OLIBCProcAlive(pid_); }
  // Its exit status once it has ended by itself; -1 when late (then killed).
  int Wait(int timeoutSeconds) {
    const int status = pid_ > 0 ? orvotest::WaitForChild(pid_, timeoutSeconds) : -1;
    pid_ = -1;
    return status;
  }
  static std::string PidFile() {
    return librh::machine::Resolve(librh::machine::kConversionPidFile);
  }

 private:
  pid_t pid_ = -1;
};

class OpenChecksTest : public ::testing::Test {
 protected:
  // A session of `media` with `profile` as VTE_Init leaves it, `change`d,
  // opened by a new stream object.
  std::string Open(Media media, const char* profile, const std::string& audioId = "",
                   bool stopOfflineConversion = false,
                   const std::function<void(Json::Value&)>& change = nullptr) {
    Json::Value doc = orvotest::SessionDocument(media, kProfiles.at(profile));
    if (change) change(doc["track_info"]["video"][0u]);
    // Each open gets a session of its own, as VTE_Init would give it.
    id_ = "open-" + std::to_string(++sessions_);
    orvotest::WriteSession(kType, id_, doc);
    OpenedStream stream(id_, kType);
    return Outcome(stream.InitStreamCommon(audioId, stopOfflineConversion), stream);
  }
  std::string SessionFile(const std::string& name) const {
    return root_.At(std::string(librh::machine::kTempRoot) + "/" + kType + "/" + id_ + "/" + name);
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
      {tracks, "", kNone, "opened"},
      {tracks, "2", kNone, "opened"},
      {tracks, "7", kNone, "refused TransAudioNotSupported"},
      {eac3, "", kNone, "refused TransAudioNotSupported"},
      {dts, "1", kNone, "refused TransAudioNotSupported"},
      {eac3, "1", kSwitchedOn, "opened"},
      {dts, "1", kCustomFFmpeg, "opened"},
      {Media::kVideoOnlyAvi, "5", kNone, "opened"},  // no audio at all: any id will do
  };
  for (const auto& row : rows) {
    const std::string context = orvotest::MediaName(row.media) + " audio [" + row.audioId +
                                "] allowance " + std::to_string(row.allowance);
    root_.WriteFile(librh::machine::kCodecsConf, row.allowance == kSwitchedOn
                                                     ? "support_codec_dts=\"yes\"\n"
                                                     : "support_codec_dts=\"no\"\n");
    std::error_code ignored;
    fs::remove(root_.At(librh::machine::kSystemFFmpeg), ignored);
    if (row.allowance == kCustomFFmpeg) root_.WriteFile(librh::machine::kSystemFFmpeg, "#!/bin/sh\n");

    EXPECT_EQ(row.outcome, Open(row.media, "encode", row.audioId)) << context;
    const bool saved = row.outcome == "opened" && !row.audioId.empty();
    EXPECT_EQ(saved ? row.audioId : "", ReadFile(SessionFile("audio_id"))) << context;
  }
}

// Each picture exceeds one limit of a hardware engine: taller than 2160,
// 4K-sized at 25 fps, 10-bit, and too tall for Evansport's MJPEG decoder.
TEST_F(OpenChecksTest, HardwareEnginesRefuseWhatExceedsThem) {
  using Change = std::function<void(Json::Value&)>;
  const auto sized = [](int width, int height, const char* codec = "h264") -> Change {
    return [=](Json::Value& video) {
      video["resolutionx"] = width;
      video["resolutiony"] = height;
      video["codec"] = codec;
      video["framerate"] = 25.0;
    };
  };
  const Change tall = sized(16, 2176), fast4k = sized(16, 1936), mjpeg = sized(16, 496, "mjpeg");
  const Change vp9 = [](Json::Value& video) { video["codec"] = "vp9"; };
  const Change high10 = [](Json::Value& video) { video["profile"] = "High 10"; };
  const struct {
    const char* platform;
    const char* profile;
    Change change;
    std::string outcome;
  } rows[] = {
      {"monaco", "pipeline", vp9, "refused TransVideoNotHardwareSupported"},
      {"monaco", "pipeline", tall, "refused TransVideoOutOfResolutionCapability"},
      {"monaco", "pipeline", high10, "refused TransVideoOutOfProfileCapability"},
      {"monaco", "pipeline", fast4k, "refused TransVideoOutOfFramerateCapability"},
      {"monaco", "pipeline", nullptr, "opened"},
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
    EXPECT_EQ(row.outcome, Open(Media::kH264AacMp4, row.profile, "", false, row.change))
        << row.platform << " " << row.profile << ", expected " << row.outcome;
  }
}

// Asked to, the stream waits for the service to give up its slot; on
// Braswell it need not.
TEST_F(OpenChecksTest, OfflineConversionBlocksUnlessAskedToYield) {
  StandIn service({"--yield-after", "1"});
  ASSERT_TRUE(service.Ready());
  EXPECT_EQ("refused TransEnableOfflineConverting", Open(Media::kH264AacMp4, "encode"));
  EXPECT_TRUE(service.Running()) << "a stream that does not ask must not disturb the service";
  EXPECT_EQ("opened", Open(Media::kH264AacMp4, "encode", "", true));
  EXPECT_EQ(-1, OLIBCReadPidFile(StandIn::PidFile().c_str())) << "opened before the service yielded";
  EXPECT_EQ(0, service.Wait(10)) << "the service was asked to yield and did";

  // Braswell's engine has room for both: its stream leaves the service be.
  orvotest::PlatformFiles braswell;
  braswell.name = "braswell";
  root_.Play(braswell);
  StandIn hardware({"--hardware"});
  EXPECT_EQ("opened", Open(Media::kH264AacMp4, "pipeline"));
  EXPECT_TRUE(hardware.Running() && hardware.Ready()) << "the service must be left undisturbed";
}

}  // namespace
}  // namespace LibOrvoVTE
