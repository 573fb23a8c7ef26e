// The GStreamer words of ArgumentHelper: which demuxer, video decoder and
// audio decoder to chain for a file on this platform, and which demuxer pad
// carries the chosen audio.

#include <cstdio>

#include "decisions/argument_helper.h"
#include "decisions/platform_utils.h"
#include "decisions/track_members.h"
#include "platform/log.h"

namespace LibOrvoVTE {

namespace {

using track_members::MemberText;

// These lines belong to the class's log tag; operators match on their line
// numbers, so they are passed as they stand.
constexpr char kLogTag[] = "argument_helper";
constexpr int kUnhandledVideoLine = 344;
constexpr int kUnhandledAudioLine = 431;

constexpr char kDecodebin[] = "decodebin";

struct DemuxerRow {
  const char* containerKey;  // searched for inside the container name
  const char* element;
  // Braswell's build of the element takes the video profile as a property.
  bool profileOnBraswell;
};

// First hit wins: libavformat's names overlap ("mpegts" holds "mpeg",
// "matroska" holds "rm"), so the more specific key comes first.
constexpr DemuxerRow kDemuxers[] = {
    {"mp4", "qtdemux", false},          {"mpegts", "tsdemux", false},
    {"mpeg", "mpegpsdemux", false},     {"asf", "asfdemux", true},
    {"matroska", "matroskademux", false}, {"rm", "rmdemux", false},
    {"avi", "avidemux", false},         {"flv", "flvdemux", false},
};

enum class Parser { kNone, kOnBraswell, kAlways };

struct VideoDecoderRow {
  const char* codec;
  const char* otherDecoder;
  const char* braswellDecoder;  // VA-API where the Braswell GPU decodes it
  const char* monacoDecoder;    // the Monaco engine takes all it supports
  const char* parser;
  // The VA-API decoder wants whole access units, which only a parser
  // delivers; VC-1 needs its parser everywhere to find its sequence header.
  Parser parserUse;
};

constexpr VideoDecoderRow kVideoDecoders[] = {
    {"h264", "avdec_h264", "vaapidecode", "stvideo", "h264parse", Parser::kOnBraswell},
    {"wmv3", "avdec_wmv3", "vaapidecode", "stvideo", "vc1parse", Parser::kAlways},
    {"rv40", "avdec_rv40", "avdec_rv40", "avdec_rv40", nullptr, Parser::kNone},
    {"mpeg4", "avdec_mpeg4", "avdec_mpeg4", "stvideo", nullptr, Parser::kNone},
    {"mpeg2", "avdec_mpeg2video", kDecodebin, "stvideo", "mpegvideoparse", Parser::kOnBraswell},
    {"vc1", "avdec_vc1", "vaapidecode", "stvideo", "vc1parse", Parser::kAlways},
    {"hevc", kDecodebin, "avdec_h265", "stvideo", "h265parse", Parser::kOnBraswell},
};

struct AudioDecoderRow {
  const char* codec;
  const char* container;  // nullptr: any container; else exactly this one
  const char* parser;     // nullptr: the decoder takes the demuxer's output
  const char* decoder;
  // Decoded even when the caller copies the audio (MPEG audio).
  bool alwaysDecode;
};

constexpr AudioDecoderRow kAudioDecoders[] = {
    {"ac3", nullptr, "ac3parse", "avdec_ac3", false},
    {"eac3", nullptr, "ac3parse", "avdec_eac3", false},
    {"aac", nullptr, "aacparse", "avdec_aac", false},
    {"mp2", nullptr, "mpegaudioparse", "avdec_mp2float", true},
    {"mp3", nullptr, "mpegaudioparse", "avdec_mp3", true},
    {"wmapro", "asf", nullptr, "avdec_wmapro", true},
};

bool Contains(const std::string& text, const char* key) {
  return text.find(key) != std::string::npos;
}

unsigned int MemberNumber(const Json::Value& track, const char* key) {
  if (!track.isObject() || !track.isMember(key)) return 0;
  const Json::Value& value = track[key];
  return value.isUInt() ? value.asUInt() : 0;
}

const char* VideoDecoderFor(const VideoDecoderRow& row,
                            const librh::util::PlatformUtils& platform) {
  if (platform.IsBraswell()) return row.braswellDecoder;
  if (platform.IsMonaco()) return row.monacoDecoder;
  return row.otherDecoder;
}

}  // namespace

std::vector<std::string> ArgumentHelper::GetGstreamDemuxer() {
  const std::string container = metaData.GetContainer();
  std::vector<std::string> words;
  for (const DemuxerRow& row : kDemuxers) {
    if (!Contains(container, row.containerKey)) continue;
    words.push_back(row.element);
    const std::string profile = metaData.GetVideoProfile();
    if (row.profileOnBraswell && !profile.empty() &&
        librh::util::PlatformUtils::GetInst().IsBraswell()) {
      words.push_back("profile=" + profile);
    }
    break;
  }
  if (words.empty()) {
    words.push_back(kDecodebin);
    demuxByDecodebin = true;
  }
  words.insert(words.end(), {"name=demux", "!", "queue", "!"});
  return words;
}

std::vector<std::string> ArgumentHelper::GetGstreamVideoArgument() const {
  // decodebin has decoded already.
  if (demuxByDecodebin) return {};
  const librh::util::PlatformUtils& platform = librh::util::PlatformUtils::GetInst();
  const std::string codec = metaData.GetVideoCodecName();
  for (const VideoDecoderRow& row : kVideoDecoders) {
    if (codec != row.codec) continue;
    const std::string decoder = VideoDecoderFor(row, platform);
    const bool parse = row.parserUse == Parser::kAlways ||
                       (row.parserUse == Parser::kOnBraswell && platform.IsBraswell());
    if (!parse) return {decoder};
    return {row.parser, "!", "queue", "!", decoder};
  }
  librh::log::Write(LOG_ERR, kLogTag, kUnhandledVideoLine,
                    "Unhandled Gstreamer Video Decoder: %s, use decodebin", codec.c_str());
  return {kDecodebin};
}

std::vector<std::string> ArgumentHelper::GetGstreamAudioDecoder(const std::string& codec,
                                                                bool parseOnly) const {
  const std::string container = metaData.GetContainer();
  for (const AudioDecoderRow& row : kAudioDecoders) {
    if (codec != row.codec || (row.container != nullptr && container != row.container)) {
      continue;
    }
    if (row.parser == nullptr) return {row.decoder, "!"};
    if (parseOnly && !row.alwaysDecode) return {row.parser};
    return {row.parser, "!", row.decoder, "!"};
  }
  librh::log::Write(LOG_ERR, kLogTag, kUnhandledAudioLine,
                    "Unhandled Gstreamer Audio Decoder: %s, use decodebin", codec.c_str());
  return {kDecodebin, "!"};
}

std::vector<std::string> ArgumentHelper::GetGstreamAudioArgument(const std::string& audioId,
                                                                 bool parseOnly) const {
  const Json::Value track = GetAudioTrackInfoByID(audioId);
  if (track.isNull()) return {};
  std::vector<std::string> words = {"!", "queue", "!"};
  const std::vector<std::string> decoder =
      GetGstreamAudioDecoder(MemberText(track, "codec"), parseOnly);
  words.insert(words.end(), decoder.begin(), decoder.end());
  return words;
}

std::string ArgumentHelper::GetGstreamAudioMap(const std::string& audioId) const {
  unsigned int index = 0;
  const Json::Value track = GetAudioTrackInfoByID(audioId, index);
  const std::string container = metaData.GetContainer();
  // flvdemux names its pad plainly "audio"; "demux." lets the link choose.
  if (track.isNull() || Contains(container, "flv")) return "demux.";

  // The MPEG demuxers name pads after the stream id in hex (the PID in a
  // transport stream, the stream or sub-stream id in a program stream);
  // the others number their audio pads in order.
  const char* format = "demux.audio_%u";
  unsigned int number = index;
  if (Contains(container, "mpeg")) {
    format = Contains(container, "mpegts") ? "demux.audio_%04x" : "demux.audio_%02x";
    number = MemberNumber(track, "streamid");
    // libavformat reports MPEG audio of a program stream as 0x1c0 and up;
    // mpegpsdemux names it after the low byte.
    const std::string codec = MemberText(track, "codec");
    if (container == "mpeg" && (codec == "mp2" || codec == "mp3") && number > 256) {
      number -= 256;
    }
  }
  char pad[50];
  snprintf(pad, sizeof(pad), format, number);
  return pad;
}

std::vector<std::string> ArgumentHelper::GetVideoAudioMap(const std::string& audioId) const {
  try {
    Json::Value video;
    Json::Value audio;
    if (!metaData.GetTrackInfo(video, audio)) return {};
    if (!video.isArray() || video.empty()) return {};
    const std::string videoTrack = MemberText(video[0u], "track");
    if (videoTrack.empty()) return {};

    if (!audio.isArray() || audio.empty()) return {};
    const std::string audioTrack = MemberText(GetAudioTrackInfoByID(audioId), "track");
    if (audioTrack.empty()) return {};

    char videoMap[20];
    char audioMap[20];
    snprintf(videoMap, sizeof(videoMap), "0:%s", videoTrack.c_str());
    snprintf(audioMap, sizeof(audioMap), "0:%s", audioTrack.c_str());
    return {"-map", videoMap, "-map", audioMap};
  } catch (const std::exception&) {
    // A malformed document maps nothing; FFmpeg's defaults apply.
    return {};
  }
}

}  // namespace LibOrvoVTE
