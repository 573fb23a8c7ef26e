// Typed read access to the metadata document. Everything downstream asks
// these accessors instead of the document, so they must answer a default for
// any document they are handed: a session file that another process wrote,
// a failed probe, a value of an unexpected type. jsoncpp throws on most
// mismatched reads (asUInt of a negative int, operator[] on a string), so
// every read is type-checked first and the rest is caught.
#include <cstdlib>

#include "metadata/video_metadata.h"

namespace LibOrvoVTE {
namespace {

// The value of `key` in an object, or nullptr when `object` is not an object
// or lacks the key (null values count as absent: they are what jsoncpp
// leaves behind for a key that was only looked up).
const Json::Value* Member(const Json::Value& object, const std::string& key) {
  if (!object.isObject()) return nullptr;
  const Json::Value* value = object.find(key.data(), key.data() + key.size());
  if (value == nullptr || value->isNull()) return nullptr;
  return value;
}

// A numeric value read as unsigned. Anything that is not a number in
// [0, UINT_MAX] gives 0: in particular a negative rotation, which callers
// only ever compare with 90, 180 and 270, must not wrap to a large value
// that happens to be one of those modulo 360.
unsigned int AsUnsigned(const Json::Value* value) {
  if (value == nullptr) return 0;
  switch (value->type()) {
    case Json::intValue:
    case Json::uintValue:
      return value->isUInt() ? value->asUInt() : 0;
    case Json::realValue: {
      double real = value->asDouble();
      if (!(real >= 0.0 && real <= static_cast<double>(Json::Value::maxUInt))) return 0;
      return static_cast<unsigned int>(real);
    }
    default:
      return 0;
  }
}

std::string AsString(const Json::Value* value) {
  return value != nullptr && value->isString() ? value->asString() : std::string();
}

// A string member of a track object; "" for anything else.
std::string TrackString(const Json::Value& track, const char* key) {
  try {
    return AsString(Member(track, key));
  } catch (...) {
    return std::string();
  }
}

// The "video" or "subtitle" (...) array of "track_info", or nullptr. A list
// of another type is treated as missing, because every caller indexes it.
const Json::Value* TrackList(bool loaded, const Json::Value& document, const char* kind) {
  if (!loaded) return nullptr;
  const Json::Value* trackInfo = Member(document, "track_info");
  if (trackInfo == nullptr || trackInfo->empty()) return nullptr;
  const Json::Value* list = Member(*trackInfo, kind);
  return list != nullptr && list->isArray() ? list : nullptr;
}

}  // namespace

unsigned int VideoMetaData::GetMemberUI(const std::string& key) const {
  try {
    return loaded ? AsUnsigned(Member(document, key)) : 0;
  } catch (...) {
    return 0;
  }
}

std::string VideoMetaData::GetMemberString(const std::string& key) const {
  try {
    return loaded ? AsString(Member(document, key)) : std::string();
  } catch (...) {
    return std::string();
  }
}

unsigned int VideoMetaData::GetFirstVideoMemberUI(const std::string& key) const {
  try {
    return AsUnsigned(Member(GetVideo(0), key));
  } catch (...) {
    return 0;
  }
}

bool VideoMetaData::GetTrackInfo(Json::Value& video, Json::Value& audio) const {
  try {
    const Json::Value* videoList = TrackList(loaded, document, "video");
    if (videoList == nullptr) return false;
    video = *videoList;
    // The video list stays handed out even without audio lists: a file that
    // is only pictures still has a first video track to describe.
    const Json::Value* audioList = TrackList(loaded, document, "audio");
    if (audioList == nullptr) return false;
    audio = *audioList;
    return true;
  } catch (...) {
    return false;
  }
}

bool VideoMetaData::GetSubtitleTrackInfo(Json::Value& subtitle) const {
  try {
    const Json::Value* list = TrackList(loaded, document, "subtitle");
    if (list == nullptr) return false;
    subtitle = *list;
    return true;
  } catch (...) {
    return false;
  }
}

Json::Value VideoMetaData::GetVideo(unsigned int index) const {
  try {
    const Json::Value* list = TrackList(loaded, document, "video");
    if (list == nullptr || index >= list->size()) return Json::Value();
    return (*list)[index];
  } catch (...) {
    return Json::Value();
  }
}

std::string VideoMetaData::GetContainer() const { return GetMemberString("container_type"); }

std::string VideoMetaData::GetFilePath() const { return GetMemberString("path"); }

unsigned int VideoMetaData::GetStartTime() const { return GetMemberUI("start_time"); }

unsigned int VideoMetaData::GetDuration() const { return GetMemberUI("duration"); }

unsigned int VideoMetaData::GetBitrate() const { return GetMemberUI("bitrate"); }

// The size is kept as text because files beyond 4 GiB do not fit the
// unsigned ints the document's numbers are read as.
unsigned long long VideoMetaData::GetFileSize() const {
  std::string text = GetMemberString("filesize");
  if (text.empty()) return 0;
  return std::strtoull(text.c_str(), nullptr, 10);
}

float VideoMetaData::GetVideoFramerate() const {
  try {
    const Json::Value video = GetVideo(0);
    const Json::Value* framerate = Member(video, "framerate");
    return framerate != nullptr && framerate->isNumeric() ? framerate->asFloat() : 0.0f;
  } catch (...) {
    return 0.0f;
  }
}

unsigned int VideoMetaData::GetVideoSampleAspectRatioDen() const {
  return GetFirstVideoMemberUI("sample_aspect_ratio_den");
}

unsigned int VideoMetaData::GetVideoSampleAspectRatioNum() const {
  return GetFirstVideoMemberUI("sample_aspect_ratio_num");
}

unsigned int VideoMetaData::GetVideoLevel() const { return GetFirstVideoMemberUI("level"); }

unsigned int VideoMetaData::GetVideoResolutionX() const {
  return GetFirstVideoMemberUI("resolutionx");
}

unsigned int VideoMetaData::GetVideoResolutionY() const {
  return GetFirstVideoMemberUI("resolutiony");
}

unsigned int VideoMetaData::GetVideoRotate() const { return GetFirstVideoMemberUI("rotate"); }

std::string VideoMetaData::GetVideoProfile() const { return TrackString(GetVideo(0), "profile"); }

std::string VideoMetaData::GetVideoCodecTag() const {
  return TrackString(GetVideo(0), "codec_tag");
}

std::string VideoMetaData::GetVideoCodecName() const { return TrackString(GetVideo(0), "codec"); }

float VideoMetaData::GetVideoRatio() const {
  // 1.77 rather than 16/9: profiles and clients were tuned against exactly
  // this constant for files whose size is unknown.
  constexpr float kUnknownRatio = 1.77f;
  if (!loaded) return kUnknownRatio;
  unsigned int width = GetVideoResolutionX();
  unsigned int height = GetVideoResolutionY();
  if (width == 0 || height == 0) return kUnknownRatio;
  return static_cast<float>(width) / static_cast<float>(height);
}

}  // namespace LibOrvoVTE
