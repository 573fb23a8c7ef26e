#include "tests/support/launchers.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
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

bool ReadPipe(int fd, std::string* data, int timeoutMs, size_t enough) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  char buffer[65536];
  while (data->size() < enough) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    struct pollfd ready = {fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) == 0) return false;
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    data->append(buffer, static_cast<size_t>(got));
  }
  return true;
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
