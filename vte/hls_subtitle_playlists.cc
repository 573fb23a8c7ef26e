#include "vte/hls_subtitle_playlists.h"

#include <ctype.h>

#include <cstdio>

#include "subtitle/subtitle.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace hls {
namespace {

// The member as a string when it is one, else nullptr.
const Json::Value* StringMember(const Json::Value& object, const char* key) {
  if (!object.isObject() || !object.isMember(key) || !object[key].isString()) return nullptr;
  return &object[key];
}

bool IsNonEmptyString(const Json::Value& object, const char* key) {
  const Json::Value* value = StringMember(object, key);
  return value != nullptr && !value->asString().empty();
}

std::string WindowEntry(int duration, const std::string& url, int start, int end) {
  char head[32];
  char window[96];
  snprintf(head, sizeof(head), "#EXTINF:%d,\n", duration);
  snprintf(window, sizeof(window),
           "&preview=false&output_webvtt=true&webvtt_start_time=%d&webvtt_end_time=%d\n", start,
           end);
  return head + url + window;
}

}  // namespace

std::string SubtitleURLTemplate(const Json::Value& subtitleParams) {
  for (const char* required : {"url", "id", "subtitle_id"}) {
    if (!IsNonEmptyString(subtitleParams, required)) return "";
  }
  std::string url = subtitleParams["url"].asString() + "?id=" + subtitleParams["id"].asString() +
                    "&subtitle_id=" + kSubtitleIdPlaceholder;
  if (IsNonEmptyString(subtitleParams, "subtitle_codepage")) {
    url += "&subtitle_codepage=" + subtitleParams["subtitle_codepage"].asString();
  }
  if (const Json::Value* api = StringMember(subtitleParams, "api")) url += "&api=" + api->asString();
  const std::string version = LibReelhall::IntegerText(subtitleParams["version"]);
  if (!version.empty()) url += "&version=" + version;
  for (const char* key : {"method", "_sid", "OrvoToken"}) {
    if (const Json::Value* value = StringMember(subtitleParams, key)) {
      url += std::string("&") + key + "=" + value->asString();
    }
  }
  // The template becomes playlist lines: a control character in a client's
  // value must not split one.
  return HasControlCharacter(url) ? "" : url;
}

std::string SubtitlePlaylistTemplate(const std::string& urlTemplate, unsigned int durationSeconds,
                                     int segmentSeconds) {
  char head[128];
  snprintf(head, sizeof(head),
           "#EXTM3U\n#EXT-X-TARGETDURATION:%d\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-ALLOW-CACHE:YES\n",
           segmentSeconds);
  std::string text = head;
  const std::vector<int> durations = SegmentDurations(durationSeconds, segmentSeconds);
  for (size_t i = 0; i < durations.size(); ++i) {
    // The window ends on the video's segment grid even where the last entry
    // is shorter, so a window never straddles two video segments.
    const int start = static_cast<int>(i) * segmentSeconds;
    text += WindowEntry(durations[i], urlTemplate, start, start + segmentSeconds);
  }
  return text + "#EXT-X-ENDLIST\n";
}

std::string SubtitlePlaylist(const std::string& templateText, const std::string& subtitleId) {
  const std::string encoded = PercentEncode(subtitleId);
  const std::string placeholder = kSubtitleIdPlaceholder;
  std::string text;
  size_t start = 0;
  while (start < templateText.size()) {
    size_t end = templateText.find('\n', start);
    if (end == std::string::npos) end = templateText.size();
    std::string line = templateText.substr(start, end - start);
    const size_t at = line.find(placeholder);
    if (at != std::string::npos) line.replace(at, placeholder.size(), encoded);
    text += line + "\n";
    start = end + 1;
  }
  return text;
}

std::string SubtitlePlaylistName(const std::string& subtitleId) {
  // A NUL would end the file name before ".subtitle.m3u8", and the playlist
  // would overwrite whatever session file the id names.
  if (subtitleId.empty() || subtitleId.back() == '/' || HasControlCharacter(subtitleId)) return "";
  const size_t slash = subtitleId.rfind('/');
  return (slash == std::string::npos ? subtitleId : subtitleId.substr(slash + 1)) +
         ".subtitle.m3u8";
}

bool IsLanguageCode(const std::string& text) {
  if (text.size() != 3) return false;
  for (const char c : text) {
    if (!isalpha(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

bool IsShooter(const std::string& text) {
  static const std::string kPrefix = "shooter-";
  return text.size() == kPrefix.size() + 1 && text.compare(0, kPrefix.size(), kPrefix) == 0 &&
         isdigit(static_cast<unsigned char>(text.back()));
}

std::string ValidateLanguage(const Json::Value& info, const std::string& defaultName) {
  const Json::Value* language = StringMember(info, "language");
  if (language == nullptr) return defaultName;
  const std::string label = language->asString();
  return IsLanguageCode(label) || IsShooter(label) ? label : defaultName;
}

std::vector<SubtitleEntry> ExternalSubtitleEntries(const std::string& mediaPath) {
  Json::Value paths(Json::arrayValue);
  librh::subtitle::GetExternalSubtitle(mediaPath, paths);
  std::vector<SubtitleEntry> entries;
  for (const Json::Value& path : paths) {
    entries.emplace_back(path.asString(),
                         ValidateLanguage(librh::subtitle::PathInfo(path.asString()), "External"));
  }
  return entries;
}

std::vector<SubtitleEntry> InternalSubtitleEntries(const std::string& container,
                                                   const Json::Value& tracks) {
  std::vector<SubtitleEntry> entries;
  if (!librh::subtitle::IsAllowEmbaddedSubtitleContiner(container) || !tracks.isArray()) {
    return entries;
  }
  for (const Json::Value& track : tracks) {
    const Json::Value* codec = StringMember(track, "codec");
    if (codec == nullptr || !librh::subtitle::IsTextBaseSubtitleCodec(codec->asString())) continue;
    entries.emplace_back(track["track"].asString(), ValidateLanguage(track, "Internal"));
  }
  return entries;
}

}  // namespace hls
}  // namespace LibOrvoVTE
