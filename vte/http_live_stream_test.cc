#include "vte/http_live_stream.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "decisions/argument_helper.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "toolkit/files.h"

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

std::string After(const std::vector<std::string>& words, const std::string& option) {
  const auto found = std::find(words.begin(), words.end(), option);
  return found != words.end() && found + 1 != words.end() ? *(found + 1) : "<none>";
}

class HttpLiveStreamTest : public orvotest::MachineRootTest {
 protected:
  // A session of `media` with `profile`; "audio_format" and "audio_id" as
  // given ("" writes none).
  std::string Session(const std::string& id, Media media, const std::string& profile,
                      const std::string& device = "browser", const std::string& audioFormat = "",
                      const std::string& audioId = "") {
    Json::Value doc = orvotest::SessionDocument(media, profile);
    doc["device"] = device;
    const std::string dir = orvotest::WriteSession("HLS", id, doc);
    if (!audioFormat.empty()) std::ofstream(dir + "/audio_format") << audioFormat;
    if (!audioId.empty()) std::ofstream(dir + "/audio_id") << audioId;
    return dir;
  }
};

TEST_F(HttpLiveStreamTest, RunArgumentsSegmentFromTheRequestedFragment) {
  Session("encode", Media::kH264AacMp4, kEncode);
  Session("remux", Media::kH264AacMp4, kRemux);
  Session("appletv", Media::kH264AacMp4, kEncode, "appletv");
  const struct {
    const char* id;
    const char* fragment;
    bool header;
    const char* tail;
  } cases[] = {
      {"encode", "00012", false,
       "-segment_format mpegts -segment_list_type m3u8 -hls_seek_time 60 -segment_time 5 "
       "-segment_start_number 00012 -individual_header_trailer 0 -avoid_negative_ts 0 "
       "-break_non_keyframes 1"},
      {"remux", "00012", false,
       "-segment_format mpegts -segment_list_type m3u8 -hls_seek_time 96 -segment_time 8 "
       "-segment_start_number 00012 -individual_header_trailer 0 -avoid_negative_ts 0 "
       "-break_non_keyframes 1"},
      {"appletv", "3", false,
       "-segment_format mpegts -segment_list_type m3u8 -hls_seek_time 16 -segment_time 5 "
       "-segment_start_number 3 -individual_header_trailer 0 -avoid_negative_ts 0 "
       "-break_non_keyframes 1"},
      {"encode", "abc", true,
       "-segment_format mpegts -segment_list_type m3u8 -hls_seek_time 0 -segment_time 5 "
       "-segment_start_number abc -avoid_negative_ts 0 -break_non_keyframes 1"},
  };
  for (const auto& c : cases) {
    InspectedStream stream(c.id);
    if (c.header) {
      EXPECT_TRUE(stream.EnableHLSHeader());
    }
    const std::string args = orvotest::JoinWords(stream.RunArguments(c.fragment));
    ASSERT_GE(args.size(), strlen(c.tail)) << c.id << " " << c.fragment << ": " << args;
    EXPECT_EQ(args.substr(args.size() - strlen(c.tail)), c.tail) << c.id << " " << c.fragment;
    // The profile's own options come first, unchanged but for the audio.
    EXPECT_EQ(args.rfind("-vcodec ", 0), 0U) << args;
  }
  EXPECT_TRUE(InspectedStream("encode").RunArguments("").empty());
}

