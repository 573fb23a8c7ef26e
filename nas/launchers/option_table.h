// The one table of what the ffmpeg launcher does with the words of the
// library's transcoder command lines that the stock ffmpeg build does not
// understand: the NAS build's own options and its encoder names.
//
// A word without a row reaches the stock ffmpeg unchanged.
#pragma once

#include <string>

namespace launchers {

// The output form an option announces; it decides the muxer and what has to
// be added for the stock build to cut segments or fragments where clients
// expect them.
enum class OutputKind {
  kProgressive,  // HTTP: whatever "-f" the profile names, into the pipe
  kWebM,         // "-webm_seek_time"
  kSegments,     // HLS: "-hls_seek_time" (transcoder and segmenter alike)
  kFragments,    // Smooth Streaming: "-fragment_length" / "-seek_time"
};

enum class Treatment {
  kDrop,                    // the option and its value are left out
  kRename,                  // the stock option takes the same value
  kRenameSecondsToMicros,   // the stock option counts microseconds
  kEncoder,                 // an encoder name, replaced when the stock build lacks it
};

struct TableRow {
  const char* word;         // as the library writes it
  int valueCount;           // words after an option that belong to it (encoders: 0)
  Treatment treatment;
  const char* stockWord;    // the stock option or encoder ("" when dropped)
  OutputKind announces;     // kProgressive for rows that announce nothing
  const char* reason;
};

// The row for an option word ("-prefer_smd"), or null.
const TableRow* FindOption(const std::string& word);

// The row for an encoder name ("libfdk_aac"), or null.
const TableRow* FindEncoder(const std::string& name);

// Whether `option` names a codec ("-vcodec", "-c:a", "-codec", ...), so that
// the word after it is an encoder name.
bool IsCodecOption(const std::string& option);

// Whether the codec option applies to video ("v") or audio ("a") streams; a
// stream-less "-c"/"-codec" applies to both.
bool CodecOptionCovers(const std::string& option, char mediaType);

// Whole non-negative seconds as the library prints them ("%ld"; leading
// zeros allowed, as in a segment start number). False for anything else.
bool ParseWholeSeconds(const std::string& text, long long* seconds);

}  // namespace launchers
