#include "nas/launchers/option_table.h"

#include <cerrno>
#include <cstdlib>

namespace launchers {
namespace {

constexpr OutputKind kNone = OutputKind::kProgressive;

constexpr TableRow kOptions[] = {
    {"-prefer_smd", 0, Treatment::kDrop, "", kNone,
     "asks the NAS build to decode on its hardware engine; stock decodes in software"},
    {"-filled", 1, Treatment::kDrop, "", OutputKind::kFragments,
     "a mode of the hardware encoder's fragmenter; software fragments need nothing instead"},
    {"-webm_seek_time", 1, Treatment::kRename, "-output_ts_offset", OutputKind::kWebM,
     "the output's timestamps start at the requested second"},
    {"-hls_seek_time", 1, Treatment::kRename, "-initial_offset", OutputKind::kSegments,
     "the segment muxer shifts its output by the seek, so segments continue the playlist's "
     "timeline (-output_ts_offset or -copyts make it cut after every frame)"},
    {"-seek_time", 1, Treatment::kRename, "-output_ts_offset", OutputKind::kFragments,
     "fragment times follow the seek (dropped under -copyts, which keeps the source times)"},
    {"-fragment_length", 1, Treatment::kRenameSecondsToMicros, "-min_frag_duration",
     OutputKind::kFragments,
     "the smoothstreaming muxer closes a fragment at the first keyframe after this long; "
     "keyframes are forced at the same interval"},
};

constexpr TableRow kEncoders[] = {
    {"libfdk_aac", 0, Treatment::kEncoder, "aac", kNone,
     "the native AAC-LC encoder, same profile, rate and channels"},
    {"libshine", 0, Treatment::kEncoder, "libmp3lame", kNone,
     "the other MPEG-1 Layer III encoder, same bit rate"},
    {"h264_smd", 0, Treatment::kEncoder, "libx264", kNone,
     "the NAS's hardware H.264 encoder; software encoding at the profile's size and rate"},
};

template <size_t N>
const TableRow* Find(const TableRow (&rows)[N], const std::string& word) {
  for (const TableRow& row : rows) {
    if (word == row.word) return &row;
  }
  return nullptr;
}

// "-c" or "-codec", optionally followed by ":" and a stream specifier.
bool HasCodecPrefix(const std::string& option, const std::string& prefix) {
  return option.compare(0, prefix.size(), prefix) == 0 &&
         (option.size() == prefix.size() || option[prefix.size()] == ':');
}

}  // namespace

const TableRow* FindOption(const std::string& word) { return Find(kOptions, word); }

const TableRow* FindEncoder(const std::string& name) { return Find(kEncoders, name); }

bool IsCodecOption(const std::string& option) {
  return option == "-vcodec" || option == "-acodec" || HasCodecPrefix(option, "-c") ||
         HasCodecPrefix(option, "-codec");
}

bool CodecOptionCovers(const std::string& option, char mediaType) {
  if (option == "-vcodec") return mediaType == 'v';
  if (option == "-acodec") return mediaType == 'a';
  const size_t colon = option.find(':');
  return colon == std::string::npos || option[colon + 1] == mediaType;
}

bool ParseWholeSeconds(const std::string& text, long long* seconds) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  *seconds = strtoll(text.c_str(), nullptr, 10);
  return errno == 0;
}

}  // namespace launchers
