// The private machine root of a fuzz target: the library resolves every
// fixed path under it, so no run touches the real registry or temp directory.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/log.h"
#include "platform/machine_root.h"

namespace orvofuzz {

// Made once per process, with the directory of the registry and sessions.
inline const std::string& MachineRoot() {
  static const std::string root = [] {
    char pattern[] = "/tmp/orvofuzz.XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    setenv(librh::machine::kRootVariable, pattern, 1);
    std::filesystem::create_directories(std::string(pattern) + librh::machine::kTempRoot);
    // Millions of runs would fill the log file with the lines hostile input
    // makes the library write; nobody reads them.
    librh::log::SetSinkForTesting([](int, const std::string&) {});
    return std::string(pattern);
  }();
  return root;
}

// Replaces `path` with the bytes; aborts when it cannot, since a target that
// fed nothing to the code would find nothing.
inline void WriteBytes(const std::string& path, const uint8_t* data, size_t size) {
  FILE* file = fopen(path.c_str(), "we");
  if (file == nullptr || fwrite(data, 1, size, file) != size || fclose(file) != 0) abort();
}

}  // namespace orvofuzz
