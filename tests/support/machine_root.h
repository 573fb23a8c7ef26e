// A temporary machine root for one test, removed afterwards.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

namespace orvotest {

// By default a generic x86 box.
struct PlatformFiles {
  std::string name = "x86";  // second "_" field of "unique" ("" writes no orvoinfo.conf)
  int cpuCores = 2;          // "cpu cores" in /proc/cpuinfo (0 writes no such line)
  double bogoMips = 4800.0;
  std::string hostPlatform;  // first line of /proc/orvo_platform ("" writes no file)
};

// The library reads the platform afresh after a root is made, played or
// removed, as a new process would; between those, once, as a process does.
class MachineRoot {
 public:
  // With /volume1, in ORVOVTE_MACHINE_ROOT until destroyed.
  explicit MachineRoot(const PlatformFiles& platform = {});
  ~MachineRoot();
  MachineRoot(const MachineRoot&) = delete;
  MachineRoot& operator=(const MachineRoot&) = delete;

  const std::string& Path() const { return root_; }
  std::string At(const std::string& machinePath) const { return root_ + machinePath; }
  void WriteFile(const std::string& machinePath, const std::string& content) const;
  void Play(const PlatformFiles& platform) const;
  std::string AddVolume(int number) const;  // /volumeN

 private:
  std::string root_;
  std::optional<std::string> previousRoot_;
};

class MachineRootTest : public ::testing::Test {
 protected:
  void SetUp() override { root_ = std::make_unique<MachineRoot>(); }
  void TearDown() override { root_.reset(); }
  MachineRoot& Root() { return *root_; }

 private:
  std::unique_ptr<MachineRoot> root_;
};

void RemoveTree(const std::string& path);  // missing is fine

}  // namespace orvotest
