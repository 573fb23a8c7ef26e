#include "vte/http_stream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>

#include "decisions/argument_helper.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/short_waits.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

using orvotest::Media;
using Clock = std::chrono::steady_clock;

constexpr char kProfile[] = "http_320x240_x264_vb256_mp3_ab64";
// Enough of a transport stream for ffprobe to find both streams.
constexpr size_t kHeadBytes = 96 * 1024;
// A runaway transcoder must not make a test read forever.
constexpr size_t kMaxBytes = 16 * 1024 * 1024;

// Reads until the stream ends or `limit` bytes have come, appending to `file`.
size_t ReadInto(DirectStream& stream, const std::string& file, size_t limit) {
  std::ofstream out(file, std::ios::binary | std::ios::app);
  char buffer[16384];
  size_t total = 0;
  while (total < limit) {
    const int got = stream.Read(buffer, sizeof(buffer));
    if (got <= 0) break;
    out.write(buffer, got);
    total += static_cast<size_t>(got);
  }
  return total;
}

TEST(ProgressiveArithmetic, RateSizeAndTimeFromTheProfileName) {
  const struct {
    const char* key;
    int rate;
  } rates[] = {
      {"http_hd480_x264_vb1024_aac_ab128", 1310720},
      {"vb1024_ab128_vb512", 786432},  // the later video token wins
      {"ab64\nvb256", 393216},  {"http_hd720_x264_vb2048", -1}, {"http_aac_ab128", -1},
      {"avb100_ab10", -1},      {"___", -1},                    {"", -1},
  };
  for (const auto& c : rates) EXPECT_EQ(progressive::TransBitRate(c.key), c.rate) << c.key;

  const struct {
    int rate;
    unsigned int duration;
    unsigned long long bytes;
  } sizes[] = {
      {1310720, 40, 6553600}, {1310720, 0, 0}, {-1, 40, 0},
      // In single precision 16777217 s is 2^24 s; double would give 152576 more.
      {1220608, 16777217, 2559800508416ULL},
  };
  for (const auto& c : sizes) {
    EXPECT_EQ(progressive::PredictSize(c.rate, c.duration), c.bytes)
        << c.rate << " for " << c.duration << " s";
  }

  const struct {
    long long offset;
    int rate;
    long long seconds;
  } times[] = {
      {0, 1310720, 0},           {1638400, 1310720, 10},  {1638399, 1310720, 9},
      {-1638400, 1310720, -10},  {-1, 1310720, 0},        {4294967296LL, 1310720, 26214},
      {100, 0, -1},              {100, -1, -1},
  };
  for (const auto& c : times) {
    EXPECT_EQ(progressive::ByteOffsetToSeconds(c.offset, c.rate), c.seconds)
        << c.offset << " at " << c.rate;
  }
}

TEST(ProgressiveArithmetic, ScaleResolution) {
  const struct {
    float ratio;
    const char* requested;
    bool ok;
    const char* result;
  } cases[] = {
      {16.0f / 9.0f, "hd720", true, "1280x720"},
      {1.7778f, "hd720", true, "1290x720"},  // 1280.016 rounds up
      {1.3333f, "hd480", true, "640x480"},      {2.35f, "hd720", true, "1700x720"},
      {1.7778f, "1920x1080", true, "1920x1080"}, {1.7778f, "", false, ""},
      {0.0f, "hd720", false, "hd720"},          {-1.0f, "hd480", false, "hd480"},
  };
  for (const auto& c : cases) {
    std::string result = "stale";
    EXPECT_EQ(progressive::ScaleResolution(c.ratio, c.requested, result), c.ok)
        << c.ratio << " " << c.requested;
    EXPECT_EQ(result, c.result) << c.ratio << " " << c.requested;
  }
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

  static std::string Ffmpeg() { return librh::machine::Resolve(librh::machine::kPackageFFmpeg); }
};

