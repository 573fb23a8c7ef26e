#include "vte/http_stream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <memory>

#include "decisions/argument_helper.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "platform/test_seams.h"
#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

using orvotest::Media;

constexpr char kProfile[] = "http_320x240_x264_vb256_mp3_ab64";
constexpr char kWebMProfile[] = "webm_320x240_vp8_vb256_vorbis_ab64";

// Reads until the stream ends or `limit` bytes have come, appending to `file`.
size_t ReadInto(DirectStream& stream, const std::string& file, size_t limit) {
  std::ofstream out(file, std::ios::binary | std::ios::app);
  char buffer[16384];
  size_t total = 0;
  for (int got; total < limit && (got = stream.Read(buffer, sizeof(buffer))) > 0;) {
    out.write(buffer, got);
    total += static_cast<size_t>(got);
  }
  return total;
}

// Rates in bytes a second from the profile name, the later video token
// winning; sizes in single precision (16777217 s is 2^24 s: double would
// give 152576 bytes more); offsets rounded down to whole seconds.
TEST(ProgressiveArithmetic, RateSizeTimeAndScaledResolution) {
  EXPECT_EQ(1310720, progressive::TransBitRate("http_hd480_x264_vb1024_aac_ab128"));
  EXPECT_EQ(786432, progressive::TransBitRate("vb1024_ab128_vb512"));
  EXPECT_EQ(-1, progressive::TransBitRate("http_hd720_x264_vb2048"));
  EXPECT_EQ(6553600u, progressive::PredictSize(1310720, 40));
  EXPECT_EQ(2559800508416ULL, progressive::PredictSize(1220608, 16777217));
  EXPECT_EQ(0u, progressive::PredictSize(-1, 40));
  EXPECT_EQ(9, progressive::ByteOffsetToSeconds(1638399, 1310720));
  EXPECT_EQ(0, progressive::ByteOffsetToSeconds(-1, 1310720));
  EXPECT_EQ(-1, progressive::ByteOffsetToSeconds(100, 0));
  std::string size = "stale";
  EXPECT_TRUE(progressive::ScaleResolution(1.7778f, "hd720", size));
  EXPECT_EQ("1290x720", size);  // 1280.016 rounds up
  EXPECT_FALSE(progressive::ScaleResolution(0.0f, "hd480", size));
  EXPECT_EQ("hd480", size);
}

class HttpStreamTest : public orvotest::StreamTest {
 protected:
  // The one transcoder the load registry holds, once it holds one.
  static int OnlyTranscoder() {
    int pid = -1;
    orvotest::WaitUntil([&] {
      const std::vector<int> pids = orvotest::RegistryPids();
      pid = pids.size() == 1 ? pids[0] : -1;
      return pid > 0;
    }, 10000);
    return pid;
  }
};

// Per progressive kind, on a machine that runs one transcoder: a run at 30 s
// whose reader stopped, a seek to 10 s, then another request closes.
TEST_F(HttpStreamTest, ASeekReplacesTheRunningRunAndAnotherRequestCloses) {
  const std::string ffmpeg = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
  constexpr size_t kHead = 96 * 1024;  // enough for ffprobe to find both streams
  constexpr size_t kMax = 16 * 1024 * 1024;  // a runaway transcoder must not read forever
  for (const std::string type : {"HTTP", "WEBM"}) {
    const bool http = type == "HTTP";
    const std::string id = "seek-" + type;
    ASSERT_EQ(id, orvotest::CreateSession(Media::kLongH264Mp3Mkv, type, http ? "http.json" : "webm.json",
                                          http ? kProfile : kWebMProfile, id));
    const auto open = [&]() -> std::unique_ptr<DirectStream> {
      if (http) return std::make_unique<HttpStream>(id);
      return std::make_unique<WebMStream>(id);
    };
    const std::string head = Root().Path() + "/head-" + type;
    const std::unique_ptr<DirectStream> stream = open();
    ASSERT_TRUE(stream->Init(""));
    ASSERT_TRUE(stream->Transcoding(ffmpeg, 30));
    ASSERT_GE(ReadInto(*stream, head, kHead), kHead) << type;
    const int replaced = OnlyTranscoder();
    ASSERT_GT(replaced, 0) << type;

    // The running transcoder, blocked on its full pipe, ends and gives back
    // its slot before the new run is checked; its reader sees the end.
    const std::unique_ptr<DirectStream> seek = open();
    ASSERT_TRUE(seek->Init("")) << type << " " << seek->GetErrorString();
    EXPECT_TRUE(orvotest::Ends(replaced)) << type;
    EXPECT_FALSE(orvotest::Registered(replaced)) << type;
    EXPECT_LT(ReadInto(*stream, head + ".rest", kMax), kMax) << type;
    const std::string seekHead = Root().Path() + "/seek-" + type;
    ASSERT_TRUE(seek->Transcoding(ffmpeg, 10));
    ASSERT_GE(ReadInto(*seek, seekHead, kHead), kHead) << type;
    const int transcoder = OnlyTranscoder();
    EXPECT_NE(transcoder, replaced) << type;

    // Another request closes the stream while its transcoder is blocked on
    // the pipe; what was still in the pipe drains, then the stream ends.
    EXPECT_EQ(orvotest::RunInChild([&] { return open()->Close() ? 0 : 1; }), 0) << type;
    EXPECT_FALSE(orvotest::Exists(orvotest::SessionPath(type, id))) << type;
    EXPECT_LT(ReadInto(*seek, seekHead + ".rest", kMax), kMax) << type;
    EXPECT_TRUE(orvotest::Ends(transcoder)) << type;
    EXPECT_TRUE(orvotest::WaitUntil([] { return orvotest::RegistryPids().empty(); }, 10000))
        << type << ": the slot was never given back";
    EXPECT_TRUE(stream->Close());
    EXPECT_TRUE(seek->Close());

    // Transport stream timestamps are the source's, plus the muxer's fixed
    // 1.4 s; the head of a WebM file says too little to tell.
    if (!http) continue;
    for (const auto& [file, start] : {std::pair{head, 30.0}, std::pair{seekHead, 10.0}}) {
      orvotest::ProbedMedia media;
      ASSERT_TRUE(orvotest::ProbeMedia(file, &media)) << file;
      ASSERT_NE(media.Stream("video"), nullptr) << "no video in the first bytes of " << file;
      EXPECT_GE(media.Stream("video")->start, start) << file;
      EXPECT_LT(media.Stream("video")->start, start + 2) << file;
    }
  }
}

