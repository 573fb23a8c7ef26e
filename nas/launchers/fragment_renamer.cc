#include "nas/launchers/fragment_renamer.h"

#include <stdio.h>

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
