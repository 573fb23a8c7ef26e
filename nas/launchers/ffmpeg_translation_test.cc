#include "nas/launchers/ffmpeg_translation.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/support/launchers.h"

namespace launchers {
namespace {

using orvotest::JoinWords;
using orvotest::SplitWords;

constexpr char kStock[] = "/usr/bin/ffmpeg";

// Command lines as the library builds them for each stream kind, from the
// sample profiles, and what the stock ffmpeg must get instead.
TEST(PlanFFmpeg, TranslatesTheLibraryCommandLines) {
  struct Case {
    const char* library;
    const char* stock;  // after "/usr/bin/ffmpeg -nostdin -y"
    OutputKind kind;
  };
  const Case cases[] = {
      // HTTP on a hardware platform: the NAS decoder hint and encoders go.
      {"ffmpeg -ss 30 -prefer_smd -copyts -i /v/a.mkv -vcodec h264_smd -s 1280x720 "
       "-acodec libfdk_aac -ab 128k -f mpegts -map 0:0 -map 0:1 pipe:7",
       "-ss 30 -copyts -i /v/a.mkv -vcodec libx264 -s 1280x720 -acodec aac -ab 128k -f mpegts "
       "-map 0:0 -map 0:1 -pix_fmt yuv420p pipe:7",
       OutputKind::kProgressive},
      // WebM with copied AAC: the WebM muxer refuses it, Matroska carries it.
      {"ffmpeg -ss 12 -i /v/a.mp4 -vcodec libvpx -s 640x480 -acodec copy -f webm "
       "-webm_seek_time 12 -avoid_negative_ts 0 pipe:5",
       "-ss 12 -i /v/a.mp4 -vcodec libvpx -s 640x480 -acodec copy -f matroska "
       "-output_ts_offset 12 -avoid_negative_ts 0 pipe:5",
       OutputKind::kWebM},
      {"ffmpeg -ss 0 -i /v/a.mp4 -c:v libvpx -c:a libvorbis -f webm -webm_seek_time 0 pipe:5",
       "-ss 0 -i /v/a.mp4 -c:v libvpx -c:a libvorbis -f webm -output_ts_offset 0 pipe:5",
       OutputKind::kWebM},
      // No "-f" at all: the pipe needs one.
      {"ffmpeg -ss 0 -i /v/a.mp4 -vcodec libvpx -acodec libshine -webm_seek_time 0 pipe:5",
       "-ss 0 -i /v/a.mp4 -vcodec libvpx -acodec libshine -output_ts_offset 0 -f matroska pipe:5",
       OutputKind::kWebM},
      // HLS transcode: segment muxer, timeline offset, keyframes on the cuts,
      // a list of the finished segments beside them.
      {"ffmpeg -ss 60 -i /v/a.mp4 -vcodec libx264 -s 640x480 -acodec libfdk_aac "
       "-segment_format mpegts -segment_list_type m3u8 -hls_seek_time 60 -segment_time 5 "
       "-segment_start_number 00012 -individual_header_trailer 0 -avoid_negative_ts 0 "
       "-break_non_keyframes 1 -map 0:0 -map 0:1 /s/slice-%05d.ts",
       "-ss 60 -i /v/a.mp4 -vcodec libx264 -s 640x480 -acodec aac -segment_format mpegts "
       "-initial_offset 60 -segment_time 5 -segment_start_number 00012 "
       "-individual_header_trailer 0 -avoid_negative_ts 0 -break_non_keyframes 1 -map 0:0 "
       "-map 0:1 -f segment -force_key_frames expr:gte(t,n_forced*5) -segment_list "
       "/s/segments.csv -segment_list_type csv -pix_fmt yuv420p /s/slice-%05d.ts",
       OutputKind::kSegments},
      // HLS remux: copied video keeps its own keyframes.
      {"ffmpeg -ss 96 -i /v/a.mp4 -vcodec copy -bsf:v h264_mp4toannexb -acodec libfdk_aac "
       "-hls_seek_time 96 -segment_time 8 -segment_start_number 12 /s/slice-%05d.ts",
       "-ss 96 -i /v/a.mp4 -vcodec copy -bsf:v h264_mp4toannexb -acodec aac -initial_offset 96 "
       "-segment_time 8 -segment_start_number 12 -f segment -segment_list /s/segments.csv "
       "-segment_list_type csv /s/slice-%05d.ts",
       OutputKind::kSegments},
      // The GStreamer platforms' segmenter, fed from a pipe.
      {"ffmpeg -i pipe:9 -map 0 -codec copy -f segment -segment_time 5 -segment_start_number 7 "
       "-hls_seek_time 35 /s/slice-%05d.ts",
       "-i pipe:9 -map 0 -codec copy -f segment -segment_time 5 -segment_start_number 7 "
       "-initial_offset 35 -segment_list /s/segments.csv -segment_list_type csv /s/slice-%05d.ts",
       OutputKind::kSegments},
      // Smooth, software: fragments into staging, names shifted by the seek,
      // the frame rate made by the filter that keeps pictures on time.
      {"ffmpeg -ss 120 -i /v/a.mp4 -vcodec libx264 -s 320x240 -vf setsar=0/1 -r 15 "
       "-acodec libfdk_aac -ab 40k -fragment_length 5 -seek_time 120 -map 0:0 -map 0:1 /s/smooth",
       "-ss 120 -i /v/a.mp4 -vcodec libx264 -s 320x240 -vf setsar=0/1,fps=15 -acodec aac -ab 40k "
       "-min_frag_duration 5000000 -output_ts_offset 120 -map 0:0 -map 0:1 -f smoothstreaming "
       "-lookahead_count 0 -force_key_frames expr:gte(t,n_forced*5) -pix_fmt yuv420p "
       "/s/smooth/.staging",
       OutputKind::kFragments},
      // Smooth, hardware: -copyts already keeps the source timeline.
      {"ffmpeg -ss 10 -prefer_smd -copyts -i /v/a.mp4 -vcodec h264_smd -b:v 200000 -f ismv "
       "-fragment_length 5 -seek_time 10 -filled 1 /s/smooth",
       "-ss 10 -copyts -i /v/a.mp4 -vcodec libx264 -b:v 200000 -f smoothstreaming "
       "-min_frag_duration 5000000 -lookahead_count 0 -force_key_frames "
       "expr:gte(t,n_forced*5) -pix_fmt yuv420p /s/smooth/.staging",
       OutputKind::kFragments},
      // An HDR source is tone-mapped ahead of the profile's own filters and
      // tagged BT.709; the profile's pixel format stands.
      {"ffmpeg -ss 0 -i /v/hdr.mkv -vcodec libx264 -pix_fmt yuv420p -vf setsar=0/1 -s 320x240 "
       "-acodec copy -f mpegts pipe:7",
       "-ss 0 -i /v/hdr.mkv -vcodec libx264 -pix_fmt yuv420p -vf zscale=t=linear:npl=100,"
       "format=gbrpf32le,zscale=p=bt709,tonemap=tonemap=mobius:param=0.8:desat=0,"
       "zscale=t=bt709:m=bt709:r=tv,format=yuv420p,setsar=0/1 -s 320x240 -acodec copy -f mpegts "
       "-color_primaries bt709 -color_trc bt709 -colorspace bt709 pipe:7",
       OutputKind::kProgressive},
      // Copied HDR video stays as it is.
      {"ffmpeg -ss 96 -i /v/hdr.mkv -vcodec copy -bsf:v h264_mp4toannexb -acodec libfdk_aac "
       "-hls_seek_time 96 -segment_time 8 -segment_start_number 12 /s/slice-%05d.ts",
       "-ss 96 -i /v/hdr.mkv -vcodec copy -bsf:v h264_mp4toannexb -acodec aac -initial_offset 96 "
       "-segment_time 8 -segment_start_number 12 -f segment -segment_list /s/segments.csv "
       "-segment_list_type csv /s/slice-%05d.ts",
       OutputKind::kSegments},
      // The predicted manifest announces sound, so a silent source gets some.
      {"ffmpeg -ss 5 -i /v/silent.avi -vcodec libx264 -pix_fmt yuv420p -s 320x240 -acodec "
       "libfdk_aac -vf setsar=0/1 -fragment_length 5 -seek_time 5 /s/smooth",
       "-ss 5 -i /v/silent.avi -f lavfi -i anullsrc=channel_layout=stereo:sample_rate=48000 "
       "-vcodec libx264 -pix_fmt yuv420p -s 320x240 -acodec aac -vf setsar=0/1 "
       "-min_frag_duration 5000000 -output_ts_offset 5 -f smoothstreaming -lookahead_count 0 "
       "-force_key_frames expr:gte(t,n_forced*5) -shortest /s/smooth/.staging",
       OutputKind::kFragments},
  };
  const std::set<std::string> missing = {"libfdk_aac", "h264_smd"};
  const EncoderCheck stockHas = [&](const std::string& name) { return !missing.count(name); };
  const SourceCheck inspect = [](const std::string& input) {
    SourceTraits traits;
    traits.highDynamicRange = input == "/v/hdr.mkv";
    traits.hasAudio = input != "/v/silent.avi";
    EXPECT_NE(input.rfind("pipe:", 0), 0u) << "a pipe was inspected";
    return traits;
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.library);
    FFmpegPlan plan;
    std::string error;
    ASSERT_TRUE(PlanFFmpeg(SplitWords(c.library), kStock, stockHas, inspect, &plan, &error))
        << error;
    EXPECT_EQ(std::string(kStock) + " -nostdin -y " + c.stock, JoinWords(plan.argv));
    EXPECT_EQ(c.kind, plan.kind);
  }
}

TEST(PlanFFmpeg, RefusesWhatItCannotTranslateFaithfully) {
  struct Case {
    std::vector<std::string> library;
    const char* reason;
  };
  const Case cases[] = {
      {{"ffmpeg", "-ss", "5", "-i", "a.mp4", "-fragment_length", "5", "-seek_time", "5", ""},
       "output directory"},
      {SplitWords("ffmpeg -ss 5 -i a.mp4 -seek_time 5 /s/smooth"), "-fragment_length"},
      {SplitWords("ffmpeg -ss 5 -copyts -i a.mp4 -hls_seek_time 5 -segment_time 5 x%d.ts"),
       "every frame"},
      {SplitWords("ffmpeg -i a.mp4 -hls_seek_time 5 x%d.ts"), "-segment_time"},
      {SplitWords("ffmpeg -i a.mp4 -segment_time five -hls_seek_time 0 x%d.ts"), "whole seconds"},
      {SplitWords("ffmpeg -i a.mp4 -webm_seek_time 3 -hls_seek_time 3 pipe:1"), "HLS segments"},
      {SplitWords("ffmpeg -ss 5 -i a.mp4 -webm_seek_time"), "needs a value"},
      {SplitWords("ffmpeg a.mp4"), "expected"},
  };
  for (const Case& c : cases) {
    const std::string line = JoinWords(c.library);
    FFmpegPlan plan;
    plan.kind = OutputKind::kWebM;  // must stay untouched
    std::string error;
    EXPECT_FALSE(PlanFFmpeg(
        c.library, kStock, [](const std::string&) { return true; },
        [](const std::string&) { return SourceTraits{}; }, &plan, &error))
        << line;
    EXPECT_NE(std::string::npos, error.find(c.reason)) << line << ": " << error;
    EXPECT_TRUE(plan.argv.empty() && plan.kind == OutputKind::kWebM) << line;
  }
}

}  // namespace
}  // namespace launchers
