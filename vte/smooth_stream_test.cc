#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "vte/smooth_stream.h"
#include "vte/utils/vteutils.h"

// Fragment requests judged against staged session files: no transcoder runs
// here (the playback test runs real ones).
namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;

constexpr char kProfile[] = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";

class StagedSmooth : public SmoothStream {
 public:
  using SmoothStream::SmoothStream;
  std::string Arguments(long seek, bool hardware) {
    seekTime = seek;
    hardware_ = hardware;
    return orvotest::JoinWords(CalculateFFmpegArgument());
  }
};

std::string Fragment(const std::string& type, const std::string& time) {
  return "QualityLevels(200000)/Fragments(" + type + "=" + time + ")";
}

class SmoothRequests : public orvotest::MachineRootTest {
 protected:
  void SetUp() override {
    MachineRootTest::SetUp();
    ASSERT_EQ("req", orvotest::CreateSession(orvotest::Media::kH264AacMp4, "SS", "smooth.json", kProfile, "req"));
  }
  std::string File(const std::string& name) { return orvotest::SessionPath("SS", "req", name); }
  // Replaces the fragments with video ones of a whole box each at `times`
  // (100 ns).
  void Stage(const std::string& seekTime, const std::vector<long long>& times) {
    fs::remove_all(File("smooth"));
    fs::remove(File("seek_time"));
    if (!seekTime.empty()) SaveFile(File("seek_time"), seekTime);
    fs::create_directories(File("smooth/QualityLevels(200000)"));
    for (long long time : times) {
      std::ofstream(File("smooth/" + Fragment("video", std::to_string(time)))) << std::string("\0\0\0\x08" "free", 8);
    }
  }
};

TEST_F(SmoothRequests, SeeksOnlyFarAheadOrBehindTheRun) {
  SmoothStream stream("req");
  const std::vector<long long> upTo60 = {0, 50000000, 550000000, 600000000};
  const struct {
    const char* seekTime;  // "" for none
    std::vector<long long> fragments;
    std::string request;
    bool seek;
  } cases[] = {
      {"", {}, Fragment("video", "0"), true},  // nothing started yet
      {"0", {}, Fragment("video", "0"), false},
      {"0", upTo60, Fragment("video", "1100000000"), false},  // exactly 50 s ahead
      {"0", upTo60, Fragment("video", "1100000001"), true},
      {"0", upTo60, Fragment("audio", "1200000000"), true},  // no audio yet: from the start
      {"0", {}, Fragment("video", "500000000"), false},
      {"0", {}, Fragment("video", "500000001"), true},
      {"120", {}, Fragment("video", "1200000000"), false},
      {"120", {}, Fragment("video", "1199999999"), true},  // before the run
      {"0", upTo60, Fragment("video", "9223372036854775807"), true},
      {"0", upTo60, "garbage", false},  // ids without a time count as time 0
      {"120", {}, Fragment("video", "abc"), true},
  };
  for (const auto& c : cases) {
    Stage(c.seekTime, c.fragments);
    EXPECT_EQ(stream.IsNeedToSeek(c.request), c.seek)
        << c.request << " with seek_time \"" << c.seekTime << "\" and " << c.fragments.size() << " fragments";
  }
  EXPECT_EQ(stream.CalculateSeekTime(Fragment("video", "1234567890")), 123);
  EXPECT_EQ(ReadFile(File("seek_time")), "123");
}

TEST_F(SmoothRequests, FragmentIsReadyOnceALaterOneStartedAndServedOnlyWhole) {
  SmoothStream stream("req");
  Stage("0", {0, 50000000, 100000000});
  // A live monitor: this test's own process.
  ASSERT_TRUE(stream.SaveMonitorPid(getpid(), false));
  const struct {
    std::string id;
    unsigned int ahead;
    bool ready;
  } cases[] = {
      {Fragment("video", "50000000"), 0, true},
      {Fragment("video", "100000000"), 0, false},  // still being written
      {Fragment("video", "50000000"), 1, false},
      {Fragment("video", "12345"), 0, true},  // not on the 5-second grid
      {Fragment("audio", "0"), 0, false},
      // The largest multiple of 5 s that a long long holds: no wrap-around.
      {Fragment("video", "9223372036850000000"), 0, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(stream.VerifyFragmentIsReady(c.id, c.ahead), c.ready) << c.id << " +" << c.ahead;
  }
  // With the transcoder ended, what exists is all there will be.
  SaveFile(File("monitor.pid"), "999999999");
  EXPECT_TRUE(stream.VerifyFragmentIsReady(Fragment("video", "100000000"), 0));
  // A whole fragment is served at once; one cut short by a full volume (its
  // mdat announces more than the file holds) is removed.
  const std::string path = File("smooth/" + Fragment("video", "0"));
  EXPECT_EQ(stream.ReadFragment(Fragment("video", "0")), path);
  std::ofstream(path, std::ios::app) << std::string("\0\0\0\x64mdat", 8) << "short";
  EXPECT_EQ(stream.ReadFragment(Fragment("video", "0")), "");
  EXPECT_FALSE(fs::exists(path));
}

// The predicted size comes from the seek; a quarter-turned picture is
// fitted into the frame with bars, also by a profile that has no filters of
// its own (the playback test shows it fitted by the software profile's).
TEST_F(SmoothRequests, TranscoderArgumentsCarryThePredictedSize) {
  const std::string head = "-vcodec libx264 -preset veryfast";
  const std::string software = StagedSmooth("req").Arguments(120, false);
  EXPECT_EQ(head, software.substr(0, head.size()));
  EXPECT_NE(software.find(" -bufsize 400000 -s 320x240 -vf setsar=0/1 "), std::string::npos) << software;
  EXPECT_EQ(" -ac 2 -fragment_length 5 -seek_time 120", software.substr(software.find(" -ac 2 ")));
  const std::string hardware = StagedSmooth("req").Arguments(120, true);
  EXPECT_EQ(" -ac 2 -fragment_length 5 -seek_time 120 -filled 1", hardware.substr(hardware.find(" -ac 2 ")));
  ASSERT_EQ("turned", orvotest::CreateSession(orvotest::Media::kRotatedMp4, "SS", "smooth.json",
                                              "smoothstreaming_240p_h264_smd_vb200_aac_ab40", "turned"));
  const std::string turned = StagedSmooth("turned").Arguments(0, false);
  EXPECT_EQ(" -ac 2 -vf scale=w='if(gt(dar,320/240),320,2*trunc(240*dar/2))':"
            "h='if(gt(dar,320/240),2*trunc(320/dar/2),240)',pad=320:240:-1:-1 -fragment_length 5 -seek_time 0",
            turned.substr(turned.find(" -ac 2 ")));
}

}  // namespace
}  // namespace LibOrvoVTE
