#include "vte/http_live_stream.h"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"

// The stream's decisions on sessions written straight from probed media;
// the processes they start are exercised in tests/hls_playback_test.cc.
namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::Media;

constexpr char kEncode[] =
    "-vcodec libx264 -preset veryfast -s 320x240 -b:v 300k -acodec libfdk_aac -ab 64k -ar 48000";
constexpr char kRemux[] = "-vcodec copy -bsf:v h264_mp4toannexb -acodec libfdk_aac -ab 128k";

// Looks at the run a monitor would start, with the seek it would compute.
class InspectedStream : public HttpLiveStream {
 public:
  using HttpLiveStream::HttpLiveStream;
  std::vector<std::string> RunArguments(const std::string& fragment) {
    seekTime_ = CalculateSeekTime(fragment);
    return CalculateFFmpegArgument(fragment);
  }
};

using HttpLiveStreamTest = orvotest::MachineRootTest;

// Segments of 8 seconds when the video is copied (its keyframes are far
// apart), else 5; an Apple TV's timestamps a second later. Audio is copied
// where HLS carries it and encoded where the client asks.
TEST_F(HttpLiveStreamTest, RunArgumentsSegmentFromTheRequestedFragment) {
  const std::string mp2 = orvotest::SessionDocument(Media::kAc3DataTs, "")["track_info"]["audio"][1]["id"].asString();
  const struct {
    Media media;
    const char* profile;
    std::string device, audioFormat, audioId, fragment;
    bool header;
    const char* expected;  // seek, segment time, start number, header option; audio encoder, rate, sampling
  } rows[] = {
      {Media::kH264AacMp4, kEncode, "browser", "", "", "00012", false, "60 5 00012 0; copy - -"},
      {Media::kH264AacMp4, kRemux, "browser", "", "", "00012", false, "96 8 00012 0; copy - -"},
      {Media::kH264AacMp4, kEncode, "appletv", "", "", "3", false, "16 5 3 0; copy - -"},
      {Media::kH264AacMp4, kEncode, "browser", "", "", "abc", true, "0 5 abc -; copy - -"},
      {Media::kH264AacMp4, kEncode, "browser", "mp3", "", "0", false, "0 5 0 0; libshine 64k 48000"},
      {Media::kH264AacMp4, kEncode, "browser", "ac3_copy", "", "0", false, "0 5 0 0; copy - -"},
      {Media::kAc3DataTs, kEncode, "browser", "ac3_copy", "", "0", false, "0 5 0 0; copy - -"},
      {Media::kAc3DataTs, kEncode, "chromecast", "ac3_copy", mp2, "0", false, "0 5 0 0; libfdk_aac 64k 48000"},
      {Media::kAc3DataTs, kEncode, "browser", "aac", "", "0", false, "0 5 0 0; libfdk_aac 64k 48000"},
      {Media::kAudioOnlyMp3, kEncode, "browser", "", "", "0", false, "- - - -; - - -"},  // nothing to segment
      {Media::kH264AacMp4, kEncode, "browser", "", "", "", false, "- - - -; - - -"},
  };
  for (const auto& row : rows) {
    Json::Value doc = orvotest::SessionDocument(row.media, row.profile);
    doc["device"] = row.device;
    const std::string dir = orvotest::WriteSession("HLS", "run", doc);
    if (!row.audioFormat.empty()) std::ofstream(dir + "/audio_format") << row.audioFormat;
    if (!row.audioId.empty()) std::ofstream(dir + "/audio_id") << row.audioId;
    InspectedStream stream("run");
    if (row.header) stream.EnableHLSHeader();
    const std::vector<std::string> args = stream.RunArguments(row.fragment);
    std::string found;
    for (const char* option : {"-hls_seek_time", "-segment_time", "-segment_start_number",
                               "-individual_header_trailer", "-acodec", "-ab", "-ar"}) {
      const auto at = std::find(args.begin(), args.end(), option);
      found += (at != args.end() && at + 1 != args.end() ? *(at + 1) : "-") + (option[1] == 'i' ? "; " : " ");
    }
    EXPECT_EQ(std::string(row.expected) + " ", found) << orvotest::JoinWords(args);
    // The profile's own options come first.
    EXPECT_TRUE(args.empty() || args[0] == "-vcodec") << orvotest::JoinWords(args);
    fs::remove_all(dir);
  }
}

