// Subtitle renditions of an HLS stream. The opening request writes one
// playlist template with a placeholder for the subtitle id; each subtitle's
// playlist is made from it when a client asks for that subtitle, so one
// master playlist can offer any number of them without writing all up front.

#include <exception>

#include "platform/log.h"
#include "platform/whole_file.h"
#include "vte/hls_subtitle_playlists.h"
#include "vte/http_live_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

// These lines belong to the HLS stream's log source, whichever file holds them.
constexpr char kLogTag[] = "http_live_stream";

constexpr char kTemplateFile[] = "subtitle.m3u8.tpl";

}  // namespace

std::string HttpLiveStream::GetSubtitleURL(const Json::Value& subtitleParams) const {
  try {
    return hls::SubtitleURLTemplate(subtitleParams);
  } catch (const std::exception&) {
    return "";
  }
}

bool HttpLiveStream::GenSubtitlePlaylistTpl(const Json::Value& subtitleParams) const {
  try {
    const std::string url = GetSubtitleURL(subtitleParams);
    if (url.empty() || streamId_.empty()) return false;
    const unsigned int duration = metadata_.GetDuration();
    if (duration < 1) return false;
    return hls::WriteTextFile(GetVTEFileFullPath(kTemplateFile),
                              hls::SubtitlePlaylistTemplate(url, duration, SegmentLength()));
  } catch (const std::exception&) {
    return false;
  }
}

std::string HttpLiveStream::GenSubtitlePlaylist(const std::string& subtitleId) const {
  try {
    const std::string name = hls::SubtitlePlaylistName(subtitleId);
    if (name.empty()) return "";
    std::string templateText;
    if (!librh::ReadWholeFile(GetVTEFileFullPath(kTemplateFile), &templateText)) {
      ORVO_LOG(LOG_ERR, "failed to open file %s", kTemplateFile);
      return "";
    }
    const std::string output = GetVTEFileFullPath(name);
    if (!hls::WriteTextFile(output, hls::SubtitlePlaylist(templateText, subtitleId))) {
      ORVO_LOG(LOG_ERR, "failed to open output file %s", output.c_str());
      return "";
    }
    return output;
  } catch (const std::exception&) {
    return "";
  }
}

std::vector<std::pair<std::string, std::string>> HttpLiveStream::GetSubtitleMap(
    const std::string& subtitleId) const {
  if (subtitleId.empty()) return {};
  if (subtitleId != "all") return {{subtitleId, "Undefined"}};
  std::vector<std::pair<std::string, std::string>> entries = GetExternalSubtitle();
  const std::vector<std::pair<std::string, std::string>> internal = GetInternalSubtitle();
  entries.insert(entries.end(), internal.begin(), internal.end());
  return entries;
}

std::vector<std::pair<std::string, std::string>> HttpLiveStream::GetExternalSubtitle() const {
  try {
    return hls::ExternalSubtitleEntries(metadata_.GetFilePath());
  } catch (const std::exception&) {
    return {};
  }
}

std::vector<std::pair<std::string, std::string>> HttpLiveStream::GetInternalSubtitle() const {
  try {
    Json::Value tracks(Json::arrayValue);
    if (!metadata_.GetSubtitleTrackInfo(tracks)) tracks = Json::Value(Json::arrayValue);
    return hls::InternalSubtitleEntries(metadata_.GetContainer(), tracks);
  } catch (const std::exception&) {
    return {};
  }
}

std::string HttpLiveStream::ValidateLanguage(const Json::Value& info,
                                             const std::string& defaultName) const {
  try {
    return hls::ValidateLanguage(info, defaultName);
  } catch (const std::exception&) {
    return defaultName;
  }
}

bool HttpLiveStream::IsLanguageCode(const std::string& text) const {
  return hls::IsLanguageCode(text);
}

bool HttpLiveStream::IsShooter(const std::string& text) const { return hls::IsShooter(text); }

}  // namespace LibOrvoVTE
