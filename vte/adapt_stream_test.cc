#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/documents.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "toolkit/files.h"
#include "vte/hls_playlists.h"
#include "vte/hls_subtitle_playlists.h"
#include "vte/http_live_stream.h"
#include "vte/smooth_manifest.h"
#include "vte/smooth_stream.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

// Adaptive streams' texts, and decisions on sessions staged from probed media
// (the playback tests run transcoders; hostile ids: tests/hostile_input_test.cc).
namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::Media;
using orvotest::ParseJson;

constexpr char kUrl[] = "/api/stream?format=hls&id=s1";
constexpr char kEncode[] =
    "-vcodec libx264 -preset veryfast -s 320x240 -b:v 300k -acodec libfdk_aac -ab 64k -ar 48000";
using HlsSubtitleSessionTest = orvotest::MachineRootTest;

TEST(HlsPlaylistsTest, VideoPlaylistCoversTheDurationWithAShortLastSegment) {
  EXPECT_EQ("#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00000\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00001\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00002\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00003\n"
            "#EXTINF:3,\n/api/stream?format=hls&id=s1&fragment_id=00004\n"
            "#EXT-X-ENDLIST\n",
            hls::VideoPlaylist(kUrl, 23, 5));
  // Nanoseconds zero-padded: tokens compare as text.
  EXPECT_EQ("5123.000417001", hls::SequenceToken({5123, 417001}));
  EXPECT_FALSE(hls::IsNotOlderToken("5123.000417001", "5123.000417002"));
  EXPECT_TRUE(hls::IsNotOlderToken("5123.000417001", ""));
}

// A name made unique earlier counts as seen; ids are percent-encoded.
TEST(HlsPlaylistsTest, MasterPlaylistNamesRenditionsUniquelyAndEncodesTheirIds) {
  const std::string media =
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"%s\",NAME=\"%s\",DEFAULT=%s,"
      "FORCED=NO,URI=\"/api/stream?format=hls&id=s1&subtitle_id=%s&playlist_type=subtitle\"\n";
  const auto line = [&](const std::string& name, const char* isDefault, const std::string& id) {
    std::string text = media;
    for (const std::string& value : {name, name, std::string(isDefault), id}) text.replace(text.find("%s"), 2, value);
    return text;
  };
  EXPECT_EQ("#EXTM3U\n\n" + line("eng", "YES", "%2Fv%2FMovie.eng.srt") + line("eng-2", "NO", "2") +
                line("chi", "NO", "%2Fv%20a~%26%3D%C3%00") + line("eng-2-2", "NO", "3") + line("eng-3", "NO", "4") +
                "\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\","
                "SUBTITLES=\"subs\"\n/api/stream?format=hls&id=s1&playlist_type=video\n#EXT-X-ENDLIST\n",
            hls::MasterPlaylist(kUrl, {{"/v/Movie.eng.srt", "eng"},
                                       {"2", "eng"},
                                       {std::string("/v a~&=\xc3\0", 9), "chi"},
                                       {"3", "eng-2"},
                                       {"4", "eng"}}));
  EXPECT_EQ("#EXTM3U\n\n\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\"\n"
            "/api/stream?format=hls&id=s1&playlist_type=video\n#EXT-X-ENDLIST\n",
            hls::MasterPlaylist(kUrl, {}));
}

// Text tracks are offered from MP4 and Matroska only, labelled with a
// language code or a "shooter-N" name.
TEST(HlsPlaylistsTest, SubtitleUrlLanguagesAndTracks) {
  EXPECT_EQ(std::string("/s?id=m7&subtitle_id=") + hls::kSubtitleIdPlaceholder +
                "&subtitle_codepage=big5&api=A&version=2&method=get&_sid=S&OrvoToken=T",
            hls::SubtitleURLTemplate(ParseJson(R"({"url":"/s","id":"m7","subtitle_id":"all","OrvoToken":"T",
                "_sid":"S","method":"get","version":2,"api":"A","subtitle_codepage":"big5"})")));
  EXPECT_EQ("", hls::SubtitleURLTemplate(ParseJson(R"({"url":"/s","id":"m7","subtitle_id":3})")));
  const Json::Value tracks = ParseJson(R"([
      {"track":"2","codec":"mov_text","language":"eng"}, {"track":"3","codec":"hdmv_pgs_subtitle","language":"ger"},
      {"track":"4","codec":"ass","language":"shooter-1"}, {"track":"5","codec":"subrip","language":"shooter-12"},
      {"track":"6","codec":"ssa","language":123}, {"track":"7","codec":"subrip","language":"e1g"}, "not a track"])");
  std::string offered;
  for (const auto& entry : hls::InternalSubtitleEntries("mov,mp4,m4a,3gp,3g2,mj2", tracks)) {
    offered += entry.first + "=" + entry.second + " ";
  }
  EXPECT_EQ("2=eng 4=shooter-1 5=Internal 6=Internal 7=Internal ", offered);
  EXPECT_TRUE(hls::InternalSubtitleEntries("mpegts", tracks).empty());
}

