#include "decisions/platform_utils.h"

#include <stdlib.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "platform/test_seams.h"
#include "platform/whole_file.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

namespace {

constexpr char kLogTag[] = "platform_utils";

namespace machine = librh::machine;

// Guards the lazily filled host platform name: web requests are single
// threaded, but the library may be linked into a threaded caller and a torn
// std::string is not a benign race.
std::mutex gHostPlatformMutex;

// Set only by tests (platform/test_seams.h), which play many platforms in one
// process.
std::atomic<bool> gPlatformForgotten{false};

// Splits at every `separator`; empty pieces are kept, so "a__b" gives three
// pieces and "_" two.
std::vector<std::string> SplitKeepingEmpty(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  std::string::size_type start = 0;
  for (;;) {
    std::string::size_type next = text.find(separator, start);
    if (next == std::string::npos) {
      pieces.push_back(text.substr(start));
      return pieces;
    }
    pieces.push_back(text.substr(start, next - start));
    start = next + 1;
  }
}

bool Contains(const std::string& text, const char* fragment) {
  return text.find(fragment) != std::string::npos;
}

}  // namespace

namespace librh {
namespace util {
namespace platform_rules {

std::string CpuInfoValue(const std::string& cpuinfo, const std::string& key) {
  // Lines are taken as a 128-byte fgets buffer takes them: a longer line
  // arrives in 127-character pieces, each examined on its own.
  constexpr std::string::size_type kMaxLine = 127;
  std::string::size_type start = 0;
  while (start < cpuinfo.size()) {
    std::string::size_type newline = cpuinfo.find('\n', start);
    std::string::size_type end = newline == std::string::npos ? cpuinfo.size() : newline + 1;
    if (end - start > kMaxLine) end = start + kMaxLine;
    std::vector<std::string> pieces = SplitKeepingEmpty(cpuinfo.substr(start, end - start), ':');
    start = end;
    if (pieces.size() == 2 && pieces[0].find(key) != std::string::npos) return pieces[1];
  }
  return "";
}

std::string DockerHostPlatform(const std::string& hostName) {
  if (hostName == "AVOTON") return "avoton";
  if (hostName == "CEDARVIEW") return "cedarview";
  if (hostName == "BROMOLOW") return "bromolow";
  return "x86";  // "X64" and anything unknown
}

std::string TransPlatformName(const std::string& platform, const std::string& cpuCores,
                              bool hwSettingEnabled, const std::string& dockerHostPlatform) {
  int cores = strtol(cpuCores.c_str(), nullptr, 10) < 2 ? 1 : 2;
  // These platforms always take their two-core profile family, whatever core
  // count their kernel reports.
  const bool alpine = Contains(platform, "alpine");
  if (platform == "monaco" || alpine || platform == "kvmx64") cores = 2;

  std::string name;
  if (platform == "cedarview" || alpine || platform == "kvmx64") {
    name = "cedarview";
  } else if (platform == "bromolow" || platform == "broadwell") {
    name = "bromolow";
  } else if (platform == "evansport") {
    // Without its hardware engine an Evansport is a slow x86 box.
    if (hwSettingEnabled) {
      name = "evansport";
    } else {
      name = "x86";
      cores = 1;
    }
  } else if (platform == "dockerx64") {
    name = dockerHostPlatform;
  } else if (platform == "avoton" || platform == "braswell" || platform == "monaco") {
    name = platform;
  } else {
    name = "x86";
  }
  return name + "_" + std::to_string(cores);
}

bool IsFastCpu(const std::string& bogoMips) {
  return !bogoMips.empty() && strtod(bogoMips.c_str(), nullptr) >= 1500.0;
}

bool ForceFFmpeg(bool braswell, bool monaco, const std::string& container,
                 const std::string& videoCodec, const std::string& videoProfile) {
  if (!braswell) return !monaco;
  // Braswell's hardware decoder has no 10-bit path, and its pipeline no
  // demuxer for these containers.
  if (container == "swf" || container == "rm") return true;
  if (videoCodec.empty()) return false;
  if (videoCodec == "hevc" && videoProfile == "Main 10") return true;
  if (videoCodec == "h264" && videoProfile == "High 10") return true;
  return false;
}

}  // namespace platform_rules

PlatformUtils& PlatformUtils::GetInst() {
  static PlatformUtils instance;
  if (gPlatformForgotten.load(std::memory_order_acquire) && gPlatformForgotten.exchange(false)) {
    std::lock_guard<std::mutex> hold(gHostPlatformMutex);
    instance.platformName_ = instance.GetPlatformName();
    instance.hostPlatformName_.clear();
  }
  return instance;
}

PlatformUtils::PlatformUtils() : platformName_(GetPlatformName()) {}

bool PlatformUtils::IsEvansport() const { return platformName_ == "evansport"; }

bool PlatformUtils::IsBraswell() const { return platformName_ == "braswell"; }

bool PlatformUtils::IsMonaco() const { return platformName_ == "monaco"; }

bool PlatformUtils::IsSupportGstreamer() const { return IsBraswell() || IsMonaco(); }

bool PlatformUtils::IsSupportHWTranscode() const {
  return IsEvansport() || IsBraswell() || IsMonaco();
}

bool PlatformUtils::IsHWSettingEnabled() const {
  // Monaco's hardware path cannot be switched off.
  if (IsMonaco()) return true;
  if (!IsSupportHWTranscode()) return false;
  try {
    Json::Value config;
    if (!LibReelhall::ReadJsonFromFile(machine::Resolve(machine::kAdvancedConf), config)) {
      return true;
    }
    if (!config.isObject()) return true;
    const Json::Value& setting = config["hardware_transcode"];
    return setting.isBool() ? setting.asBool() : true;
  } catch (...) {
    return true;
  }
}

std::string PlatformUtils::GetPlatformName() const {
  char unique[256] = {0};
  const std::string conf = machine::Resolve(machine::kOrvoInfoConf);
  if (OLIBCFileGetKeyValue(conf.c_str(), "unique", unique, sizeof(unique), 0) < 1) return "";
  std::string platform;
  if (!ParsePlatform(unique, platform)) return "";
  return platform;
}

bool PlatformUtils::ParsePlatform(const std::string& unique, std::string& platform) {
  std::vector<std::string> pieces = SplitKeepingEmpty(unique, '_');
  if (pieces.size() < 2) return false;
  platform = pieces[1];
  return true;
}

std::string PlatformUtils::GetHostPlatformName() const {
  std::string text;
  if (!librh::ReadWholeFile(machine::Resolve(machine::kOrvoPlatform), &text)) return "";
  std::string line = text.substr(0, text.find('\n'));
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

std::string PlatformUtils::GetDockerHostPlatformName() {
  std::lock_guard<std::mutex> hold(gHostPlatformMutex);
  if (hostPlatformName_.empty()) {
    hostPlatformName_ = platform_rules::DockerHostPlatform(GetHostPlatformName());
  }
  return hostPlatformName_;
}

std::string PlatformUtils::GetCPUInfo(const std::string& key) const {
  if (key.empty()) {
    librh::log::Write(LOG_ERR, kLogTag, 183, "Bad parameter");
    return "";
  }
  const std::string path = machine::Resolve(machine::kCpuInfo);
  std::string cpuinfo;
  if (!librh::ReadWholeFile(path, &cpuinfo)) {
    librh::log::Write(LOG_ERR, kLogTag, 188, "Failed to open file [%s]", path.c_str());
    return "";
  }
  return platform_rules::CpuInfoValue(cpuinfo, key);
}

std::string PlatformUtils::GetTransPlatformName() {
  try {
    std::string dockerHost;
    if (platformName_ == "dockerx64") dockerHost = GetDockerHostPlatformName();
    return platform_rules::TransPlatformName(platformName_, GetCPUInfo("cpu cores"),
                                             IsHWSettingEnabled(), dockerHost);
  } catch (...) {
    return "x86_1";
  }
}

}  // namespace util

namespace seams {

void ForgetPlatform() { gPlatformForgotten.store(true, std::memory_order_release); }

}  // namespace seams
}  // namespace librh

namespace LibReelhall {

void GetMachineTranscodeAndRemux(bool& first, bool& second, bool& third) {
  first = false;
  second = false;
  third = false;
  try {
    librh::util::PlatformUtils& platform = librh::util::PlatformUtils::GetInst();
    second = librh::util::platform_rules::IsFastCpu(platform.GetCPUInfo("BogoMIPS"));
    third = platform.IsSupportHWTranscode();
  } catch (...) {
    second = false;
    third = false;
  }
}

bool ForceFFmpegTranscoding(const std::string& container, const std::string& videoCodec,
                            const std::string& videoProfile) {
  try {
    const librh::util::PlatformUtils& platform = librh::util::PlatformUtils::GetInst();
    return librh::util::platform_rules::ForceFFmpeg(platform.IsBraswell(), platform.IsMonaco(),
                                                    container, videoCodec, videoProfile);
  } catch (...) {
    return true;
  }
}

}  // namespace LibReelhall
