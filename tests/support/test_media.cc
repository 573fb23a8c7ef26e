#include "tests/support/test_media.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <sstream>

#include "tests/support/child.h"
#include "toolkit/files.h"
#include "vte/utils/vteutils.h"

namespace orvotest {
namespace {

// Bumped whenever a recipe changes, so that no older file is taken for new.
constexpr char kRecipeDir[] = "/r4";

// A recipe is ffmpeg's arguments before the output name, a word per space;
// "@name" is the path of another cached file, made first. A file with no
// recipe is written from Text. The media come first, in the order of Media.
struct Entry {
  const char* name;
  const char* recipe;
};

// Recipe words for `seconds` of a lavfi source, of a 440 Hz tone, and of both.
#define SOURCE(picture, seconds) "-f lavfi -i " picture ":duration=" seconds " "
#define TONE(rate, seconds) SOURCE("sine=frequency=440:sample_rate=" rate, seconds)
#define CLIP(picture, seconds) SOURCE(picture, seconds) TONE("48000", seconds)
#define X264 "-c:v libx264 -preset ultrafast "
#define H264 X264 "-pix_fmt yuv420p "
#define QVGA "testsrc=size=320x240:rate=25"
#define X265 "-c:v libx265 -preset ultrafast -x265-params log-level=error"
// The bars in light of 100 nits as a grading would put them in PQ or HLG.
#define BT2020(transfer)                                                                      \
  "-vf zscale=tin=bt709:min=bt709:pin=bt709:rin=tv:t=" transfer ":m=bt2020nc:p=bt2020:r=tv:" \
  "npl=100,format=yuv420p10le " X265 ":crf=12:keyint=25:colorprim=bt2020:transfer=" transfer  \
  ":colormatrix=bt2020nc"

constexpr Entry kEntries[] = {
    {"h264_aac.mp4", CLIP("testsrc=size=320x240:rate=24000/1001", "2") H264 "-c:a aac -b:a 64k "
     "-ac 2 -metadata:s:a:0 language=eng"},
    {"tracks.mkv", CLIP(QVGA, "2") "-f lavfi -i sine=frequency=660:sample_rate=48000:duration=2 "
     "-i @source-subtitles.srt -map 0:v -map 1:a -map 2:a -map 3:s " H264 "-c:a:0 aac -ac:a:0 2 "
     "-c:a:1 ac3 -b:a:1 96k -c:s srt -metadata:s:a:0 language=eng -metadata:s:a:1 language=jpn "
     "-disposition:a:0 0 -disposition:a:1 default -metadata:s:s:0 language=fre "
     "-metadata:s:s:0 title=French -attach @source-subtitles.srt "
     "-metadata:s:t:0 mimetype=text/plain"},
    {"ac3_data.ts", SOURCE(QVGA, "2") "-f data -i @source-payload.bin " TONE("48000", "2")
     "-f lavfi -i sine=frequency=660:sample_rate=48000:duration=2 -map 0:v -map 1:d -map 2:a "
     "-map 3:a -c:v mpeg2video -c:d copy -c:a:0 ac3 -ac:a:0 6 -c:a:1 mp2 -ac:a:1 2 "
     "-metadata:s:a:0 language=eng -metadata:s:a:1 language=ger"},
    // The 5.1 CLI stores "rotate" as a display matrix turned the other way.
    {"rotated.mp4", "-i @h264_aac.mp4 -c copy -map 0 -metadata:s:v:0 rotate=270"},
    {"sar4x3.mp4", SOURCE(QVGA, "1") "-vf setsar=4/3 " H264},
    // 0/1 keeps x264 from writing any aspect ratio at all.
    {"no_sar.mp4", SOURCE(QVGA, "1") "-vf setsar=0/1 " H264},
    // On a copied stream the aspect reaches only the container.
    {"container_sar.mkv", "-i @no_sar.mp4 -c copy -aspect 16:9"},
    {"audio_only.mp3", TONE("44100", "2") "-c:a libmp3lame -b:a 64k"},
    {"video_only.avi", SOURCE(QVGA, "2") "-c:v mpeg4 -q:v 5"},
    {"vp9_vorbis.webm", CLIP(QVGA, "2") "-c:v libvpx-vp9 -deadline realtime -cpu-used 8 -b:v 200k "
     "-pix_fmt yuv420p -c:a libvorbis -ac 2"},
    {"truncated.mp4", nullptr},
    // No extension: ".txt" alone makes libavformat try its tty demuxer.
    {"not_media", nullptr},
    {"long_h264_mp3.mkv", SOURCE("testsrc=size=320x240:rate=15", "40") TONE("44100", "40") H264
     "-c:a libmp3lame -b:a 64k -ac 2"},
    // Long enough for seeks across a dozen 8-second remux segments.
    {"long_h264_aac.mp4", CLIP("testsrc=size=160x120:rate=10", "100") H264 "-g 10 -c:a aac "
     "-b:a 48k -ac 2"},
    // High quality, so that a picture made from it can be held to the bars.
    {"bars_h264.mp4", CLIP("smptehdbars=size=640x360:rate=25", "3") X264 "-crf 12 -pix_fmt yuv420p "
     "-g 25 -color_primaries bt709 -color_trc bt709 -colorspace bt709 -c:a aac -ac 2"},
    {"hdr10_hevc.mkv", CLIP("smptehdbars=size=640x360:rate=25", "3") BT2020("smpte2084")
     ":hdr10=1:master-display=G(13250,34500)B(7500,3000)R(34000,16000)WP(15635,16450)L(10000000,1)"
     ":max-cll=1000,400 -c:a libopus -ac 6"},
    {"hlg_hevc.mp4", CLIP("smptehdbars=size=640x360:rate=25", "3") BT2020("arib-std-b67")
     " -tag:v hvc1 -c:a aac -ac 2"},
    {"h264_444_ac3.mkv", CLIP(QVGA, "3") X264 "-pix_fmt yuv444p -c:a ac3 -ac 6"},
    {"h264_high10_eac3.mkv", CLIP(QVGA, "3") X264 "-pix_fmt yuv420p10le -c:a eac3 -ac 2"},
    {"hevc_flac_ass.mkv", CLIP("testsrc=size=640x360:rate=25", "3") "-i @source-subtitles.srt "
     "-map 0:v -map 1:a -map 2:s " X265 " -pix_fmt yuv420p -c:a flac -ac 1 -c:s ass"},
    {"av1_opus.webm", CLIP(QVGA, "3") "-c:v libaom-av1 -usage realtime -cpu-used 8 "
     "-pix_fmt yuv420p -c:a libopus -ac 2"},
    {"interlaced_mpeg2.ts", CLIP("testsrc=size=720x576:rate=25", "2") "-vf setfield=tff "
     "-c:v mpeg2video -flags +ilme+ildct -top 1 -q:v 6 -c:a mp2 -ac 2"},
    {"mpeg4_mp3.avi", SOURCE(QVGA, "3") TONE("44100", "3") "-c:v mpeg4 -vtag XVID -q:v 5 "
     "-c:a libmp3lame -b:a 128k -ac 2"},
    // A third of every second dropped: 10 frames at 30 fps, a gap, 10 more.
    {"phone_vfr.mp4", SOURCE("testsrc2=size=640x360:rate=30", "3") TONE("44100", "3")
     "-i @source-subtitles.srt -map 0:v -map 1:a -map 2:s "
     "-vf select=not(between(mod(n\\,30)\\,10\\,19)) -fps_mode vfr " X264 "-crf 30 "
     "-pix_fmt yuv420p -c:a aac -ac 1 -c:s mov_text"},
    {"phone_90.mp4", "-i @phone_vfr.mp4 -map 0 -c copy -metadata:s:v:0 rotate=270"},
    {"phone_270.mp4", "-i @phone_vfr.mp4 -map 0 -c copy -metadata:s:v:0 rotate=90"},
    {"anamorphic_dts.mkv", CLIP("testsrc=size=720x576:rate=25", "3") "-vf setsar=16/15 " H264
     "-c:a dca -strict -2 -ac 6"},
    {"odd_1918x1080.mkv", CLIP("testsrc=size=1918x1080:rate=25", "2") H264 "-c:a aac -ac 8"},
    {"h264_high10_eac3.srt", "-i @source-subtitles.srt"},
    // Any decoded frame tells its second, whatever it was scaled, turned or padded to.
    {"grey_clock.mp4", "-f lavfi "
     "-i color=c=gray:size=320x180:rate=30:duration=60,geq=lum='64+12*mod(floor(T)\\,12)':cb=128"
     ":cr=128 " TONE("48000", "60") H264 "-g 30 -c:a aac -b:a 32k -ac 2"},
    {"rotated_clock.mp4", "-i @grey_clock.mp4 -c copy -map 0 -metadata:s:v:0 rotate=270"},
    {"source-subtitles.srt", nullptr},
    {"source-payload.bin", nullptr},
};

std::string CacheDir() { return std::string(ORVOVTE_TEST_MEDIA_CACHE) + kRecipeDir; }

std::string Ensure(const std::string& name);

// The content of a file no recipe makes; "" when it cannot be had.
std::string Text(const std::string& name) {
  if (name == "truncated.mp4") {
    return toolkit::ReadWholeFile(Ensure("h264_aac.mp4")).substr(0, 4096);
  }
  if (name == "source-payload.bin") return std::string(4096, '\x5a');
  if (name == "source-subtitles.srt") {
    return "1\n00:00:00,000 --> 00:00:01,000\nBonjour\n\n"
           "2\n00:00:01,000 --> 00:00:02,000\nAu revoir\n\n";
  }
  return "This is not a media file.\n"
         "It holds a few lines of plain English text,\n"
         "which no demuxer should accept.\n";
}

bool Make(const Entry& entry, const std::string& path) {
  if (entry.recipe == nullptr) return LibOrvoVTE::SaveFile(path, Text(entry.name));
  std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-y", "-v", "error"};
  std::istringstream words(entry.recipe);
  for (std::string word; words >> word;) {
    argv.push_back(word[0] == '@' ? Ensure(word.substr(1)) : word);
    if (argv.back().empty()) return false;
  }
  argv.push_back(path);
  const int status = RunQuietly(argv, 120);
  if (status != 0) ADD_FAILURE() << "ffmpeg ended with " << status << " on " << entry.recipe;
  return status == 0;
}

// Made under a temporary name of the same extension (ffmpeg picks the muxer
// from it) and renamed once whole, so a file that exists is whole.
std::string Ensure(const std::string& name) {
  const std::string path = CacheDir() + "/" + name;
  if (Exists(path)) return path;
  const std::string temp = CacheDir() + "/.tmp-" + name;
  for (const Entry& entry : kEntries) {
    if (name == entry.name && Make(entry, temp) && rename(temp.c_str(), path.c_str()) == 0) {
      return path;
    }
  }
  unlink(temp.c_str());
  return "";
}

}  // namespace

const std::vector<Media>& LibraryMedia() {
  static const std::vector<Media> library = {
      Media::kH264AacMp4,        Media::kBarsH264Mp4,   Media::kHdr10HevcMkv,
      Media::kHlgHevcMp4,        Media::kH264444Ac3Mkv, Media::kH264High10Eac3Mkv,
      Media::kHevcFlacAssMkv,    Media::kVp9VorbisWebm, Media::kAv1OpusWebm,
      Media::kInterlacedMpeg2Ts, Media::kAc3DataTs,     Media::kMpeg4Mp3Avi,
      Media::kVideoOnlyAvi,      Media::kPhone90Mp4,    Media::kPhone270Mp4,
      Media::kAnamorphicDtsMkv,  Media::kOddSizeMkv,    Media::kTracksMkv};
  return library;
}

std::string MediaName(Media kind) { return kEntries[static_cast<int>(kind)].name; }

std::string TestMedia(Media kind) {
  const std::string path = CacheDir() + "/" + MediaName(kind);
  if (Exists(path)) return path;
  std::error_code failed;
  std::filesystem::create_directories(CacheDir(), failed);
  // Another test process may be making the whole set while this one waits.
  const int lock = open((CacheDir() + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (failed || lock < 0 ||
      !WaitUntil([lock] { return flock(lock, LOCK_EX | LOCK_NB) == 0; }, 240000)) {
    ADD_FAILURE() << "cannot lock the media cache " << CacheDir();
    if (lock >= 0) close(lock);
    return "";
  }
  const std::string made = Ensure(MediaName(kind));
  close(lock);
  return made;
}

}  // namespace orvotest