TEST_F(HttpLiveStreamTest, AudioIsCopiedWhenHlsCarriesItAndEncodedWhenTheClientAsks) {
  const Json::Value tracks = orvotest::SessionDocument(Media::kAc3DataTs, "")["track_info"]["audio"];
  ASSERT_EQ(tracks.size(), 2U);
  const std::string mp2 = tracks[1]["id"].asString();
  const std::string aac = ArgumentHelper::GetAACEncoder();
  Session("lc-mp3", Media::kH264AacMp4, kEncode, "browser", "mp3");
  Session("lc-ac3copy", Media::kH264AacMp4, kEncode, "browser", "ac3_copy");
  Session("ac3-ac3copy", Media::kAc3DataTs, kEncode, "browser", "ac3_copy");
  Session("mp2-chromecast", Media::kAc3DataTs, kEncode, "chromecast", "ac3_copy", mp2);
  Session("ac3-aac", Media::kAc3DataTs, kEncode, "browser", "aac");
  Session("ac3-none", Media::kAc3DataTs, kEncode, "browser");
  const struct {
    const char* id;
    std::string encoder;
  } cases[] = {
      {"lc-mp3", ArgumentHelper::GetMP3Encoder()},
      {"lc-ac3copy", "copy"},
      {"ac3-ac3copy", "copy"},
      {"mp2-chromecast", aac},
      {"ac3-aac", aac},
      {"ac3-none", "libfdk_aac"},
  };
  for (const auto& c : cases) {
    const std::vector<std::string> args = InspectedStream(c.id).RunArguments("0");
    EXPECT_EQ(After(args, "-acodec"), c.encoder) << c.id << ": " << orvotest::JoinWords(args);
    // Copied audio keeps its own rate.
    EXPECT_EQ(After(args, "-ab") == "<none>", c.encoder == "copy") << c.id << ": " << orvotest::JoinWords(args);
  }
  EXPECT_TRUE(InspectedStream("lc-ac3copy").IsAACLCAudioCodec());
  EXPECT_FALSE(InspectedStream("ac3-ac3copy").IsAACLCAudioCodec());

  // No picture, nothing to segment.
  Session("audio-only", Media::kAudioOnlyMp3, kEncode);
  EXPECT_TRUE(InspectedStream("audio-only").RunArguments("0").empty());
}

// A session whose monitor is `running` (a live process recorded in
// "monitor.pid") or absent, with the given segments and "seek_time".
class SegmentStateTest : public HttpLiveStreamTest {
 protected:
  void TearDown() override {
    StopMonitor();
    HttpLiveStreamTest::TearDown();
  }

  void Prepare(const std::string& seekTime, const std::set<int>& segments, bool running) {
    StopMonitor();
    for (const auto& entry : fs::directory_iterator(dir_)) {
      if (entry.path().filename() != "video_metadata") fs::remove(entry.path());
    }
    if (!seekTime.empty()) std::ofstream(dir_ + "/seek_time") << seekTime;
    // Whole transport-stream packets.
    for (int segment : segments) {
      std::ofstream(stream_->GetSegmentTsPath(segment)) << std::string(2 * 188, 'G');
    }
    if (running) {
      monitor_ = orvotest::StartChild([] {
        for (;;) pause();
        return 0;
      });
      stream_->SaveMonitorPid(monitor_, false);
    }
  }

  void StopMonitor() {
    if (monitor_ <= 0) return;
    kill(monitor_, SIGKILL);
    waitpid(monitor_, nullptr, 0);
    monitor_ = -1;
  }

  std::string dir_;
  std::unique_ptr<HttpLiveStream> stream_;
  pid_t monitor_ = -1;
};

TEST_F(SegmentStateTest, RestartOnlyWhenTheRunWillNotReachTheSegmentSoon) {
  dir_ = Session("s", Media::kH264AacMp4, kEncode);
  stream_ = std::make_unique<HttpLiveStream>("s");
  EXPECT_EQ(stream_->GetSegmentTsPath(42), dir_ + "/slice-00042.ts");
  const struct {
    const char* seekTime;
    std::set<int> segments;
    bool running;
    const char* request;
    bool restart;
  } cases[] = {
      {"10", {}, false, "10", false},
      {"10", {}, false, "14", false},
      {"10", {}, true, "15", true},
      {"10", {11}, true, "15", false},
      {"10", {15}, false, "15", false},
      {"10", {}, false, "15", true},
      {"10", {9}, false, "9", false},
      {"10", {}, true, "9", true},
      {"", {0}, true, "2", false},
      {"", {}, true, "2", true},
      {"", {}, false, "0", true},
      {"abc", {}, false, "00003", false},
  };
  for (const auto& c : cases) {
    Prepare(c.seekTime, c.segments, c.running);
    EXPECT_EQ(stream_->IsTransAndSegNeedToRestart(c.request), c.restart)
        << "seek_time " << c.seekTime << ", request " << c.request << ", running " << c.running
        << ", first segment " << (c.segments.empty() ? -1 : *c.segments.begin());
  }
  EXPECT_FALSE(stream_->IsTransAndSegNeedToRestart(""));
}