// A 1920x800 video with sample aspect `sar`:`sar`, turned by `rotate`.
void WriteSizedSession(const orvotest::MachineRoot& root, const std::string& id, int sar, int rotate,
                  const std::string& profile) {
  const std::string sarText = std::to_string(sar);
  orvotest::MakeSession("HLS", id);
  root.WriteFile("/tmp/Reelhall/HLS/" + id + "/video_metadata",
                 R"({"container_type":"matroska,webm","profile_value":")" + profile +
                     R"(","track_info":{"video":[{"id":"0","track":"0","codec":"h264",)"
                     R"("resolutionx":1920,"resolutiony":800,"sample_aspect_ratio_num":)" +
                     sarText + R"(,"sample_aspect_ratio_den":)" + sarText +
                     R"(,"rotate":)" + std::to_string(rotate) +
                     R"(}],"audio":[{"id":"1","track":"1","codec":"aac"},)"
                     R"({"id":"2","track":"2","codec":"ac3"}]}})");
}

// Callers built against the system's own declaration name a non-const
// member; a const one would be another symbol, which they would not find.
static_assert(std::is_same_v<decltype(&VTEStream::ForceFFmpegAudioFormat),
                             std::vector<std::string> (VTEStream::*)(
                                 const std::vector<std::string>&, const std::string&)>);

// The size fitted to the source (a hardware encoder gets it without an
// aspect; one that cannot be fitted stays as it was).
TEST(ForcedOptionsTest, VideoSizeFittedToTheSource) {
  orvotest::MachineRoot root;
  WriteSizedSession(root, "square", 0, 0, "-vcodec libx264");
  WriteSizedSession(root, "sar", 1, 0, "-vcodec libx264");
  WriteSizedSession(root, "turned", 0, 90, "-vcodec libx264");
  WriteSizedSession(root, "hw", 0, 0, "-vcodec h264_smd -s hd720");
  const struct {
    const char* session;
    const char* options;
    bool noAspect;
    const char* forced;
  } rows[] = {
      {"square", "-vcodec x -s hd720 -r 25", false, "-vcodec x -s 1280x720 -aspect 1.77778 -r 25"},
      {"square", "-vcodec x -s hd720 -r 25", true, "-vcodec x -s 1280x532 -r 25"},
      // ffmpeg carries a source's own sample aspect ratio over by itself.
      {"sar", "-s hd720", false, "-s 1280x720"},
      {"turned", "-s hd720", false, "-s 720x1280 -aspect 0.5625"},
      {"turned", "-s hd720", true, "-s 300x720"},
      {"square", "hd720 -s", false, "hd720 -s"},
      {"square", "-s hd4k", false, "-s hd4k"},
      {"hw", "-s hd720", false, "-s 1280x532"},
  };
  orvotest::PlatformFiles evansport;
  evansport.name = "evansport";
  root.Play(evansport);
  for (const auto& row : rows) {
    EXPECT_EQ(row.forced, orvotest::JoinWords(InspectedStream(row.session).ForceFFmpegVideoSize(
                              orvotest::SplitWords(row.options), row.noAspect)))
        << row.session << " " << row.options << " noAspect " << row.noAspect;
  }
}


// A session with the given segments and "seek_time", whose monitor is this
// process (alive) or absent.
class SegmentStateTest : public HttpLiveStreamTest {
 protected:
  void Start(const Json::Value& doc) {
    dir_ = orvotest::WriteSession("HLS", "s", doc);
    stream_ = std::make_unique<HttpLiveStream>("s");
  }
  void Prepare(const std::string& seekTime, const std::set<int>& segments, bool running) {
    for (const auto& entry : fs::directory_iterator(dir_)) {
      if (entry.path().filename() != "video_metadata") fs::remove(entry.path());
    }
    if (!seekTime.empty()) std::ofstream(dir_ + "/seek_time") << seekTime;
    // Whole transport-stream packets.
    for (int segment : segments) std::ofstream(stream_->GetSegmentTsPath(segment)) << std::string(2 * 188, 'G');
    if (running) stream_->SaveMonitorPid(getpid(), false);
  }

  std::string dir_;
  std::unique_ptr<HttpLiveStream> stream_;
};

// A run restarts unless it is under way and will reach the segment soon
// (fewer than five segments ahead of where it started, or already written).
TEST_F(SegmentStateTest, RestartOnlyWhenTheRunWillNotReachTheSegmentSoon) {
  Start(orvotest::SessionDocument(Media::kH264AacMp4, kEncode));
  const struct {
    const char* seekTime;
    std::set<int> segments;
    bool running;
    const char* request;
    bool restart;
  } rows[] = {
      {"10", {}, false, "14", false}, {"10", {}, true, "15", true},    {"10", {11}, true, "15", false},
      {"10", {15}, false, "15", false}, {"10", {}, false, "15", true}, {"10", {}, true, "9", true},
      {"", {0}, true, "2", false},    {"", {}, false, "0", true},      {"abc", {}, false, "00003", false},
  };
  for (const auto& row : rows) {
    Prepare(row.seekTime, row.segments, row.running);
    EXPECT_EQ(row.restart, stream_->IsTransAndSegNeedToRestart(row.request))
        << "seek_time " << row.seekTime << ", request " << row.request << ", running " << row.running;
  }
}

// A restart is abandoned only when nothing will serve it: no request holds
// the start lock (another process here), no monitor, no segment.
TEST_F(SegmentStateTest, StartInTheWindowIsAbandonedOnlyWhenNobodyWillServeIt) {
  Start(orvotest::SessionDocument(Media::kH264AacMp4, kEncode));
  const std::string twelve = stream_->GetSegmentTsPath(12);
  Prepare("10", {}, false);
  EXPECT_FALSE(stream_->IsStartAbandoned(twelve)) << "no start was ever announced here";
  const pid_t announcer = orvotest::StartChild([&] {
    if (HttpLiveStream("s").TakeStartLock() < 0) return 1;
    std::ofstream(dir_ + "/held").flush();
    for (;;) pause();
  });
  ASSERT_TRUE(orvotest::WaitUntil([&] { return fs::exists(dir_ + "/held"); }, 10000));
  EXPECT_FALSE(stream_->IsStartAbandoned(twelve)) << "a start is announced";
  kill(announcer, SIGKILL);
  orvotest::WaitForChild(announcer, 5);
  EXPECT_TRUE(stream_->IsStartAbandoned(twelve)) << "its request died before forking";
  for (const bool running : {false, true}) {
    Prepare("10", running ? std::set<int>{} : std::set<int>{12}, running);
    std::ofstream(dir_ + "/start_lock").flush();
    EXPECT_FALSE(stream_->IsStartAbandoned(twelve)) << "running " << running;
  }
}

// Complete once listed with its full length (the last one with what is
// left); a run stopped by a signal lists its last segment cut short.
TEST_F(SegmentStateTest, SegmentIsCompleteOnceTheTranscoderListsItWhole) {
  Json::Value doc = orvotest::SessionDocument(Media::kH264AacMp4, kEncode);
  doc["duration"] = 12;
  Start(doc);
  const struct {
    const char* list;
    const char* request;
    bool ready;
  } rows[] = {
      {"slice-00001.ts,5.021333,10.000000\n", "00001", true},
      {"slice-00001.ts,5.000000,7.200000\n", "1", false},
      {"slice-00001.ts,5.000000,10.000000", "1", false},
      {"slice-00001.ts,5.000000,10.000000\nslice-00001.ts,0.000000,2.200000\n", "1", false},
      {"slice-00002.ts,10.000000,12.040000\n", "2", true},
      {"slice-00002.ts,10.000000,11.000000\n", "2", false},
  };
  for (const auto& row : rows) {
    Prepare("", {1, 2}, false);
    std::ofstream(dir_ + "/segments.csv") << row.list;
    EXPECT_EQ(row.ready, stream_->VerifyFragmentIsReady(row.request)) << row.list << " " << row.request;
  }
  // Listed whole, but a full volume tore its last packet.
  std::ofstream(stream_->GetSegmentTsPath(1), std::ios::app) << "G";
  EXPECT_FALSE(stream_->VerifyFragmentIsReady("1"));
}

}  // namespace
}  // namespace LibOrvoVTE
