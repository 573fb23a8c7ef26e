// A temporary machine root for one test: the platform's files, the
// application's configuration and data volumes, removed afterwards.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

namespace orvotest {

// How a platform presents itself to the library; by default a generic x86 box.
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
  // Creates the tree with /volume1 and points ORVOVTE_MACHINE_ROOT at it.
  explicit MachineRoot(const PlatformFiles& platform = {});
  // Restores the previous ORVOVTE_MACHINE_ROOT and removes the tree.
  ~MachineRoot();
  MachineRoot(const MachineRoot&) = delete;
  MachineRoot& operator=(const MachineRoot&) = delete;

  const std::string& Path() const { return root_; }
  // The real path of a machine path under this root.
  std::string At(const std::string& machinePath) const { return root_ + machinePath; }

  // Writes `content` to the machine path, creating its directories.
  void WriteFile(const std::string& machinePath, const std::string& content) const;
  // Rewrites the platform files for another platform.
  void Play(const PlatformFiles& platform) const;
  // Creates the data volume /volumeN.
  std::string AddVolume(int number) const;

 private:
  std::string root_;
  std::optional<std::string> previousRoot_;
};

// A fixture whose every case runs in a fresh x86 machine root with /volume1.
class MachineRootTest : public ::testing::Test {
 protected:
  void SetUp() override { root_ = std::make_unique<MachineRoot>(); }
  void TearDown() override { root_.reset(); }
  MachineRoot& Root() { return *root_; }

 private:
  std::unique_ptr<MachineRoot> root_;
};

// Removes a directory tree; missing is fine.
void RemoveTree(const std::string& path);

}  // namespace orvotest