// A Matroska file with a SubRip track ("fre", 3) beside subtitle files, each
// request in a process of its own; the short last entry asks for a whole window.
TEST_F(HlsSubtitleSessionTest, OffersFilesThenTracksAndWritesPlaylistsInsideTheSession) {
  const std::string media = Root().At("/volume1/video");
  fs::create_directories(media);
  fs::create_symlink(orvotest::TestMedia(Media::kTracksMkv), media + "/Movie.mkv");
  for (const char* name : {"Movie.eng.srt", "Movie.srt", "Movie2.srt"}) {
    std::ofstream(media + "/" + name) << "1\n00:00:00,000 --> 00:00:01,000\nHi\n";
  }
  const std::string id = VTEStream::VTE_Init(
      media + "/Movie.mkv", "HLS", ParseJson(R"({"stream_id":"subs"})"),
      std::string(ORVOVTE_SAMPLE_PROFILES) + "/hls.json", "hls_320x240_x264_vb300_aac_ab64", "browser", 0);
  ASSERT_EQ("subs", id);
  ASSERT_EQ(0, orvotest::RunInChild([&] {
    const bool opened = HttpLiveStream(id).Init(ParseJson(R"({"url":"/api/stream","format":"hls"})"),
                                                ParseJson(R"({"url":"/s","id":"m7","subtitle_id":"all"})"), "", "");
    return opened ? 0 : 1;
  }));
  const std::string dir = HttpLiveStream(id).GetVTEFileFullPath("");

  // Files in pattern order (Movie2.srt is another video's), then the track.
  EXPECT_EQ(hls::MasterPlaylist("/api/stream?format=hls&id=subs", {{media + "/Movie.eng.srt", "eng"},
                                                                     {media + "/Movie.srt", "External"},
                                                                     {"3", "fre"}}),
            toolkit::ReadWholeFile(dir + "/" + id + ".m3u8"));
  EXPECT_EQ(dir + "/Movie.eng.srt.subtitle.m3u8", orvotest::TextFromChild([&] {
              return HttpLiveStream(id).GetMainfest("subtitle", media + "/Movie.eng.srt");
            }));
  EXPECT_EQ("#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-ALLOW-CACHE:YES\n#EXTINF:2,\n"
            "/s?id=m7&subtitle_id=" + hls::PercentEncode(media + "/Movie.eng.srt") +
                "&preview=false&output_webvtt=true&webvtt_start_time=0&webvtt_end_time=5\n#EXT-X-ENDLIST\n",
            toolkit::ReadWholeFile(dir + "/Movie.eng.srt.subtitle.m3u8"));
}

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

// An Apple TV's timestamps a second later (the copied video's 8-second segments
// are seen by tests/adaptive_playback_test.cc). Audio copied where HLS carries it,
// else as asked.
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
      {Media::kH264AacMp4, kEncode, "appletv", "", "", "3", false, "16 5 3 0; copy - -"},
      {Media::kH264AacMp4, kEncode, "browser", "", "", "abc", true, "0 5 abc -; copy - -"},
      {Media::kH264AacMp4, kEncode, "browser", "mp3", "", "0", false, "0 5 0 0; libshine 64k 48000"},
      {Media::kAc3DataTs, kEncode, "browser", "ac3_copy", "", "0", false, "0 5 0 0; copy - -"},
      {Media::kAc3DataTs, kEncode, "chromecast", "ac3_copy", mp2, "0", false, "0 5 0 0; libfdk_aac 64k 48000"},
      {Media::kAc3DataTs, kEncode, "browser", "aac", "", "0", false, "0 5 0 0; libfdk_aac 64k 48000"},
      {Media::kAudioOnlyMp3, kEncode, "browser", "", "", "0", false, "- - - -; - - -"},  // nothing to segment
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
  }
}

