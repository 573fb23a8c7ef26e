#include "decisions/argument_helper.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>

#include "decisions/platform_utils.h"
#include "decisions/track_members.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {

namespace {

using track_members::MemberText;

constexpr char kLogTag[] = "argument_helper";

constexpr char kAdvCodecKey[] = "support_codec_dts";

// Codecs whose decoders the package may only use under the advanced codec
// licence or with an FFmpeg the administrator installed.
constexpr const char* kRestrictedAudioCodecs[] = {"dts", "eac3", "truehd"};

struct NamedSize {
  const char* name;
  unsigned int width;
  unsigned int height;
};

// Clients ask for these names; the first row without a name ends the table.
constexpr NamedSize kNamedSizes[] = {
    {"hd480", 852, 480}, {"hd720", 1280, 720}, {"hd1080", 1920, 1080},
    {"320x240", 320, 240}, {"480x360", 480, 360}, {nullptr, 0, 0},
};

// The largest frame the 4K engines decode.
constexpr unsigned int kUHDWidth = 3840;
constexpr unsigned int kUHDHeight = 2160;
// Admits 23.976 and 24 frames per second for 4K H.264, nothing faster.
constexpr double kMonaco4kH264MaxFramerate = 24.1;
// Above this height the Evansport engine takes only its native codecs.
constexpr unsigned int kEvansportMaxHeight = 480;
constexpr unsigned int kEvansportMaxRV40Height = 720;

bool IsOneOf(const std::string& value, std::initializer_list<const char*> names) {
  return std::any_of(names.begin(), names.end(),
                     [&value](const char* name) { return value == name; });
}

bool IsQuarterTurn(unsigned int rotate) { return rotate == 90 || rotate == 270; }

// Encoders want even dimensions (4:2:0 chroma is subsampled by two).
unsigned int TruncateToEven(float value) { return static_cast<unsigned int>(value) & ~1u; }

bool HasLookupMembers(const Json::Value& track) {
  return track.isObject() && track.isMember("track") && track.isMember("id") &&
         track.isMember("codec");
}

}  // namespace

ArgumentHelper::ArgumentHelper(const VideoMetaData& metadata)
    : metaData(metadata), demuxByDecodebin(false) {}

ArgumentHelper::~ArgumentHelper() = default;

std::string ArgumentHelper::GetAACEncoder() { return "libfdk_aac"; }

std::string ArgumentHelper::GetMP3Encoder() { return "libshine"; }

Json::Value ArgumentHelper::GetAudioTrackInfoByID(const std::string& id,
                                                  unsigned int& index) const {
  try {
    Json::Value video;
    Json::Value audio;
    if (!metaData.GetTrackInfo(video, audio) || !audio.isArray() || audio.empty()) {
      return Json::Value();
    }
    if (id.empty()) return audio[0u];
    for (Json::ArrayIndex i = 0; i < audio.size(); ++i) {
      const Json::Value& track = audio[i];
      if (!HasLookupMembers(track)) continue;
      if (MemberText(track, "id") == id) {
        index = i;
        return track;
      }
    }
  } catch (const std::exception&) {
    // A malformed document has no such track.
  }
  return Json::Value();
}

Json::Value ArgumentHelper::GetAudioTrackInfoByID(const std::string& id) const {
  unsigned int ignored = 0;
  return GetAudioTrackInfoByID(id, ignored);
}

bool ArgumentHelper::DoesAudioCodecMatch(const std::string& id, const std::string& codec) const {
  Json::Value track = GetAudioTrackInfoByID(id);
  if (track.isNull()) return false;
  return MemberText(track, "codec") == codec;
}

bool ArgumentHelper::IsAdvCodecEnabled() {
  // An unreadable file answers -1, which must not count as switched on.
  return OLIBCFileCheckKeyValue(librh::machine::Resolve(librh::machine::kCodecsConf).c_str(),
                                kAdvCodecKey, "yes", 0) > 0;
}

bool ArgumentHelper::IsCustomFFmpegInstalled() {
  return VerifyFileExist(librh::machine::Resolve(librh::machine::kSystemFFmpeg), 0);
}

bool ArgumentHelper::AbleToDecodeAudioByCodec(const std::string& codec) {
  bool restricted = std::any_of(std::begin(kRestrictedAudioCodecs),
                                std::end(kRestrictedAudioCodecs),
                                [&codec](const char* name) { return codec == name; });
  if (!restricted) return true;
  return IsAdvCodecEnabled() || IsCustomFFmpegInstalled();
}

bool ArgumentHelper::AbleToDecodeAudioById(const std::string& id) const {
  Json::Value track = GetAudioTrackInfoByID(id);
  if (track.isNull()) return false;
  return AbleToDecodeAudioByCodec(MemberText(track, "codec"));
}

bool ArgumentHelper::AbleToDecodeAudio(const std::string& id) const {
  return AbleToDecodeAudioById(id);
}

bool ArgumentHelper::Is4kVideo(unsigned int width, unsigned int height) {
  return std::min(width, height) > 1080 || std::max(width, height) > 1920;
}

unsigned int ArgumentHelper::EvansportAbleToHWTranscodeTheVideo(const std::string& codec,
                                                                unsigned int width,
                                                                unsigned int height,
                                                                float framerate,
                                                                const std::string& codecTag,
                                                                const std::string& profile) {
  if (IsOneOf(codec, {"mpeg4", "h264", "mpeg2", "vc1", "wmv3"})) return kHWTranscodeOK;
  if (codec == "rv40" && height <= kEvansportMaxRV40Height) return kHWTranscodeOK;
  return height > kEvansportMaxHeight ? kHWTranscodeNotPossible : kHWTranscodeOK;
}

