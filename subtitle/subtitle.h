// Subtitle files that sit beside a video, the parts of a path, and the lists
// that decide which embedded subtitle tracks can be offered as text. Nothing
// here knows about streams.
#pragma once

#include <json/json.h>

#include <string>

namespace librh {
namespace subtitle {

// The parts of `path` as an object of five strings, always all present:
//   "dirname"   the text before the last "/" (the whole path without one)
//   "basename"  the text after the last "/" (the whole path without one)
//   "extension" the text after the last "." of the base name
//   "language"  the text between the base name's last two dots
//   "filename"  the base name without its last extension
// A path without "/" gets no extension at all ("Movie.mkv" has the file name
// "Movie.mkv"); a dot in a directory name is no extension.
Json::Value PathInfo(const std::string& path);

// Appends to `out` (an array) the full path of every readable subtitle file
// in the video's directory whose name begins with the video's file name and a
// ".": .srt files first, then .ssa, .ass, .smi, .sami, extensions matched
// without regard to case, each group in glob's order. The search runs with
// effective uid and gid 0, because media directories need not be readable by
// the caller's own user.
// Returns 0, or -1 (out untouched) for an empty path or when root rights are
// refused. An unreadable directory gives 0 and nothing appended.
// Changes the process's working directory to the video's directory and leaves
// it there; not for threaded callers.
int GetExternalSubtitle(const std::string& videoPath, Json::Value& out);
// The same search with the caller's own rights.
int GetExternalSubtitleImp(const std::string& videoPath, Json::Value& out);

// Whether embedded text subtitles of the container (named as the media probe
// names it, e.g. "matroska,webm") can be offered.
bool IsAllowEmbaddedSubtitleContiner(const std::string& container);
// Whether a subtitle codec (probe name) carries text.
bool IsTextBaseSubtitleCodec(const std::string& codec);

}  // namespace subtitle
}  // namespace librh
