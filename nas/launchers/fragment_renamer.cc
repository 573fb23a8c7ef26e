#include "nas/launchers/fragment_renamer.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

namespace launchers {
namespace fs = std::filesystem;
namespace {

constexpr char kQualityPrefix[] = "QualityLevels(";
constexpr char kFragmentPrefix[] = "Fragments(";

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, strlen(prefix), prefix) == 0;
}

// "Fragments(video=1199786667)" gives "Fragments(video=" and the time.
bool SplitFragmentName(const std::string& name, std::string* stem, long long* time) {
  const size_t equals = name.find('=');
  if (!StartsWith(name, kFragmentPrefix) || equals == std::string::npos || name.back() != ')') {
    return false;
  }
  const std::string digits = name.substr(equals + 1, name.size() - equals - 2);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) return false;
  *stem = name.substr(0, equals + 1);
  *time = strtoll(digits.c_str(), nullptr, 10);
  return true;
}

// The Smooth Streaming track fragment extended header (tfxd): a uuid box
// whose payload carries the fragment's absolute time, the time clients take
// it for.
constexpr unsigned char kTfxdUuid[16] = {0x6d, 0x1d, 0x9b, 0x05, 0x42, 0xd5, 0x44, 0xe6,
                                         0x80, 0xe2, 0x14, 0x1d, 0xaf, 0xf7, 0x57, 0xb2};

unsigned long long BigEndian(const unsigned char* bytes, int size) {
  unsigned long long value = 0;
  for (int i = 0; i < size; ++i) value = value << 8 | bytes[i];
  return value;
}

// The file offset of the tfxd's time among the boxes in [begin, end),
// descending into moof and traf; its width (8 for version 1, else 4) in
// `width`. -1 when there is none.
off_t FindTfxdTime(int fd, off_t begin, off_t end, int* width) {
  while (begin + 8 <= end) {
    unsigned char head[8 + 16 + 1];
    const ssize_t got = pread(fd, head, sizeof(head), begin);
    if (got < 8) return -1;
    const off_t size = static_cast<off_t>(BigEndian(head, 4));
    if (size < 8 || begin + size > end) return -1;
    if (memcmp(head + 4, "moof", 4) == 0 || memcmp(head + 4, "traf", 4) == 0) {
      const off_t found = FindTfxdTime(fd, begin + 8, begin + size, width);
      if (found >= 0) return found;
    } else if (memcmp(head + 4, "uuid", 4) == 0 && got == sizeof(head) &&
               memcmp(head + 8, kTfxdUuid, sizeof(kTfxdUuid)) == 0) {
      *width = head[24] == 1 ? 8 : 4;
      // After the uuid, the version and the flags.
      return begin + 8 + 16 + 4;
    }
    begin += size;
  }
  return -1;
}

// Writes `time` into the fragment's tfxd. The muxer's own time is its first
// timestamp, off the announced one by the AAC priming or up to an audio
// frame; a client that reads the fragment's time must find the one the
// manifest gave it.
bool StampTime(const fs::path& fragment, long long time) {
  const int fd = open(fragment.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  const off_t end = lseek(fd, 0, SEEK_END);
  int width = 0;
  const off_t at = end > 0 ? FindTfxdTime(fd, 0, end, &width) : -1;
  bool stamped = at >= 0 && (width == 8 || time <= 0xffffffffLL);
  if (stamped) {
    unsigned char bytes[8];
    for (int i = 0; i < width; ++i) bytes[i] = static_cast<unsigned char>(time >> (8 * (width - 1 - i)));
    stamped = pwrite(fd, bytes, width, at) == width;
  }
  close(fd);
  return stamped;
}

struct Finished {
  long long time;
  fs::path path;
  bool operator<(const Finished& other) const { return time < other.time; }
};

}  // namespace

bool FragmentRenamer::Prepare(std::string* error) const {
  for (const std::string& dir : {layout_.outputDir, layout_.stagingDir}) {
    std::error_code failure;
    fs::create_directories(dir, failure);
    if (failure) {
      *error = "cannot create " + dir + ": " + failure.message();
      return false;
    }
  }
  return true;
}

int FragmentRenamer::MoveFinished() {
  int moved = 0;
  std::error_code failure;
  for (const fs::directory_entry& quality : fs::directory_iterator(layout_.stagingDir, failure)) {
    const std::string qualityName = quality.path().filename().string();
    if (!StartsWith(qualityName, kQualityPrefix)) continue;
    std::map<std::string, std::vector<Finished>> byStream;
    std::error_code listing;
    for (const fs::directory_entry& file : fs::directory_iterator(quality.path(), listing)) {
      std::string stem;
      long long time = 0;
      if (SplitFragmentName(file.path().filename().string(), &stem, &time)) {
        byStream[stem].push_back({time, file.path()});
      }
    }
    const fs::path target = fs::path(layout_.outputDir) / qualityName;
    std::error_code creating;
    // Only the last level: a removed output directory is not made again.
    fs::create_directory(target, creating);
    for (auto& [stem, fragments] : byStream) {
      std::sort(fragments.begin(), fragments.end());
      long long& count = moved_[qualityName + "/" + stem];
      for (const Finished& fragment : fragments) {
        const long long time = layout_.firstTime + count * layout_.length;
        const fs::path name = target / (stem + std::to_string(time) + ")");
        if (!StampTime(fragment.path, time)) {
          fprintf(stderr, "ffmpeg-launcher: no time of its own in %s\n", fragment.path.c_str());
        }
        if (rename(fragment.path.c_str(), name.c_str()) != 0) {
          fprintf(stderr, "ffmpeg-launcher: cannot move %s to %s: %s\n", fragment.path.c_str(),
                  name.c_str(), strerror(errno));
          break;  // keeps the order: the next call retries from here
        }
        ++count;
        ++moved;
      }
    }
  }
  return moved;
}

void FragmentRenamer::RemoveStaging() const {
  std::error_code ignored;
  fs::remove_all(layout_.stagingDir, ignored);
}

}  // namespace launchers