// A restart in the grace window is abandoned only when nothing will ever
// serve it: no request between announcing it and its monitor recording
// itself (the start lock, held by another process here), no monitor, and
// no segment.
TEST_F(SegmentStateTest, StartInTheWindowIsAbandonedOnlyWhenNobodyWillServeIt) {
  dir_ = Session("s", Media::kH264AacMp4, kEncode);
  stream_ = std::make_unique<HttpLiveStream>("s");
  const std::string twelve = stream_->GetSegmentTsPath(12);
  Prepare("10", {}, false);
  EXPECT_FALSE(stream_->IsStartAbandoned(twelve)) << "no start was ever announced here";
  EXPECT_FALSE(stream_->IsTransAndSegNeedToRestart("12"));

  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t announcer = orvotest::StartChild([&] {
    close(ready[0]);
    const int held = HttpLiveStream("s").TakeStartLock();
    if (held < 0 || write(ready[1], "x", 1) != 1) return 1;
    for (;;) pause();
  });
  close(ready[1]);
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  EXPECT_FALSE(stream_->IsStartAbandoned(twelve)) << "a start is announced";
  kill(announcer, SIGKILL);
  orvotest::WaitForChild(announcer, 5);
  EXPECT_TRUE(stream_->IsStartAbandoned(twelve)) << "its request died before forking";

  const std::string lock = dir_ + "/start_lock";
  const struct {
    std::set<int> segments;
    bool running;
    bool abandoned;
  } cases[] = {
      {{}, false, true},
      {{12}, false, false},
      {{}, true, false},
  };
  for (const auto& c : cases) {
    Prepare("10", c.segments, c.running);
    std::ofstream(lock).flush();
    EXPECT_EQ(stream_->IsStartAbandoned(twelve), c.abandoned)
        << "running " << c.running << ", segments " << c.segments.size();
  }
}

// Complete once the transcoder has listed it with its full length, the last
// segment of the video with what is left of it; a run stopped by a signal
// lists its last segment cut short, one killed does not list it.
TEST_F(SegmentStateTest, SegmentIsCompleteOnceTheTranscoderListsItWhole) {
  Json::Value doc = orvotest::SessionDocument(Media::kH264AacMp4, kEncode);
  doc["duration"] = 12;
  dir_ = orvotest::WriteSession("HLS", "s", doc);
  stream_ = std::make_unique<HttpLiveStream>("s");
  const struct {
    const char* list;
    const char* request;
    bool ready;
  } cases[] = {
      {"slice-00001.ts,5.000000,10.000000\n", "00001", true},
      {"slice-00001.ts,5.021333,10.000000\n", "1", true},
      {"slice-00001.ts,5.000000,7.200000\n", "1", false},
      {"slice-00001.ts,5.000000,10.000000", "1", false},
      {"slice-00000.ts,0.000000,5.000000\n", "1", false},
      {"slice-00001.ts,5.000000,10.000000\nslice-00001.ts,0.000000,2.200000\n", "1", false},
      {"slice-00002.ts,10.000000,12.040000\n", "2", true},
      {"slice-00002.ts,10.000000,11.000000\n", "2", false},
      {"", "1", false},
  };
  for (const auto& c : cases) {
    Prepare("", {1, 2}, false);
    std::ofstream(dir_ + "/segments.csv") << c.list;
    EXPECT_EQ(stream_->VerifyFragmentIsReady(c.request), c.ready) << c.list << " " << c.request;
  }
  // Listed whole, but a full volume tore its last packet.
  std::ofstream(stream_->GetSegmentTsPath(1), std::ios::app) << "G";
  std::ofstream(dir_ + "/segments.csv") << "slice-00001.ts,5.000000,10.000000\n";
  EXPECT_FALSE(stream_->VerifyFragmentIsReady("1"));

  // Served at once when whole; with no run left and none on its way, the
  // request for a cut one gives up at once.
  Prepare("1", {1, 2}, false);
  std::ofstream(dir_ + "/segments.csv") << "slice-00001.ts,5.0,10.0\nslice-00002.ts,10.0,10.5\n";
  std::ofstream(dir_ + "/start_lock").flush();
  EXPECT_EQ(stream_->ReadFragment("1"), dir_ + "/slice-00001.ts");
  const time_t start = time(nullptr);
  EXPECT_EQ(stream_->ReadFragment("2"), "");
  EXPECT_LT(time(nullptr) - start, 5);
  // Left cut by a monitor that died: the next request clears it away.
  stream_->ClearCutSegments();
  EXPECT_TRUE(fs::exists(stream_->GetSegmentTsPath(1)));
  EXPECT_FALSE(fs::exists(stream_->GetSegmentTsPath(2)));
}

