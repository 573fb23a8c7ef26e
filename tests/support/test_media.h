// Media files for tests, generated with the ffmpeg CLI from its lavfi sources
// on first use and cached (ORVOVTE_TEST_MEDIA_CACHE) across test processes.
#pragma once

#include <string>
#include <vector>

namespace orvotest {

enum class Media {
  kH264AacMp4,       // H.264 320x240 at 24000/1001 fps + AAC stereo "eng", 2 s
  kTracksMkv,        // H.264 + AAC "eng" + AC-3 "jpn" (default) + SubRip "fre"
                     // titled + a text attachment (demuxed last)
  kAc3DataTs,        // MPEG-2 video, a data stream, AC-3 5.1 "eng", MP2 "ger"
  kRotatedMp4,       // kH264AacMp4 re-muxed with rotate=270 (probes as 90)
  kSar4x3Mp4,        // H.264 with a 4:3 sample aspect ratio in the bitstream
  kNoSarMp4,         // H.264 with no sample aspect ratio anywhere, 1 s
  kContainerSarMkv,  // kNoSarMp4 shown 16:9 by the container alone
  kAudioOnlyMp3,     // MP3 mono 44.1 kHz
  kVideoOnlyAvi,     // MPEG-4 part 2, tag FMP4, 25 fps
  kVp9VorbisWebm,    // VP9 + Vorbis
  kTruncatedMp4,     // the first 4096 bytes of kH264AacMp4 (no 'moov')
  kNotMedia,         // plain text that no demuxer accepts
  kLongH264Mp3Mkv,   // H.264 320x240 at 15 fps + MP3 stereo 44.1 kHz, 40 s
  kLongH264AacMp4,   // H.264 160x120 at 10 fps, a keyframe every second, + AAC, 100 s
  // What a home library holds, a few seconds each. The bars clips show the
  // same SMPTE colour bars, so pictures can be compared across them.
  kBarsH264Mp4,        // bars, H.264 8-bit 4:2:0 tagged BT.709, 640x360 + AAC stereo, 3 s
  kHdr10HevcMkv,       // the bars as HEVC Main 10, HDR10 (PQ, BT.2020) + Opus 5.1, 3 s
  kHlgHevcMp4,         // the bars as HEVC Main 10, HLG (BT.2020) + AAC stereo, 3 s
  kH264444Ac3Mkv,      // H.264 High 4:4:4 Predictive + AC-3 5.1, 3 s
  kH264High10Eac3Mkv,  // H.264 High 10 + E-AC-3 stereo, 3 s
  kHevcFlacAssMkv,     // HEVC Main 640x360 + FLAC mono + ASS subtitles, 3 s
  kAv1OpusWebm,        // AV1 + Opus stereo, 3 s
  kInterlacedMpeg2Ts,  // MPEG-2 720x576 interlaced, top field first + MP2 stereo, 2 s
  kMpeg4Mp3Avi,        // MPEG-4 part 2 tagged XVID + MP3 stereo, 3 s
  kPhoneVfrMp4,        // H.264 640x360 at a variable frame rate + AAC mono 44.1 kHz
                       // + mov_text subtitles, 3 s
  kPhone90Mp4,         // kPhoneVfrMp4 turned by its display matrix: probes as 90
  kPhone270Mp4,        // the same turned the other way: probes as 270
  kAnamorphicDtsMkv,   // H.264 720x576 with sample aspect 16:15 + DTS 5.1, 3 s
  kOddSizeMkv,         // H.264 1918x1080 + AAC 7.1, 2 s
  kBesideSrt,          // SubRip subtitles beside kH264High10Eac3Mkv
  kGreyClockMp4,     // H.264 320x180 at 30 fps whose whole picture is one grey per second
                     // (luma 64 + 12 * (second mod 12)), + AAC stereo 48 kHz, 60 s
  kRotatedClockMp4,  // kGreyClockMp4 re-muxed with rotate=270 (probes as 90): a phone
                     // clip shown upright at 180x320
};

// Every kind, in declaration order.
const std::vector<Media>& AllMedia();

// The media matrix: the sources a home library holds, one of each kind.
const std::vector<Media>& LibraryMedia();

// A short name for messages ("h264_aac.mp4").
std::string MediaName(Media kind);

// The path of the generated file, generating it when the cache lacks it; ""
// (with a gtest failure recorded) when generation fails.
std::string TestMedia(Media kind);

}  // namespace orvotest
