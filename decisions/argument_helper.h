// What the transcoder may do with one media file on this machine: whether its
// audio can be decoded and its video transcoded (by hardware or software), the
// output size for a named size, which encoders to name, and which GStreamer
// elements to chain in front of the encoders.
//
// Every answer comes from a private copy of the file's metadata and from the
// platform predicates; configuration files are read afresh on each question
// so an administrator's change applies to the next stream.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "metadata/video_metadata.h"

namespace LibOrvoVTE {

// Results of the hardware-capability checks. Any non-zero code means the video
// cannot be transcoded that way; the stream turns it into its error text.
enum HWTranscodeResult : unsigned int {
  kHWTranscodeOK = 0,
  kHWTranscodeNotPossible = 1,       // no engine, no height, too tall for it
  kHWTranscodeCodecUnsupported = 2,
  kHWTranscodeOutOfResolution = 3,
  kHWTranscodeOutOfProfile = 4,
  kHWTranscodeOutOfFramerate = 5,
};

class ArgumentHelper {
 public:
  // Copies `metadata`; later changes to it are not seen.
  explicit ArgumentHelper(const VideoMetaData& metadata);
  ~ArgumentHelper();

  // The encoder names handed to the transcoder.
  static std::string GetAACEncoder();
  static std::string GetMP3Encoder();

  // The audio track whose "id" equals `id` (the empty id: the first audio
  // track), or a null value. Tracks lacking "track", "id" or "codec" are never
  // matched by id. On a match by id `index` receives the track's position in
  // the audio list; otherwise it is not written.
  Json::Value GetAudioTrackInfoByID(const std::string& id, unsigned int& index) const;
  Json::Value GetAudioTrackInfoByID(const std::string& id) const;
  // Whether the track of `id` exists and its "codec" is exactly `codec`.
  bool DoesAudioCodecMatch(const std::string& id, const std::string& codec) const;

  // Whether the administrator switched the advanced audio codecs on.
  static bool IsAdvCodecEnabled();
  // Whether an administrator-installed FFmpeg is present.
  static bool IsCustomFFmpegInstalled();
  // False only for a restricted codec ("dts", "eac3", "truehd") while neither
  // of the two above allows it.
  static bool AbleToDecodeAudioByCodec(const std::string& codec);
  // False when the track of `id` does not exist.
  bool AbleToDecodeAudioById(const std::string& id) const;
  bool AbleToDecodeAudio(const std::string& id) const;

  // Larger than 1920x1080 in either orientation.
  static bool Is4kVideo(unsigned int width, unsigned int height);

  // Per-engine checks, returning an HWTranscodeResult. They are pure: the
  // platform is not consulted.
  static unsigned int EvansportAbleToHWTranscodeTheVideo(const std::string& codec,
                                                         unsigned int width, unsigned int height,
                                                         float framerate,
                                                         const std::string& codecTag,
                                                         const std::string& profile);
  static unsigned int MonacoAbleToHWTranscodeTheVideo(const std::string& codec, unsigned int width,
                                                      unsigned int height, float framerate,
                                                      const std::string& codecTag,
                                                      const std::string& profile);
  // Always OK: on that platform the GStreamer-or-FFmpeg choice decides instead.
  static unsigned int BraswellAbleToHWTranscodeTheVideo(const std::string& codec,
                                                        unsigned int width, unsigned int height,
                                                        float framerate,
                                                        const std::string& codecTag,
                                                        const std::string& profile);
  // The check of this machine's engine; kHWTranscodeNotPossible without one
  // or for a zero height.
  static unsigned int AbleToHWTranscodeTheVideo(const std::string& codec, unsigned int width,
                                                unsigned int height, float framerate,
                                                const std::string& codecTag,
                                                const std::string& profile);
  // kHWTranscodeOK for software; otherwise the engine's check of the first
  // video track.
  unsigned int AbleToTranscodeTheVideo(bool hardware) const;

  // The box of a named output size ("hd480", "hd720", "hd1080", "320x240",
  // "480x360"). An unknown name leaves both outputs untouched.
  static void MapVideoSize(const std::string& name, unsigned int& width, unsigned int& height);
  // The output size for the named box. exactSize: the box itself (0x0 for an
  // unknown name), turned for a rotation of 90 or 270. Otherwise the largest
  // size inside the box with the source's display aspect (sample aspect ratio
  // applied, turned by the rotation), the computed side made even; nothing is
  // written when the name, the box or the source size is unknown.
  void GetTransVideoSize(const std::string& name, bool exactSize, unsigned int rotate,
                         unsigned int& width, unsigned int& height) const;

  // True only when the file's audio list exists and is empty.
  bool ZeroAudioTrack();

  // Pipeline words, in order, for the GStreamer transcoder. "!" links two
  // elements; the caller joins the lists into one pipeline.
  //
  // The demuxer for the container, named "demux" and followed by a queue.
  // Falls back to "decodebin" for containers without a dedicated demuxer,
  // which the video and audio choices below must know: call it first.
  std::vector<std::string> GetGstreamDemuxer();
  // The video parser and decoder for the first video track and this
  // platform's engine; empty after a "decodebin" demuxer.
  std::vector<std::string> GetGstreamVideoArgument() const;
  // The audio parser and decoder for `codec`. `parseOnly`: the compressed
  // audio is copied, so only a parser is needed where one exists.
  std::vector<std::string> GetGstreamAudioDecoder(const std::string& codec, bool parseOnly) const;
  // A queue and GetGstreamAudioDecoder for the track of `audioId`; empty when
  // there is no such track.
  std::vector<std::string> GetGstreamAudioArgument(const std::string& audioId,
                                                   bool parseOnly) const;
  // The demuxer's source pad of the track of `audioId` ("demux.audio_c0"),
  // or "demux." (any pad) when there is no such track or the demuxer names
  // its pads otherwise.
  std::string GetGstreamAudioMap(const std::string& audioId) const;
  // FFmpeg "-map" arguments for the first video track and the track of
  // `audioId`; empty when either is missing, so FFmpeg picks its defaults.
  std::vector<std::string> GetVideoAudioMap(const std::string& audioId) const;

  // Whether GetGstreamDemuxer fell back to "decodebin".
  bool IsDemuxByDecodebin() const { return demuxByDecodebin; }

 private:
  VideoMetaData metaData;
  // Set when no specific demuxer fits the container and "decodebin" is used;
  // that element decodes as well, so no video decoder may follow it.
  bool demuxByDecodebin;
};

}  // namespace LibOrvoVTE
