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
#include "tests/support/documents.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "toolkit/files.h"
#include "vte/hls_playlists.h"
#include "vte/hls_subtitle_playlists.h"

// Playlists, and the stream's decisions on sessions written straight from
// probed media; the processes they start are exercised in
// tests/hls_playback_test.cc, hostile subtitle ids in tests/hostile_input_test.cc.
namespace LibOrvoVTE {
namespace hls {
namespace {

namespace fs = std::filesystem;
using orvotest::Media;
using orvotest::ParseJson;

constexpr char kUrl[] = "/api/stream?format=hls&id=s1";
constexpr char kEncode[] =
    "-vcodec libx264 -preset veryfast -s 320x240 -b:v 300k -acodec libfdk_aac -ab 64k -ar 48000";
constexpr char kRemux[] = "-vcodec copy -bsf:v h264_mp4toannexb -acodec libfdk_aac -ab 128k";

TEST(HlsPlaylistsTest, VideoPlaylistCoversTheDurationWithAShortLastSegment) {
  EXPECT_EQ("#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00000\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00001\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00002\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00003\n"
            "#EXTINF:3,\n/api/stream?format=hls&id=s1&fragment_id=00004\n"
            "#EXT-X-ENDLIST\n",
            VideoPlaylist(kUrl, 23, 5));
  // Nanoseconds zero-padded: tokens compare as text.
  EXPECT_EQ("5123.000417001", SequenceToken({5123, 417001}));
  EXPECT_FALSE(IsNotOlderToken("5123.000417001", "5123.000417002"));
  EXPECT_TRUE(IsNotOlderToken("5123.000417001", ""));
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
            MasterPlaylist(kUrl, {{"/v/Movie.eng.srt", "eng"},
                                  {"2", "eng"},
                                  {std::string("/v a~&=\xc3\0", 9), "chi"},
                                  {"3", "eng-2"},
                                  {"4", "eng"}}));
  EXPECT_EQ("#EXTM3U\n\n\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\"\n"
            "/api/stream?format=hls&id=s1&playlist_type=video\n#EXT-X-ENDLIST\n",
            MasterPlaylist(kUrl, {}));
}

// Text tracks are offered from MP4 and Matroska only.
TEST(HlsPlaylistsTest, SubtitleUrlLanguagesAndTracks) {
  EXPECT_EQ(std::string("/s?id=m7&subtitle_id=") + kSubtitleIdPlaceholder +
                "&subtitle_codepage=big5&api=A&version=2&method=get&_sid=S&OrvoToken=T",
            SubtitleURLTemplate(ParseJson(R"({"url":"/s","id":"m7","subtitle_id":"all","OrvoToken":"T","_sid":"S",
                                    "method":"get","version":2,"api":"A","subtitle_codepage":"big5"})")));
  EXPECT_EQ("", SubtitleURLTemplate(ParseJson(R"({"url":"/s","id":"m7","subtitle_id":3})")));
  std::string labels;
  for (const char* language : {R"("eng")", R"("e1g")", R"("shooter-3")", R"("shooter-12")", "123"}) {
    Json::Value info(Json::objectValue);
    info["language"] = ParseJson(language);
    labels += ValidateLanguage(info, "X") + " ";
  }
  EXPECT_EQ("eng X shooter-3 X X ", labels);
  const Json::Value tracks = ParseJson(R"([
      {"track":"2","codec":"mov_text","language":"eng"}, {"track":"3","codec":"hdmv_pgs_subtitle","language":"ger"},
      {"track":"4","codec":"ass","language":"shooter-1"}, {"track":"5","codec":"subrip","language":"und-x"},
      {"track":"6","codec":"ssa"}, "not a track"])");
  std::string offered;
  for (const auto& entry : InternalSubtitleEntries("mov,mp4,m4a,3gp,3g2,mj2", tracks)) {
    offered += entry.first + "=" + entry.second + " ";
  }
  EXPECT_EQ("2=eng 4=shooter-1 5=Internal 6=Internal ", offered);
  EXPECT_TRUE(InternalSubtitleEntries("mpegts", tracks).empty());
}

// A Matroska file with a SubRip track ("fre", 3) beside three subtitle files;
// each request in a process of its own. The short last entry asks for a
// whole window.
TEST(HlsSubtitleSessionTest, OffersFilesThenTracksAndWritesPlaylistsInsideTheSession) {
  orvotest::MachineRoot root;
  const std::string media = root.At("/volume1/video");
  fs::create_directories(media);
  fs::create_symlink(orvotest::TestMedia(Media::kTracksMkv), media + "/Movie.mkv");
  for (const char* name : {"Movie.eng.srt", "Movie.srt", "Movie.chi.ass", "Movie2.srt"}) {
    std::ofstream(media + "/" + name) << "1\n00:00:00,000 --> 00:00:01,000\nHi\n";
  }
  const std::string id = VTEStream::VTE_Init(
      media + "/Movie.mkv", "HLS", ParseJson(R"({"stream_id":"subs"})"),
      std::string(ORVOVTE_SAMPLE_PROFILES) + "/hls.json", "hls_320x240_x264_vb300_aac_ab64", "browser", 0);
  ASSERT_EQ("subs", id);
  ASSERT_EQ("opened", orvotest::TextFromChild([&] {
              return HttpLiveStream(id).Init(ParseJson(R"({"url":"/api/stream","format":"hls"})"),
                                             ParseJson(R"({"url":"/s","id":"m7","subtitle_id":"all"})"), "", "")
                         ? "opened"
                         : "refused";
            }));
  const std::string dir = HttpLiveStream(id).GetVTEFileFullPath("");

  // External files in pattern order (Movie2.srt belongs to another video),
  // then the text track.
  EXPECT_EQ(MasterPlaylist("/api/stream?format=hls&id=subs", {{media + "/Movie.eng.srt", "eng"},
                                                                {media + "/Movie.srt", "External"},
                                                                {media + "/Movie.chi.ass", "chi"},
                                                                {"3", "fre"}}),
            toolkit::ReadWholeFile(dir + "/" + id + ".m3u8"));
  EXPECT_EQ(dir + "/Movie.eng.srt.subtitle.m3u8", orvotest::TextFromChild([&] {
              return HttpLiveStream(id).GetMainfest("subtitle", media + "/Movie.eng.srt");
            }));
  EXPECT_EQ("#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-ALLOW-CACHE:YES\n#EXTINF:2,\n"
            "/s?id=m7&subtitle_id=" + PercentEncode(media + "/Movie.eng.srt") +
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

// Callers built against the system's own declaration name a non-const
// member; a const one would be another symbol, which they would not find.
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
}  // namespace hls
}  // namespace LibOrvoVTE
