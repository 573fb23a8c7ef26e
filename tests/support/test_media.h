// Media files for tests, generated with the ffmpeg CLI from its lavfi sources
// on first use and cached (ORVOVTE_TEST_MEDIA_CACHE) across test processes.
// The recipes in test_media.cc say what each file holds.
#pragma once

#include <string>
#include <vector>

namespace orvotest {

enum class Media {
  kH264AacMp4,  // H.264 320x240 at 24000/1001 fps + AAC stereo "eng", 2 s
  kTracksMkv,   // H.264 + AAC "eng" + AC-3 "jpn" (default) + SubRip "fre" + an attachment
  kAc3DataTs,   // MPEG-2 video, a data stream, AC-3 5.1 "eng", MP2 "ger"
  kRotatedMp4,  // kH264AacMp4 re-muxed with rotate=270 (probes as 90)
  kSar4x3Mp4,
  kNoSarMp4,
  kContainerSarMkv,  // kNoSarMp4 shown 16:9 by the container alone
  kAudioOnlyMp3,
  kVideoOnlyAvi,
  kVp9VorbisWebm,
  kTruncatedMp4,  // the first 4096 bytes of kH264AacMp4 (no 'moov')
  kNotMedia,      // plain text that no demuxer accepts
  kLongH264Mp3Mkv,  // 320x240 at 15 fps + MP3, 40 s
  kLongH264AacMp4,  // 160x120 at 10 fps, a keyframe every second, + AAC, 100 s
  // What a home library holds, a few seconds each; the bars clips show the
  // same SMPTE colour bars, so pictures can be compared across them.
  kBarsH264Mp4,
  kHdr10HevcMkv,
  kHlgHevcMp4,
  kH264444Ac3Mkv,
  kH264High10Eac3Mkv,
  kHevcFlacAssMkv,
  kAv1OpusWebm,
  kInterlacedMpeg2Ts,
  kMpeg4Mp3Avi,
  kPhoneVfrMp4,  // a variable frame rate + mov_text subtitles
  kPhone90Mp4,   // kPhoneVfrMp4 turned by its display matrix: probes as 90
  kPhone270Mp4,  // the other way: probes as 270
  kAnamorphicDtsMkv,
  kOddSizeMkv,  // 1918x1080
  kBesideSrt,   // SubRip subtitles beside kH264High10Eac3Mkv
  kGreyClockMp4,     // 320x180 at 30 fps, one grey per second (luma 64 + 12 * (s mod 12)), 60 s
  kRotatedClockMp4,  // kGreyClockMp4 re-muxed with rotate=270, shown upright at 180x320
};

// The media matrix: the sources a home library holds, one of each kind.
const std::vector<Media>& LibraryMedia();

// A short name for messages ("h264_aac.mp4").
std::string MediaName(Media kind);

// The path of the generated file, generating it when the cache lacks it; ""
// (with a gtest failure recorded) when generation fails.
std::string TestMedia(Media kind);

}  // namespace orvotest
