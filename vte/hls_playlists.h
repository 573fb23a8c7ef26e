// The texts of the HLS playlists, rendered as whole strings so that each
// file is written in one call. Internal to vte/.
#pragma once

#include <time.h>

#include <string>
#include <utility>
#include <vector>

namespace LibOrvoVTE {
namespace hls {

// Segment lengths in seconds: a remux copies the source's video and can
// only cut at its keyframes, so it gets longer segments.
inline constexpr int kSegmentSeconds = 5;
inline constexpr int kRemuxSegmentSeconds = 8;

// The durations of the segments that cover `durationSeconds`: all
// `segmentSeconds` long but a shorter last one. Empty for no duration.
std::vector<int> SegmentDurations(unsigned int durationSeconds, int segmentSeconds);

// Percent-encoding of a query value: everything but the unreserved set of
// RFC 3986 (letters, digits, "-", "_", ".", "~") as %XX, upper-case hex.
std::string PercentEncode(const std::string& text);

// A VOD media playlist of every segment, each requested as
// `url`&fragment_id=NNNNN.
std::string VideoPlaylist(const std::string& url, unsigned int durationSeconds,
                          int segmentSeconds);

// One subtitle rendition: its id (a path or a track number) and its name.
using SubtitleEntry = std::pair<std::string, std::string>;

// The master playlist: one subtitle rendition per entry (names made unique,
// the first the default) and the one video variant.
std::string MasterPlaylist(const std::string& url, const std::vector<SubtitleEntry>& entries);

// "<seconds>.<nanoseconds, nine digits>" of a clock reading.
std::string SequenceToken(const struct timespec& clock);

// Whether `token` is not older than `newest`, compared as byte strings (of
// two strings equal over the shorter one's length, the shorter is the
// smaller). Textual on purpose: every request and monitor compares tokens
// this way, and one that compared numbers would disagree with the others
// when the seconds gain a digit.
bool IsNotOlderToken(const std::string& token, const std::string& newest);

// Replaces `path` with `text`. False (logged by nobody) when the file
// cannot be opened or written.
bool WriteTextFile(const std::string& path, const std::string& text);

}  // namespace hls
}  // namespace LibOrvoVTE