TEST_F(HttpLiveStreamTest, OnlyRemuxedMp4SourcesRestartOnAJump) {
  Session("remux-mp4", Media::kH264AacMp4, kRemux);
  Session("remux-mkv", Media::kTracksMkv, kRemux);
  Session("encode-mp4", Media::kH264AacMp4, kEncode);
  const struct {
    const char* id;
    std::vector<std::pair<const char*, bool>> requests;
  } cases[] = {
      {"remux-mp4", {{"3", false}, {"11", true}, {"3", true}, {"10", false}, {"2", true}}},
      {"remux-mkv", {{"0", false}, {"20", false}}},
      {"encode-mp4", {{"0", false}, {"20", false}}},
  };
  for (const auto& c : cases) {
    HttpLiveStream stream(c.id);
    for (const auto& [request, seek] : c.requests) {
      EXPECT_EQ(stream.IsHLSRemuxSeek(request), seek) << c.id << " request " << request;
    }
    // Every request is remembered, a seek or not.
    std::ifstream record(stream.GetVTEFileFullPath("request_fragment_id"));
    std::string last;
    record >> last;
    EXPECT_EQ(last, c.requests.back().first) << c.id;
  }
}

TEST_F(HttpLiveStreamTest, PlaylistsNeedADurationAndSubtitlesAMasterPlaylist) {
  const Json::Value params = [] {
    Json::Value value;
    value["url"] = "/api/stream";
    value["format"] = "hls";
    return value;
  }();
  Session("s", Media::kH264AacMp4, kRemux);
  HttpLiveStream stream("s");
  ASSERT_TRUE(stream.GenVideoPlaylist(params));
  const std::string text = toolkit::ReadWholeFile(stream.GetMainfest("", ""));
  EXPECT_EQ(text,
            "#EXTM3U\n#EXT-X-TARGETDURATION:8\n#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:2,\n/api/stream?format=hls&id=s&fragment_id=00000\n#EXT-X-ENDLIST\n");
  EXPECT_EQ(stream.GetMainfest("", ""), stream.GetVTEFileFullPath("s.m3u8"));
  EXPECT_EQ(stream.GetMainfest("video", "x"), stream.GetVTEFileFullPath("video.m3u8"));
  EXPECT_EQ(HttpLiveStream("").GetMainfest("video", ""), "");

  Json::Value noDuration = orvotest::SessionDocument(Media::kH264AacMp4, kEncode);
  noDuration["duration"] = 0;
  orvotest::WriteSession("HLS", "unknown", noDuration);
  HttpLiveStream unknown("unknown");
  EXPECT_FALSE(unknown.GenVideoPlaylist(params));
  EXPECT_FALSE(fs::exists(unknown.GetVTEFileFullPath("unknown.m3u8")));
  {
    orvotest::LogCapture log;
    EXPECT_FALSE(unknown.Init(params, Json::Value(), "", "aac"));
    EXPECT_TRUE(log.Contains("Failed to generate video m3u8 playlist for HLS [file path=" +
                             noDuration["path"].asString() + "]"))
        << log.Dump();
  }

  Json::Value subtitles;
  EXPECT_FALSE(stream.GenIndexPlaylist(params, subtitles));
  subtitles["subtitle_id"] = "";
  EXPECT_FALSE(stream.GenIndexPlaylist(params, subtitles));
  subtitles["subtitle_id"] = 3;
  EXPECT_FALSE(stream.GenIndexPlaylist(params, subtitles));
}

}  // namespace
}  // namespace LibOrvoVTE