TEST_F(HttpStreamTest, ReadGivesUpOnATranscoderSilentForThirtySeconds) {
  Root().WriteFile("/silent-transcoder", "#!/bin/sh\nexec sleep 60\n");
  const std::string silent = Root().At("/silent-transcoder");
  ASSERT_EQ(chmod(silent.c_str(), 0755), 0);
  const std::string id = orvotest::CreateSession(Media::kH264AacMp4, "HTTP", "http.json", kProfile, "silent");
  HttpStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(silent, 0));
  const int transcoder = orvotest::RecordedPid(orvotest::SessionPath("HTTP", id, "monitor.pid"));
  constexpr std::chrono::milliseconds kSecond{100};
  librh::seams::SetWaitSecond(kSecond);
  char buffer[4096];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(stream.Read(buffer, sizeof(buffer)), -1);
  const double waited = (std::chrono::steady_clock::now() - start) / std::chrono::duration<double>(kSecond);
  librh::seams::SetWaitSecond(std::chrono::seconds(1));
  EXPECT_GE(waited, 30.0);
  EXPECT_LT(waited, 40.0);
  EXPECT_TRUE(OLIBCProcAlive(transcoder));
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(orvotest::Ends(transcoder));
}

// AAC and MP3 are copied with their own rate and channels; anything else is
// encoded. A run may start at the source's very end (40 s), not after.
TEST_F(HttpStreamTest, WebMCopiesOnlyAacAndMp3AudioAndStartsAtTheSeekTime) {
  int number = 0;
  // "" : the first track
  for (const auto& [media, audioId, copy] : {std::tuple{Media::kLongH264Mp3Mkv, "", true},
                                             std::tuple{Media::kVp9VorbisWebm, "", false},
                                             std::tuple{Media::kTracksMkv, "2", false},  // AC-3
                                             std::tuple{Media::kTracksMkv, "1", true}}) {
    const std::string id = orvotest::CreateSession(media, "WEBM", "webm.json", kWebMProfile,
                                                   "audio" + std::to_string(number++));
    if (*audioId != '\0') SaveFile(orvotest::SessionPath("WEBM", id, "audio_id"), audioId);
    const std::string words = orvotest::JoinWords(WebMStream(id).CalculateFFmpegArgument(1));
    const std::string audio = copy ? "-acodec copy " : "-acodec " + ArgumentHelper::GetMP3Encoder() + " -ab ";
    EXPECT_NE(words.find(audio), std::string::npos) << number << ": " << words;
    EXPECT_EQ(copy, words.find(" -ab ") == std::string::npos) << number << ": " << words;
    EXPECT_EQ(words.substr(words.rfind(" -webm_seek_time")), " -webm_seek_time 1 -avoid_negative_ts 0");
  }
  const std::string id = orvotest::CreateSession(Media::kLongH264Mp3Mkv, "WEBM", "webm.json", kWebMProfile, "end");
  EXPECT_FALSE(WebMStream(id).CalculateFFmpegArgument(40).empty());
  EXPECT_TRUE(WebMStream(id).CalculateFFmpegArgument(41).empty());
}

}  // namespace
}  // namespace LibOrvoVTE
