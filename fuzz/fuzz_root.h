// The private machine root of a fuzz target, so that no run touches the real
// registry or temporary directory. Included once by each target.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/log.h"
#include "platform/machine_root.h"

namespace orvofuzz {

inline const std::string& MachineRoot() {
  static const std::string root = [] {
    char pattern[] = "/tmp/orvofuzz.XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    setenv(librh::machine::kRootVariable, pattern, 1);
    std::filesystem::create_directories(std::string(pattern) + librh::machine::kTempRoot);
    // Millions of runs would fill the log file with what hostile input logs.
    librh::log::SetSinkForTesting([](int, const std::string&) {});
    return std::string(pattern);
  }();
  return root;
}

// Aborts when it cannot write: a target that fed nothing would find nothing.
inline void WriteBytes(const std::string& path, const std::string& bytes) {
  FILE* file = fopen(path.c_str(), "we");
  if (!file || fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() || fclose(file)) abort();
}

}  // namespace orvofuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvofuzz::MachineRoot();
  return 0;
}