// Callers built against the system's declaration link to the non-const symbol.
static_assert(std::is_same_v<decltype(&VTEStream::ForceFFmpegAudioFormat),
                             std::vector<std::string> (VTEStream::*)(
                                 const std::vector<std::string>&, const std::string&)>);

// A 1920x800 video's size fitted to the profile's box (a hardware encoder
// gets it without an aspect; one that cannot be fitted stays as it was).
TEST_F(HttpLiveStreamTest, VideoSizeFittedToTheSource) {
  const struct {
    int sar, rotate;
    const char* profile;
    const char* options;
    bool noAspect;
    const char* forced;
  } rows[] = {
      {0, 0, "-vcodec libx264", "-vcodec x -s hd720 -r 25", false, "-vcodec x -s 1280x720 -aspect 1.77778 -r 25"},
      {0, 0, "-vcodec libx264", "-s hd720", true, "-s 1280x532"},
      // ffmpeg carries a source's own sample aspect ratio over by itself.
      {1, 0, "-vcodec libx264", "-s hd720", false, "-s 1280x720"},
      {0, 90, "-vcodec libx264", "-s hd720", false, "-s 720x1280 -aspect 0.5625"},
      {0, 0, "-vcodec libx264", "-s hd4k", false, "-s hd4k"},
      {0, 0, "-vcodec h264_smd -s hd720", "-s hd720", false, "-s 1280x532"},
  };
  orvotest::PlatformFiles evansport;
  evansport.name = "evansport";
  Root().Play(evansport);
  for (const auto& row : rows) {
    Json::Value doc = orvotest::SessionDocument(Media::kH264AacMp4, row.profile);
    Json::Value& video = doc["track_info"]["video"][0u];
    video["resolutionx"] = 1920;
    video["resolutiony"] = 800;
    video["sample_aspect_ratio_num"] = video["sample_aspect_ratio_den"] = row.sar;
    video["rotate"] = row.rotate;
    orvotest::WriteSession("HLS", "sized", doc);
    EXPECT_EQ(row.forced, orvotest::JoinWords(InspectedStream("sized").ForceFFmpegVideoSize(
                              orvotest::SplitWords(row.options), row.noAspect)))
        << row.profile << ": " << row.options << " sar " << row.sar << " rotate " << row.rotate;
  }
}

// A 12-second video's session with these segments and "seek_time"; its
// monitor this process or none.
class SegmentStateTest : public HttpLiveStreamTest {
 protected:
  void SetUp() override {
    HttpLiveStreamTest::SetUp();
    Json::Value doc = orvotest::SessionDocument(Media::kH264AacMp4, kEncode);
    doc["duration"] = 12;
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

// Complete only once its last line in the transcoder's list is whole and
// gives its full length (cut lengths, torn packets and the short last segment
// are seen by FaultTest in tests/fault_test.cc).
TEST_F(SegmentStateTest, SegmentIsCompleteOnceTheTranscoderListsItWhole) {
  Prepare("", {1}, false);
  for (const auto& [list, ready] :
       {std::pair{"slice-00001.ts,5.021333,10.000000\n", true}, std::pair{"slice-00001.ts,5.000000,10.000000", false},
        std::pair{"slice-00001.ts,5.000000,10.000000\nslice-00001.ts,0.000000,2.200000\n", false}}) {
    std::ofstream(dir_ + "/segments.csv") << list;
    EXPECT_EQ(ready, stream_->VerifyFragmentIsReady("1")) << list;
  }
}

constexpr char kSmoothProfile[] = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";

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
    ASSERT_EQ("req", orvotest::CreateSession(Media::kH264AacMp4, "SS", "smooth.json", kSmoothProfile, "req"));
  }
  std::string File(const std::string& name) { return orvotest::SessionPath("SS", "req", name); }
  // Video fragments of one whole box each at `times` (100 ns).
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
      {"0", upTo60, Fragment("video", "1100000000"), false},  // exactly 50 s ahead
      {"0", upTo60, Fragment("video", "1100000001"), true},
      {"0", upTo60, Fragment("audio", "1200000000"), true},  // no audio yet: from the start
      {"0", {}, Fragment("video", "500000001"), true},
      {"120", {}, Fragment("video", "1199999999"), true},  // before the run
      {"0", upTo60, Fragment("video", "9223372036854775807"), true},
      {"0", upTo60, "garbage", false},  // ids without a time count as time 0
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
  // One cut short by a full volume (its mdat announces more) is removed.
  const std::string path = File("smooth/" + Fragment("video", "0"));
  EXPECT_EQ(stream.ReadFragment(Fragment("video", "0")), path);
  std::ofstream(path, std::ios::app) << std::string("\0\0\0\x64mdat", 8) << "short";
  EXPECT_EQ(stream.ReadFragment(Fragment("video", "0")), "");
  EXPECT_FALSE(fs::exists(path));
}

