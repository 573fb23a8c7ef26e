#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "vte/liborvovte.h"
#include "vte/utils/trans_loading.h"
#include "vte/utils/vteutils.h"

// Every case opens real sessions made by VTE_Init from generated media.
namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::Media;

constexpr char kProfiles[] =
    "{\"encode\": \"-vcodec libx264 -s hd720 -acodec aac\","
    " \"copy\": \"-vcodec copy -bsf:v h264_mp4toannexb -acodec aac\","
    " \"pipeline\": \"vaapih264enc rate-control=cbr ! h264parse ! mpegtsmux\","
    " \"smd\": \"-vcodec h264_smd -s hd720 -acodec aac\"}";

class OpenedStream : public VTEStream {
 public:
  OpenedStream(const std::string& id, const std::string& type) : VTEStream(id, type) {}
};

// "opened" or "refused", and the error code the stream was left with.
std::string Outcome(bool opened, const VTEStream& stream) {
  const std::string error = stream.GetErrorString();
  return std::string(opened ? "opened" : "refused") + (error.empty() ? "" : " " + error);
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
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
  void SetUp() override {
    profiles_ = root_.At("/profiles.json");
    std::ofstream(profiles_) << kProfiles;
  }

  // A session of `media` with `profile`, opened by a new stream object.
  std::string Open(const std::string& media, const std::string& profile,
                   const std::string& audioId = "", bool stopOfflineConversion = false) {
    return Create(media, profile) ? Check(audioId, stopOfflineConversion) : "no session";
  }
  bool Create(const std::string& media, const std::string& profile) {
    // Ids drawn from the clock repeat within a second: each session gets its own.
    Json::Value params;
    params["stream_id"] = "open-" + std::to_string(++sessions_);
    id_ = VTEStream::VTE_Init(media, kType, params, profiles_, profile, "browser", 0);
    return !id_.empty();
  }
  std::string Check(const std::string& audioId, bool stopOfflineConversion) {
    OpenedStream stream(id_, kType);
    return Outcome(stream.InitStreamCommon(audioId, stopOfflineConversion), stream);
  }

  std::string SessionDir() const {
    return root_.At(std::string(librh::machine::kTempRoot) + "/" + kType + "/" + id_);
  }
  std::string SessionFile(const std::string& name) const { return SessionDir() + "/" + name; }

  // A small file made by ffmpeg from `recipe`, the words between its common
  // options and the output name.
  std::string Generate(const std::string& name, const std::string& recipe) const {
    const std::string path = root_.At("/media/" + name);
    fs::create_directories(fs::path(path).parent_path());
    std::vector<std::string> argv = orvotest::SplitWords("ffmpeg -nostdin -y -v error " + recipe);
    argv.push_back(path);
    EXPECT_EQ(0, orvotest::RunQuietly(argv, 60)) << "generating " << name;
    return path;
  }

  // A progressive type: an adaptive one would hold its place from the open on.
  static constexpr char kType[] = "WEBM";
  orvotest::MachineRoot root_;
  std::string profiles_;
  std::string id_;
  int sessions_ = 0;
};

