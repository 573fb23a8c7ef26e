// The subtitle side of an HLS stream, as functions from values to texts: the
// subtitle service's URL, the playlist template written when the stream
// opens, the concrete playlist of one subtitle, and the list of subtitles a
// file offers with their language labels. Internal to vte/.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "vte/hls_playlists.h"

namespace LibOrvoVTE {
namespace hls {

// Stands in the template for the subtitle id, which is only known when a
// client asks for one subtitle's playlist.
inline constexpr char kSubtitleIdPlaceholder[] = "__ORVO_SUBTITLE_ID_PLACEHOLDER__";

// url?id=<id>&subtitle_id=<placeholder> with the caller's optional keys
// passed on verbatim ("subtitle_codepage" when non-empty, "api", "version"
// as an integer, "method", "_sid", "OrvoToken", in that order). "" when
// "url", "id" or "subtitle_id" is not a non-empty string.
std::string SubtitleURLTemplate(const Json::Value& subtitleParams);

// A VOD playlist whose entries ask the subtitle service for WebVTT of
// consecutive windows of `segmentSeconds`, aligned with the video segments.
std::string SubtitlePlaylistTemplate(const std::string& urlTemplate, unsigned int durationSeconds,
                                     int segmentSeconds);

// The template with the first placeholder of each line replaced by the
// percent-encoded `subtitleId`.
std::string SubtitlePlaylist(const std::string& templateText, const std::string& subtitleId);

// The file name of a subtitle's concrete playlist: the id's last path
// component + ".subtitle.m3u8", so a client's id never names a place outside
// the session directory. "" for an empty id, one ending in "/", or one with
// a control character (NUL included).
std::string SubtitlePlaylistName(const std::string& subtitleId);

// Three letters, as in "eng" or "CHI".
bool IsLanguageCode(const std::string& text);
// "shooter-" and one digit, as in "shooter-1": the numbered labels that
// downloaded subtitle files carry in their names.
bool IsShooter(const std::string& text);
// info["language"] when it is a language code or a shooter label, else
// `defaultName`.
std::string ValidateLanguage(const Json::Value& info, const std::string& defaultName);

// Subtitle files beside the media file: (full path, label from the name, or
// "External").
std::vector<SubtitleEntry> ExternalSubtitleEntries(const std::string& mediaPath);
// Text subtitle tracks of a container that can carry them: ("track" number,
// label, or "Internal"), in track order. `tracks` is the metadata
// document's subtitle track list.
std::vector<SubtitleEntry> InternalSubtitleEntries(const std::string& container,
                                                   const Json::Value& tracks);

}  // namespace hls
}  // namespace LibOrvoVTE
