#include "tests/support/machine_root.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/machine_root.h"
#include "platform/test_seams.h"

namespace orvotest {
namespace fs = std::filesystem;
namespace machine = librh::machine;

MachineRoot::MachineRoot(const PlatformFiles& platform) {
  root_ = (fs::temp_directory_path() / "orvovte-root-XXXXXX").string();
  if (mkdtemp(root_.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed for " << root_;
  chmod(root_.c_str(), 0755);
  if (const char* previous = getenv(machine::kRootVariable)) previousRoot_ = previous;
  setenv(machine::kRootVariable, root_.c_str(), 1);

  fs::create_directories(At(machine::kTempRoot));
  fs::create_directories(At("/run"));
  WriteFile(machine::kCodecsConf, "support_codec_dts=\"no\"\n");
  Play(platform);
  AddVolume(1);
}

MachineRoot::~MachineRoot() {
  previousRoot_ ? setenv(machine::kRootVariable, previousRoot_->c_str(), 1)
                : unsetenv(machine::kRootVariable);
  RemoveTree(root_);
  librh::seams::ForgetPlatform();
}

void MachineRoot::WriteFile(const std::string& machinePath, const std::string& content) const {
  fs::path path(At(machinePath));
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::trunc | std::ios::binary);
  out << content;
  if (!out) ADD_FAILURE() << "cannot write " << path;
}

void MachineRoot::Play(const PlatformFiles& platform) const {
  RemoveTree(At(machine::kOrvoInfoConf));
  RemoveTree(At(machine::kOrvoPlatform));
  if (!platform.name.empty()) {
    WriteFile(machine::kOrvoInfoConf, "unique=\"reelbox_" + platform.name + "_1019\"\n");
  }
  if (!platform.hostPlatform.empty()) {
    WriteFile(machine::kOrvoPlatform, platform.hostPlatform + "\n");
  }
  std::ostringstream cpus;
  for (int i = 0; i < std::max(platform.cpuCores, 1); ++i) {
    cpus << "processor\t: " << i << "\nvendor_id\t: GenuineIntel\nmodel name\t: Test CPU\n";
    if (platform.cpuCores > 0) cpus << "cpu cores\t: " << platform.cpuCores << "\n";
    cpus << "bogomips\t: " << platform.bogoMips << "\n"
         << "BogoMIPS\t: " << platform.bogoMips << "\n\n";
  }
  WriteFile(machine::kCpuInfo, cpus.str());
  librh::seams::ForgetPlatform();
}

std::string MachineRoot::AddVolume(int number) const {
  const std::string volume = At("/volume" + std::to_string(number));
  fs::create_directories(volume);
  return volume;
}

void RemoveTree(const std::string& path) {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

}  // namespace orvotest