TEST_F(OpenChecksTest, AudioMustBeDecodableUnlessThereIsNone) {
  const std::string tracks = orvotest::TestMedia(Media::kTracksMkv);  // AAC 1, AC-3 2
  const std::string silent = orvotest::TestMedia(Media::kVideoOnlyAvi);
  // Both restricted, as track 1 of each.
  const std::string eac3 = orvotest::TestMedia(Media::kH264High10Eac3Mkv);
  const std::string dts = orvotest::TestMedia(Media::kAnamorphicDtsMkv);
  enum Allowance { kNone, kSwitchedOn, kCustomFFmpeg };
  struct Row {
    std::string media, audioId;
    Allowance allowance;
    std::string outcome;
  } rows[] = {
      {tracks, "", kNone, "opened"},
      {tracks, "2", kNone, "opened"},
      {tracks, "7", kNone, "refused TransAudioNotSupported"},
      {eac3, "", kNone, "refused TransAudioNotSupported"},
      {eac3, "1", kNone, "refused TransAudioNotSupported"},
      {dts, "1", kNone, "refused TransAudioNotSupported"},
      {eac3, "1", kSwitchedOn, "opened"},
      {dts, "1", kSwitchedOn, "opened"},
      {dts, "1", kCustomFFmpeg, "opened"},
      {silent, "5", kNone, "opened"},  // no audio at all: any id will do
  };
  for (const Row& row : rows) {
    const std::string context = row.media + " audio [" + row.audioId + "] allowance " +
                                std::to_string(row.allowance);
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

TEST_F(OpenChecksTest, HardwareEnginesRefuseWhatExceedsThem) {
  const std::string h264 = orvotest::TestMedia(Media::kH264AacMp4);
  const std::string vp9 = orvotest::TestMedia(Media::kVp9VorbisWebm);
  // Each exceeds one limit of a hardware engine: taller than 2160, 4K-sized
  // at 25 fps, 10-bit, and too tall for Evansport.
  auto video = [&](const std::string& name, const std::string& size, const std::string& codec) {
    return Generate(name, "-f lavfi -i testsrc=size=" + size + ":rate=25:duration=0.2 " + codec);
  };
  const std::string x264 = "-c:v libx264 -preset ultrafast -pix_fmt ";
  const std::string tall = video("tall.mp4", "16x2176", x264 + "yuv420p");
  const std::string fast4k = video("fast4k.mp4", "16x1936", x264 + "yuv420p");
  const std::string high10 = video("high10.mp4", "64x64", x264 + "yuv420p10le");
  const std::string mjpeg = video("tall.avi", "16x496", "-c:v mjpeg -pix_fmt yuvj420p");
  struct Row {
    const char* platform;
    const char* profile;
    std::string media, outcome;
  } rows[] = {
      {"monaco", "pipeline", vp9, "refused TransVideoNotHardwareSupported"},
      {"monaco", "pipeline", tall, "refused TransVideoOutOfResolutionCapability"},
      {"monaco", "pipeline", high10, "refused TransVideoOutOfProfileCapability"},
      {"monaco", "pipeline", fast4k, "refused TransVideoOutOfFramerateCapability"},
      {"monaco", "pipeline", h264, "opened"},
      {"monaco", "encode", vp9, "opened"},  // software needs no engine
      {"evansport", "smd", mjpeg, "refused TransVideoNotSupported"},
      {"evansport", "smd", tall, "opened"},
      {"evansport", "encode", mjpeg, "opened"},
      {"braswell", "pipeline", vp9, "opened"},  // its pipeline choice decides instead
  };
  for (const Row& row : rows) {
    orvotest::PlatformFiles files;
    files.name = row.platform;
    root_.Play(files);
    EXPECT_EQ(row.outcome, Open(row.media, row.profile))
        << row.platform << " " << row.profile << " " << row.media;
  }
}

TEST_F(OpenChecksTest, OfflineConversionBlocksUnlessAskedToYield) {
  const std::string h264 = orvotest::TestMedia(Media::kH264AacMp4);
  StandIn service({"--yield-after", "1"});
  ASSERT_TRUE(service.Ready());
  EXPECT_EQ("refused TransEnableOfflineConverting", Open(h264, "encode"));
  EXPECT_TRUE(service.Running()) << "a stream that does not ask must not disturb the service";

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ("opened", Open(h264, "encode", "", true));
  const double waited = SecondsSince(start);
  EXPECT_EQ(0, service.Wait(10)) << "the service was asked to yield and did";
  EXPECT_GE(waited, 1.0) << "the stream waits for the service";
  EXPECT_LT(waited, 10.0);
  EXPECT_EQ(-1, OLIBCReadPidFile(StandIn::PidFile().c_str()));
}

}  // namespace
}  // namespace LibOrvoVTE
