#include "tests/support/test_media.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>

#include "tests/support/child.h"
#include "toolkit/files.h"

namespace orvotest {
namespace {

// Bumped whenever a recipe changes, so caches made by older recipes are not
// mistaken for the new files.
constexpr char kRecipeDir[] = "/r4";

// A recipe is what ffmpeg gets between its common options and the output
// name, one word per space; "@name" stands for the path of another file of
// the cache (a medium made first, or a source below). The two files with no
// recipe are written in Make.
struct Entry {
  Media kind;
  const char* name;
  const char* recipe;
};

// Recipe words for `seconds` of a lavfi source, of a 440 Hz tone, and of both.
#define SOURCE(picture, seconds) "-f lavfi -i " picture ":duration=" seconds " "
#define TONE(rate, seconds) SOURCE("sine=frequency=440:sample_rate=" rate, seconds)
#define CLIP(picture, seconds) SOURCE(picture, seconds) TONE("48000", seconds)
#define X264 "-c:v libx264 -preset ultrafast "
#define X265 "-c:v libx265 -preset ultrafast -x265-params log-level=error"
// The bars in light of 100 nits as a grading would put them in PQ or HLG.
#define BT2020(transfer)                                                                      \
  "-vf zscale=tin=bt709:min=bt709:pin=bt709:rin=tv:t=" transfer ":m=bt2020nc:p=bt2020:r=tv:" \
  "npl=100,format=yuv420p10le " X265 ":crf=12:keyint=25:colorprim=bt2020:transfer=" transfer  \
  ":colormatrix=bt2020nc"

constexpr Entry kEntries[] = {
    {Media::kH264AacMp4, "h264_aac.mp4", CLIP("testsrc=size=320x240:rate=24000/1001", "2")
     X264 "-pix_fmt yuv420p -c:a aac -b:a 64k -ac 2 -metadata:s:a:0 language=eng"},
    {Media::kTracksMkv, "tracks.mkv", CLIP("testsrc=size=320x240:rate=25", "2")
     "-f lavfi -i sine=frequency=660:sample_rate=48000:duration=2 -i @subtitles.srt -map 0:v "
     "-map 1:a -map 2:a -map 3:s " X264 "-pix_fmt yuv420p -c:a:0 aac -ac:a:0 2 -c:a:1 ac3 "
     "-b:a:1 96k -c:s srt -metadata:s:a:0 language=eng -metadata:s:a:1 language=jpn "
     "-disposition:a:0 0 -disposition:a:1 default -metadata:s:s:0 language=fre "
     "-metadata:s:s:0 title=French -attach @subtitles.srt -metadata:s:t:0 mimetype=text/plain"},
    {Media::kAc3DataTs, "ac3_data.ts", SOURCE("testsrc=size=320x240:rate=25", "2")
     "-f data -i @payload.bin " TONE("48000", "2")
     "-f lavfi -i sine=frequency=660:sample_rate=48000:duration=2 -map 0:v -map 1:d -map 2:a "
     "-map 3:a -c:v mpeg2video -c:d copy -c:a:0 ac3 -ac:a:0 6 -c:a:1 mp2 -ac:a:1 2 "
     "-metadata:s:a:0 language=eng -metadata:s:a:1 language=ger"},
    // The 5.1 CLI stores "rotate" as a display matrix turned the other way.
    {Media::kRotatedMp4, "rotated.mp4",
     "-i @h264_aac.mp4 -c copy -map 0 -metadata:s:v:0 rotate=270"},
    {Media::kSar4x3Mp4, "sar4x3.mp4",
     SOURCE("testsrc=size=320x240:rate=25", "1") "-vf setsar=4/3 " X264 "-pix_fmt yuv420p"},
    // 0/1 keeps x264 from writing any aspect ratio at all.
    {Media::kNoSarMp4, "no_sar.mp4",
     SOURCE("testsrc=size=320x240:rate=25", "1") "-vf setsar=0/1 " X264 "-pix_fmt yuv420p"},
    // On a copied stream the aspect reaches only the container.
    {Media::kContainerSarMkv, "container_sar.mkv", "-i @no_sar.mp4 -c copy -aspect 16:9"},
    {Media::kAudioOnlyMp3, "audio_only.mp3", TONE("44100", "2") "-c:a libmp3lame -b:a 64k"},
    {Media::kVideoOnlyAvi, "video_only.avi",
     SOURCE("testsrc=size=320x240:rate=25", "2") "-c:v mpeg4 -q:v 5"},
    {Media::kVp9VorbisWebm, "vp9_vorbis.webm", CLIP("testsrc=size=320x240:rate=25", "2")
     "-c:v libvpx-vp9 -deadline realtime -cpu-used 8 -b:v 200k -pix_fmt yuv420p "
     "-c:a libvorbis -ac 2"},
    {Media::kTruncatedMp4, "truncated.mp4", nullptr},
    // No extension: ".txt" alone makes libavformat try its tty demuxer.
    {Media::kNotMedia, "not_media", nullptr},
    {Media::kLongH264Mp3Mkv, "long_h264_mp3.mkv", SOURCE("testsrc=size=320x240:rate=15", "40")
     TONE("44100", "40") X264 "-pix_fmt yuv420p -c:a libmp3lame -b:a 64k -ac 2"},
    // Long enough for seeks across a dozen 8-second remux segments.
    {Media::kLongH264AacMp4, "long_h264_aac.mp4", CLIP("testsrc=size=160x120:rate=10", "100")
     X264 "-pix_fmt yuv420p -g 10 -c:a aac -b:a 48k -ac 2"},
    // High quality, so that a picture made from it can be held to the bars.
    {Media::kBarsH264Mp4, "bars_h264.mp4", CLIP("smptehdbars=size=640x360:rate=25", "3")
     X264 "-crf 12 -pix_fmt yuv420p -g 25 -color_primaries bt709 -color_trc bt709 "
     "-colorspace bt709 -c:a aac -ac 2"},
    // With the mastering display and light levels an HDR10 file carries.
    {Media::kHdr10HevcMkv, "hdr10_hevc.mkv", CLIP("smptehdbars=size=640x360:rate=25", "3")
     BT2020("smpte2084") ":hdr10=1:master-display=G(13250,34500)B(7500,3000)R(34000,16000)"
     "WP(15635,16450)L(10000000,1):max-cll=1000,400 -c:a libopus -ac 6"},
    {Media::kHlgHevcMp4, "hlg_hevc.mp4", CLIP("smptehdbars=size=640x360:rate=25", "3")
     BT2020("arib-std-b67") " -tag:v hvc1 -c:a aac -ac 2"},
    // What libx264 makes of testsrc's RGB unless told otherwise.
    {Media::kH264444Ac3Mkv, "h264_444_ac3.mkv", CLIP("testsrc=size=320x240:rate=25", "3")
     X264 "-pix_fmt yuv444p -c:a ac3 -ac 6"},
    {Media::kH264High10Eac3Mkv, "h264_high10_eac3.mkv", CLIP("testsrc=size=320x240:rate=25", "3")
     X264 "-pix_fmt yuv420p10le -c:a eac3 -ac 2"},
    {Media::kHevcFlacAssMkv, "hevc_flac_ass.mkv", CLIP("testsrc=size=640x360:rate=25", "3")
     "-i @subtitles.srt -map 0:v -map 1:a -map 2:s " X265 " -pix_fmt yuv420p -c:a flac -ac 1 "
     "-c:s ass"},
    {Media::kAv1OpusWebm, "av1_opus.webm", CLIP("testsrc=size=320x240:rate=25", "3")
     "-c:v libaom-av1 -usage realtime -cpu-used 8 -pix_fmt yuv420p -c:a libopus -ac 2"},
    {Media::kInterlacedMpeg2Ts, "interlaced_mpeg2.ts", CLIP("testsrc=size=720x576:rate=25", "2")
     "-vf setfield=tff -c:v mpeg2video -flags +ilme+ildct -top 1 -q:v 6 -c:a mp2 -ac 2"},
    {Media::kMpeg4Mp3Avi, "mpeg4_mp3.avi", SOURCE("testsrc=size=320x240:rate=25", "3")
     TONE("44100", "3") "-c:v mpeg4 -vtag XVID -q:v 5 -c:a libmp3lame -b:a 128k -ac 2"},
    // A third of every second dropped: 10 frames at 30 fps, a gap, 10 more.
    {Media::kPhoneVfrMp4, "phone_vfr.mp4", SOURCE("testsrc2=size=640x360:rate=30", "3")
     TONE("44100", "3") "-i @subtitles.srt -map 0:v -map 1:a -map 2:s "
     "-vf select=not(between(mod(n\\,30)\\,10\\,19)) -fps_mode vfr " X264 "-crf 30 "
     "-pix_fmt yuv420p -c:a aac -ac 1 -c:s mov_text"},
    {Media::kPhone90Mp4, "phone_90.mp4",
     "-i @phone_vfr.mp4 -map 0 -c copy -metadata:s:v:0 rotate=270"},
    {Media::kPhone270Mp4, "phone_270.mp4",
     "-i @phone_vfr.mp4 -map 0 -c copy -metadata:s:v:0 rotate=90"},
    {Media::kAnamorphicDtsMkv, "anamorphic_dts.mkv", CLIP("testsrc=size=720x576:rate=25", "3")
     "-vf setsar=16/15 " X264 "-pix_fmt yuv420p -c:a dca -strict -2 -ac 6"},
    {Media::kOddSizeMkv, "odd_1918x1080.mkv", CLIP("testsrc=size=1918x1080:rate=25", "2")
     X264 "-pix_fmt yuv420p -c:a aac -ac 8"},
    {Media::kBesideSrt, "h264_high10_eac3.srt", "-i @subtitles.srt"},
    // A flat grey per second: any decoded frame tells its second, whatever
    // it was scaled, turned or padded to.
    {Media::kGreyClockMp4, "grey_clock.mp4",
     "-f lavfi -i color=c=gray:size=320x180:rate=30:duration=60,"
     "geq=lum='64+12*mod(floor(T)\\,12)':cb=128:cr=128 " TONE("48000", "60")
     X264 "-pix_fmt yuv420p -g 30 -c:a aac -b:a 32k -ac 2"},
    {Media::kRotatedClockMp4, "rotated_clock.mp4",
     "-i @grey_clock.mp4 -c copy -map 0 -metadata:s:v:0 rotate=270"},
};
#undef SOURCE
#undef TONE
#undef CLIP
#undef X264
#undef X265
#undef BT2020

// Small input files that recipes read, written beside the media.
const std::pair<const char*, std::string> kSources[] = {
    {"subtitles.srt",
     "1\n00:00:00,000 --> 00:00:01,000\nBonjour\n\n"
     "2\n00:00:01,000 --> 00:00:02,000\nAu revoir\n\n"},
    {"payload.bin", std::string(4096, '\x5a')},
};

std::string CacheDir() { return std::string(ORVOVTE_TEST_MEDIA_CACHE) + kRecipeDir; }

bool WriteText(const std::string& path, const std::string& content) {
  FILE* file = fopen(path.c_str(), "we");
  if (!file) return false;
  const bool written = fwrite(content.data(), 1, content.size(), file) == content.size();
  return fclose(file) == 0 && written;
}

// Makes `path` unless it exists: `write` fills a temporary file of the same
// extension (ffmpeg picks the muxer from it), renamed into place only once
// complete, so a file that exists is whole.
bool MakeOnce(const std::string& path, const std::function<bool(const std::string&)>& write) {
  if (Exists(path)) return true;
  const size_t slash = path.rfind('/');
  const std::string temp = path.substr(0, slash + 1) + ".tmp-" + path.substr(slash + 1);
  if (write(temp) && rename(temp.c_str(), path.c_str()) == 0) return true;
  unlink(temp.c_str());
  return false;
}

std::string Ensure(Media kind);

// The path an "@name" word of a recipe stands for, made when missing; "".
std::string Ingredient(const std::string& name) {
  for (const Entry& entry : kEntries) {
    if (name == entry.name) return Ensure(entry.kind);
  }
  const std::string path = CacheDir() + "/source-" + name;
  for (const auto& [source, content] : kSources) {
    if (name == source && MakeOnce(path, [&](auto& temp) { return WriteText(temp, content); })) {
      return path;
    }
  }
  return "";
}

bool Make(const Entry& entry, const std::string& path) {
  if (entry.kind == Media::kTruncatedMp4) {
    const std::string prefix = toolkit::ReadWholeFile(Ensure(Media::kH264AacMp4)).substr(0, 4096);
    return prefix.size() == 4096 && WriteText(path, prefix);
  }
  if (entry.kind == Media::kNotMedia) {
    return WriteText(path,
                     "This is not a media file.\n"
                     "It holds a few lines of plain English text,\n"
                     "which no demuxer should accept.\n");
  }
  std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-y", "-v", "error"};
  std::istringstream words(entry.recipe);
  for (std::string word; words >> word;) {
    argv.push_back(word[0] == '@' ? Ingredient(word.substr(1)) : word);
    if (argv.back().empty()) return false;
  }
  argv.push_back(path);
  const int status = RunQuietly(argv, 120);
  if (status != 0) ADD_FAILURE() << "ffmpeg ended with " << status << " on " << entry.recipe;
  return status == 0;
}

const Entry& EntryOf(Media kind) {
  return *std::find_if(std::begin(kEntries), std::end(kEntries),
                       [kind](const Entry& entry) { return entry.kind == kind; });
}

// Generates `kind` (and what it is made from) unless cached; "" on failure.
std::string Ensure(Media kind) {
  const std::string path = CacheDir() + "/" + MediaName(kind);
  return MakeOnce(path, [&](auto& temp) { return Make(EntryOf(kind), temp); }) ? path : "";
}

}  // namespace

const std::vector<Media>& LibraryMedia() {
  static const std::vector<Media> library = {
      Media::kH264AacMp4,        Media::kBarsH264Mp4,      Media::kHdr10HevcMkv,
      Media::kHlgHevcMp4,        Media::kH264444Ac3Mkv,    Media::kH264High10Eac3Mkv,
      Media::kHevcFlacAssMkv,    Media::kVp9VorbisWebm,    Media::kAv1OpusWebm,
      Media::kInterlacedMpeg2Ts, Media::kAc3DataTs,        Media::kMpeg4Mp3Avi,
      Media::kVideoOnlyAvi,      Media::kPhone90Mp4,       Media::kPhone270Mp4,
      Media::kAnamorphicDtsMkv,  Media::kOddSizeMkv,       Media::kTracksMkv};
  return library;
}

std::string MediaName(Media kind) { return EntryOf(kind).name; }

std::string TestMedia(Media kind) {
  const std::string path = CacheDir() + "/" + MediaName(kind);
  if (Exists(path)) return path;
  std::error_code failed;
  std::filesystem::create_directories(CacheDir(), failed);
  // Serialises generation between test processes; another may be making
  // the whole set while this one waits.
  const int lock = open((CacheDir() + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (failed || lock < 0 ||
      !WaitUntil([lock] { return flock(lock, LOCK_EX | LOCK_NB) == 0; }, 240000)) {
    ADD_FAILURE() << "cannot lock the media cache " << CacheDir();
    if (lock >= 0) close(lock);
    return "";
  }
  const std::string made = Ensure(kind);
  close(lock);
  return made;
}

}  // namespace orvotest