// For each progressive kind: a run at 30 s whose reader has stopped
// reading, then a seek, a new run of the same stream at 10 s, on a machine
// that runs one transcoder; then another request closes the stream.
TEST_F(HttpStreamTest, ASeekReplacesTheRunningRunAndAnotherRequestCloses) {
  const struct {
    std::string type, file, profile;
  } kinds[] = {{"HTTP", "http.json", kProfile},
               {"WEBM", "webm.json", "webm_320x240_vp8_vb256_vorbis_ab64"}};
  for (const auto& kind : kinds) {
    const std::string id = orvotest::CreateSession(Media::kLongH264Mp3Mkv, kind.type, kind.file,
                                                   kind.profile, "seek-" + kind.type);
    ASSERT_EQ(id, "seek-" + kind.type);
    const auto open = [&]() -> std::unique_ptr<DirectStream> {
      if (kind.type == "HTTP") return std::make_unique<HttpStream>(id);
      return std::make_unique<WebMStream>(id);
    };
    const std::string head = Root().Path() + "/head-" + kind.type;
    const std::unique_ptr<DirectStream> stream = open();
    ASSERT_TRUE(stream->Init(""));
    ASSERT_TRUE(stream->Transcoding(Ffmpeg(), 30));
    ASSERT_GE(ReadInto(*stream, head, kHeadBytes), kHeadBytes) << kind.type;
    const int replaced = OnlyTranscoder();
    ASSERT_GT(replaced, 0) << kind.type;

    // The running transcoder, blocked on its full pipe, ends and gives back
    // its slot before the new run is checked; its reader sees the end.
    const std::unique_ptr<DirectStream> seek = open();
    ASSERT_TRUE(seek->Init("")) << kind.type << " " << seek->GetErrorString();
    EXPECT_TRUE(orvotest::Ends(replaced)) << kind.type;
    EXPECT_FALSE(orvotest::Registered(replaced)) << kind.type;
    EXPECT_LT(ReadInto(*stream, head + ".rest", kMaxBytes), kMaxBytes) << kind.type;
    const std::string seekHead = Root().Path() + "/seek-" + kind.type;
    ASSERT_TRUE(seek->Transcoding(Ffmpeg(), 10));
    ASSERT_GE(ReadInto(*seek, seekHead, kHeadBytes), kHeadBytes) << kind.type;
    const int transcoder = OnlyTranscoder();
    EXPECT_NE(transcoder, replaced) << kind.type;

    // The new transcoder is blocked on the pipe, alive, while another
    // request closes the stream.
    EXPECT_EQ(orvotest::RunInChild([&] { return open()->Close() ? 0 : 1; }), 0) << kind.type;
    EXPECT_FALSE(orvotest::Exists(orvotest::SessionPath(kind.type, id))) << kind.type;
    // What was still in the pipe drains, then the stream ends.
    EXPECT_LT(ReadInto(*seek, seekHead + ".rest", kMaxBytes), kMaxBytes) << kind.type;
    EXPECT_TRUE(orvotest::Ends(transcoder)) << kind.type;
    EXPECT_TRUE(orvotest::WaitUntil([] { return orvotest::RegistryPids().empty(); }, 10000))
        << kind.type << ": the slot was never given back";
    EXPECT_TRUE(stream->Close());
    EXPECT_TRUE(seek->Close());

    // Transport stream timestamps are the source's, plus the muxer's fixed
    // 1.4 s; the head of a WebM file says too little to tell.
    if (kind.type != "HTTP") continue;
    for (const auto& [file, start] : {std::pair{head, 30.0}, std::pair{seekHead, 10.0}}) {
      orvotest::ProbedMedia media;
      ASSERT_TRUE(orvotest::ProbeMedia(file, &media)) << file;
      const orvotest::ProbedStream* video = media.Stream("video");
      ASSERT_NE(video, nullptr) << "no video in the first bytes of " << file;
      EXPECT_GE(video->start, start) << file;
      EXPECT_LT(video->start, start + 2) << file;
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

  orvotest::ShortWaits shortWaits;
  char buffer[4096];
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(stream.Read(buffer, sizeof(buffer)), -1);
  const double waited = orvotest::ShortWaits::Seconds(Clock::now() - start);
  EXPECT_GE(waited, 30.0);
  EXPECT_LT(waited, 40.0);
  EXPECT_TRUE(OLIBCProcAlive(transcoder));
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(orvotest::Ends(transcoder));
}

// AAC and MP3 are copied with their own rate and channels; anything else is
// encoded. A run may start at the source's very end (40 s), not after.
TEST_F(HttpStreamTest, WebMCopiesOnlyAacAndMp3AudioAndStartsAtTheSeekTime) {
  const struct {
    Media media;
    const char* audioId;  // "" : the first track
    bool copy;
  } cases[] = {
      {Media::kH264AacMp4, "", true},     {Media::kLongH264Mp3Mkv, "", true},
      {Media::kVp9VorbisWebm, "", false}, {Media::kTracksMkv, "2", false},  // AC-3
      {Media::kTracksMkv, "1", true},
  };
  int number = 0;
  for (const auto& c : cases) {
    const std::string label = orvotest::MediaName(c.media) + " [" + c.audioId + "]";
    const std::string id = orvotest::CreateSession(c.media, "WEBM", "webm.json",
                                                   "webm_320x240_vp8_vb256_vorbis_ab64",
                                                   "audio" + std::to_string(number++));
    ASSERT_FALSE(id.empty()) << label;
    if (*c.audioId != '\0') {
      ASSERT_TRUE(SaveFile(orvotest::SessionPath("WEBM", id, "audio_id"), c.audioId)) << label;
    }
    const std::string words = orvotest::JoinWords(WebMStream(id).CalculateFFmpegArgument(1));
    const std::string encoder = c.copy ? "copy" : ArgumentHelper::GetMP3Encoder();
    EXPECT_NE(words.find(" -acodec " + encoder + " "), std::string::npos) << label << ": " << words;
    EXPECT_EQ(c.copy, words.find(" -ab ") == std::string::npos) << label << ": " << words;
    EXPECT_EQ(words.substr(words.rfind(" -webm_seek_time")), " -webm_seek_time 1 -avoid_negative_ts 0")
        << label;
  }
  const std::string id = orvotest::CreateSession(Media::kLongH264Mp3Mkv, "WEBM", "webm.json",
                                                 "webm_320x240_vp8_vb256_vorbis_ab64", "end");
  EXPECT_FALSE(WebMStream(id).CalculateFFmpegArgument(40).empty());
  EXPECT_TRUE(WebMStream(id).CalculateFFmpegArgument(41).empty());
}

}  // namespace
}  // namespace LibOrvoVTE