// A hardware run is told its box is filled; a quarter-turned picture gets bars
// from a profile without filters too (the playback test sees the software
// profile's, with the predicted size, fragment length and seek).
TEST_F(SmoothRequests, TranscoderArgumentsCarryThePredictedSize) {
  const std::string hardware = StagedSmooth("req").Arguments(120, true);
  EXPECT_EQ(" -ac 2 -fragment_length 5 -seek_time 120 -filled 1", hardware.substr(hardware.find(" -ac 2 ")));
  ASSERT_EQ("turned", orvotest::CreateSession(Media::kRotatedMp4, "SS", "smooth.json",
                                              "smoothstreaming_240p_h264_smd_vb200_aac_ab40", "turned"));
  const std::string turned = StagedSmooth("turned").Arguments(0, false);
  EXPECT_EQ(" -ac 2 -vf scale=w='if(gt(dar,320/240),320,2*trunc(240*dar/2))':"
            "h='if(gt(dar,320/240),2*trunc(320/dar/2),240)',pad=320:240:-1:-1 -fragment_length 5 -seek_time 0",
            turned.substr(turned.find(" -ac 2 ")));
}

using smooth::QualityValues;

// Chunks of 5 s, the last one what is left; the total in single precision;
// the nearer aspect class and the hardware list.
TEST(SmoothManifest, ChunksDurationsUrlAttributeAspectClassesAndHardwareSets) {
  QualityValues values;
  ASSERT_TRUE(smooth::ProfileValues("smoothstreaming_240p_x264_vb200_vf15_aac_ab40", false, 4.0f / 3, values));
  const std::string url = "/api/stream?format=ss&amp;id=abc";
  const std::string longest = smooth::RenderManifest(7201, url, values);
  EXPECT_NE(longest.find("Duration=\"72009998336\""), std::string::npos);
  EXPECT_NE(longest.find("Chunks=\"1441\""), std::string::npos);
  EXPECT_NE(longest.find("<c n=\"1440\" d=\"10000000\" />\n</StreamIndex>"), std::string::npos);
  // Durations no file has; beyond a month, a fuzzed one overflowed.
  for (const float seconds : {0.0f, std::numeric_limits<float>::quiet_NaN(), 2678401.0f}) {
    EXPECT_EQ(smooth::RenderManifest(seconds, url, values), "") << seconds;
  }
  // A URL too long gives no manifest, not a cut one.
  EXPECT_EQ(smooth::RenderManifest(12, std::string(5000, 'u'), values), "");
  // The hardware sets cannot be regenerated here: one row stands for them.
  ASSERT_TRUE(smooth::ProfileValues("smoothstreaming_hd720_h264_smd_vb1500_aac_ab128", true, 2.35f, values));
  EXPECT_EQ("1280x540 000000016742c029da0140117efff00510050100000303e90000bb800f1832a00000000168ce1f20",
            values.width + "x" + values.height + " " + values.codecPrivateData);
  EXPECT_EQ("1.33 1.77 1.77 2.35 ", smooth::AspectClass(1.55f) + " " + smooth::AspectClass(1.56f) + " " +
                                        smooth::AspectClass(2.06f) + " " + smooth::AspectClass(2.07f) + " ");
}

