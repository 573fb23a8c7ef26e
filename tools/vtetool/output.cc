#include "tools/vtetool/output.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <vector>

namespace vtetool {

void PrintJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  std::cout << Json::writeString(builder, value) << std::endl;
}

void PrintSessionDirectory(const std::string& dir) {
  namespace fs = std::filesystem;
  std::error_code error;
  std::cout << "session directory: " << dir;
  if (fs::is_symlink(dir, error)) std::cout << " -> " << fs::read_symlink(dir, error).string();
  std::cout << "\n";
  std::vector<fs::directory_entry> entries;
  for (const auto& entry : fs::directory_iterator(dir, error)) entries.push_back(entry);
  std::sort(entries.begin(), entries.end());
  for (const auto& entry : entries) {
    const auto size = entry.is_regular_file(error) ? entry.file_size(error) : 0;
    std::cout << "  " << entry.path().filename().string() << "  " << size << " bytes\n";
  }
}

}  // namespace vtetool