unsigned int ArgumentHelper::MonacoAbleToHWTranscodeTheVideo(const std::string& codec,
                                                             unsigned int width,
                                                             unsigned int height, float framerate,
                                                             const std::string& codecTag,
                                                             const std::string& profile) {
  unsigned int code = IsOneOf(codec, {"mpeg4", "h264", "mpeg2", "vc1", "wmv3", "hevc"})
                          ? kHWTranscodeOK
                          : kHWTranscodeCodecUnsupported;
  bool is4k = Is4kVideo(width, height);
  if (is4k && codec == "h264" && static_cast<double>(framerate) > kMonaco4kH264MaxFramerate) {
    code = kHWTranscodeOutOfFramerate;
  }
  if (width > kUHDWidth || height > kUHDHeight) code = kHWTranscodeOutOfResolution;
  // Besides H.264 only HEVC is decoded above 1080p.
  if (is4k && codec != "h264" && codec != "hevc") code = kHWTranscodeOutOfResolution;
  // The engine does not decode DivX-flavoured MPEG-4 Visual.
  if (codec == "mpeg4" && codecTag == "DIVX") code = kHWTranscodeCodecUnsupported;
  // 10-bit streams exceed the engine whatever their size.
  if (codec == "h264" && profile == "High 10") return kHWTranscodeOutOfProfile;
  if (codec == "hevc" && profile == "Main 10") return kHWTranscodeOutOfProfile;
  return code;
}

unsigned int ArgumentHelper::BraswellAbleToHWTranscodeTheVideo(const std::string& codec,
                                                               unsigned int width,
                                                               unsigned int height,
                                                               float framerate,
                                                               const std::string& codecTag,
                                                               const std::string& profile) {
  return kHWTranscodeOK;
}

unsigned int ArgumentHelper::AbleToHWTranscodeTheVideo(const std::string& codec,
                                                       unsigned int width, unsigned int height,
                                                       float framerate,
                                                       const std::string& codecTag,
                                                       const std::string& profile) {
  if (height == 0) return kHWTranscodeNotPossible;
  const librh::util::PlatformUtils& platform = librh::util::PlatformUtils::GetInst();
  if (platform.IsEvansport()) {
    return EvansportAbleToHWTranscodeTheVideo(codec, width, height, framerate, codecTag, profile);
  }
  if (platform.IsMonaco()) {
    return MonacoAbleToHWTranscodeTheVideo(codec, width, height, framerate, codecTag, profile);
  }
  if (platform.IsBraswell()) {
    return BraswellAbleToHWTranscodeTheVideo(codec, width, height, framerate, codecTag, profile);
  }
  return kHWTranscodeNotPossible;
}

unsigned int ArgumentHelper::AbleToTranscodeTheVideo(bool hardware) const {
  if (!hardware) return kHWTranscodeOK;
  return AbleToHWTranscodeTheVideo(metaData.GetVideoCodecName(), metaData.GetVideoResolutionX(),
                                   metaData.GetVideoResolutionY(), metaData.GetVideoFramerate(),
                                   metaData.GetVideoCodecTag(), metaData.GetVideoProfile());
}

void ArgumentHelper::MapVideoSize(const std::string& name, unsigned int& width,
                                  unsigned int& height) {
  for (const NamedSize* size = kNamedSizes; size->name != nullptr; ++size) {
    if (name == size->name) {
      width = size->width;
      height = size->height;
      return;
    }
  }
}

void ArgumentHelper::GetTransVideoSize(const std::string& name, bool exactSize,
                                       unsigned int rotate, unsigned int& width,
                                       unsigned int& height) const {
  if (name.empty()) return;
  unsigned int boxWidth = 0;
  unsigned int boxHeight = 0;
  MapVideoSize(name, boxWidth, boxHeight);
  if (exactSize) {
    width = IsQuarterTurn(rotate) ? boxHeight : boxWidth;
    height = IsQuarterTurn(rotate) ? boxWidth : boxHeight;
    return;
  }

  unsigned int sourceWidth = metaData.GetVideoResolutionX();
  unsigned int sourceHeight = metaData.GetVideoResolutionY();
  unsigned int sarNum = metaData.GetVideoSampleAspectRatioNum();
  unsigned int sarDen = metaData.GetVideoSampleAspectRatioDen();
  if (boxWidth == 0 || boxHeight == 0 || sourceWidth == 0 || sourceHeight == 0) return;

  // The display aspect: anamorphic sources (DVD, HDV) store non-square pixels.
  float ratio = (sarNum == 0 || sarDen == 0)
                    ? metaData.GetVideoRatio()
                    : static_cast<float>(sourceWidth * sarNum) /
                          static_cast<float>(sourceHeight * sarDen);
  if (IsQuarterTurn(rotate)) ratio = 1.0f / ratio;

  if (static_cast<float>(boxHeight) * ratio > static_cast<float>(boxWidth)) {
    width = boxWidth;
    height = TruncateToEven(static_cast<float>(boxWidth) / ratio);
  } else {
    height = boxHeight;
    width = TruncateToEven(static_cast<float>(boxHeight) * ratio);
  }
}

bool ArgumentHelper::ZeroAudioTrack() {
  try {
    Json::Value video;
    Json::Value audio;
    if (!metaData.GetTrackInfo(video, audio)) return false;
    return audio.isArray() && audio.empty();
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace LibOrvoVTE