// The software rows against what the stock x264 emits, every size in one run.
TEST(SmoothManifest, SoftwareParameterSetsAreWhatTheEncoderWrites) {
  std::string dir = (std::filesystem::temp_directory_path() / "smooth-sps-XXXXXX").string();
  ASSERT_NE(mkdtemp(dir.data()), nullptr);
  Json::Value profiles;
  ASSERT_TRUE(LibReelhall::ReadJsonFromFile(std::string(ORVOVTE_SAMPLE_PROFILES) + "/smooth.json", profiles));
  std::vector<std::string> argv =
      orvotest::SplitWords("ffmpeg -nostdin -y -v error -f lavfi -i testsrc=size=320x240:rate=25:duration=1");
  std::vector<std::pair<std::string, QualityValues>> outputs;
  for (const std::string& name : profiles.getMemberNames()) {
    if (name.find("_h264_smd_") != std::string::npos) continue;
    for (float ratio : {4.0f / 3, 16.0f / 9, 2.35f}) {
      QualityValues values;
      ASSERT_TRUE(smooth::ProfileValues(name, false, ratio, values)) << name;
      const std::string out = dir + "/" + std::to_string(outputs.size()) + ".h264";
      outputs.emplace_back(out, values);
      // The profile's video options, with the height key as the size.
      const std::vector<std::string> words = StringExplode(profiles[name].asString(), " ");
      for (size_t i = 0; i < words.size() && words[i] != "-acodec"; ++i) {
        argv.push_back(i > 0 && words[i - 1] == "-s" ? values.width + "x" + values.height : words[i]);
      }
      argv.insert(argv.end(), {"-pix_fmt", "yuv420p", "-frames:v", "1", "-f", "h264", out});
    }
  }
  ASSERT_EQ(orvotest::RunQuietly(argv, 60), 0);
  for (const auto& [path, values] : outputs) {
    // SPS and PPS open the stream; x264's own SEI follows.
    const std::string sets = orvotest::BytesFromHex(values.codecPrivateData);
    EXPECT_EQ(sets, toolkit::ReadWholeFile(path).substr(0, sets.size())) << values.width << "x" << values.height;
  }
  orvotest::RemoveTree(dir);
}

// The 2-second 4:3 clip's manifest with the caller's optional keys of the right
// type, escaped; a hardware profile without the engine, or no url, removes it.
TEST(SmoothInit, WritesTheManifestOrRemovesTheSession) {
  orvotest::MachineRoot root;
  Json::Value params = ParseJson(
      R"({"url": "/api/stream", "format": "ss", "api": "A.S", "version": 18446744073709551615, "method": 3,
          "hls_header": true, "token": "t\"k", "_sid": null, "OrvoToken": "o", "sharing_id": 1.5})");
  const std::string profile = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";
  ASSERT_EQ("ss1", orvotest::CreateSession(Media::kH264AacMp4, "SS", "smooth.json", profile, "ss1"));
  SmoothStream stream("ss1");
  ASSERT_TRUE(stream.Init(params, Json::Value(), "", "")) << stream.GetErrorString();
  const std::string url =
      "Url=\"/api/stream?format=ss&amp;id=ss1&amp;api=A.S&amp;version=18446744073709551615&amp;hls_header=1&amp;"
      "token=t&quot;k&amp;OrvoToken=o&amp;fragment_id=QualityLevels({bitrate})/";
  const std::string chunk = "<c n=\"0\" d=\"20000000\" />\n</StreamIndex>\n";
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
            "<SmoothStreamingMedia MajorVersion=\"2\" MinorVersion=\"0\" Duration=\"20000000\">\n"
            "<StreamIndex Type=\"video\" QualityLevels=\"1\" Chunks=\"1\" " +
                url + "Fragments(video={start time})\">\n"
                "<QualityLevel Index=\"0\" Bitrate=\"200000\" FourCC=\"H264\" MaxWidth=\"320\" "
                "MaxHeight=\"240\" CodecPrivateData=\"000000016742c01eda0507e840000003004000000783c58b"
                "a80000000168ce1f20\" />\n" +
                chunk + "<StreamIndex Type=\"audio\" QualityLevels=\"1\" Chunks=\"1\" " + url +
                "Fragments(audio={start time})\">\n"
                "<QualityLevel Index=\"0\" Bitrate=\"40000\" FourCC=\"AACL\" SamplingRate=\"48000\" "
                "Channels=\"2\" BitsPerSample=\"16\" PacketSize=\"4\" AudioTag=\"255\" "
                "CodecPrivateData=\"1190\" />\n" +
                chunk + "</SmoothStreamingMedia>\n",
            toolkit::ReadWholeFile(stream.GetMainfest()));
  EXPECT_TRUE(stream.Close());
  for (const auto& [failing, url] : {std::make_pair("smoothstreaming_hd1080_h264_smd_vb4500_aac_ab128", "/api/stream"),
                                     std::make_pair("smoothstreaming_240p_x264_vb200_vf15_aac_ab40", "")}) {
    ASSERT_EQ("ss2", orvotest::CreateSession(Media::kH264AacMp4, "SS", "smooth.json", failing, "ss2"));
    params["url"] = url;
    SmoothStream refused("ss2");
    EXPECT_FALSE(refused.Init(params, Json::Value(), "", "")) << failing;
    EXPECT_FALSE(VerifyFileExist(refused.GetVTEFileFullPath(""), 0)) << failing;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
