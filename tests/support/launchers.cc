#include "tests/support/launchers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "tests/support/child.h"

namespace orvotest {

void InstallLaunchers(const MachineRoot& root) {
  for (const auto& [built, machinePath] :
       {std::pair(ORVOVTE_FFMPEG_LAUNCHER, librh::machine::kPackageFFmpeg),
        std::pair(ORVOVTE_GST_LAUNCHER, librh::machine::kPackageGstLaunch)}) {
    const std::filesystem::path link = root.At(machinePath);
    std::error_code failure;
    std::filesystem::create_directories(link.parent_path(), failure);
    if (!failure) std::filesystem::create_symlink(built, link, failure);
    if (failure) ADD_FAILURE() << "cannot link " << link << ": " << failure.message();
  }
}

std::vector<std::string> SplitWords(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

std::string JoinWords(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
  return line;
}

}  // namespace orvotest
