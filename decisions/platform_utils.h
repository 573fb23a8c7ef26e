// Which NAS platform this is, and what it can do. The platform name is read
// once per process; configuration that an administrator may change is read
// on every question.
#pragma once

#include <string>

namespace librh {
namespace util {

class PlatformUtils {
 public:
  // The process-wide instance, built on first use (thread-safe).
  static PlatformUtils& GetInst();

  bool IsEvansport() const;
  bool IsBraswell() const;
  bool IsMonaco() const;
  bool IsSupportGstreamer() const;
  bool IsSupportHWTranscode() const;
  // Whether the administrator allows hardware transcoding (true unless a
  // readable setting says false).
  bool IsHWSettingEnabled() const;

  // The platform name from the model identity, "" when unknown.
  std::string GetPlatformName() const;
  // The second "_"-separated field of `unique`.
  static bool ParsePlatform(const std::string& unique, std::string& platform);
  // First line of the host platform file, "" when missing.
  std::string GetHostPlatformName() const;
  // The host platform mapped to a platform name; computed once, then cached.
  std::string GetDockerHostPlatformName();
  // The text after ":" on the first /proc/cpuinfo line whose name contains
  // `key`, exactly as it stands (leading blank and newline kept).
  std::string GetCPUInfo(const std::string& key) const;
  // "<name>_<1|2>", choosing the transcoding profile family.
  std::string GetTransPlatformName();

 private:
  PlatformUtils();
  PlatformUtils(const PlatformUtils&) = delete;
  PlatformUtils& operator=(const PlatformUtils&) = delete;

  std::string platformName_;
  std::string hostPlatformName_;
};

// The decisions above as functions of the machine's texts, so they can be
// checked without a machine.
namespace platform_rules {

// GetCPUInfo over a /proc/cpuinfo text, read in lines of at most 127
// characters as the kernel file is.
std::string CpuInfoValue(const std::string& cpuinfo, const std::string& key);

// The platform name for a container host's upper-case name ("x86" for any
// name it does not know).
std::string DockerHostPlatform(const std::string& hostName);

// GetTransPlatformName from the platform name, GetCPUInfo("cpu cores"), the
// hardware switch and the docker host platform (read only for "dockerx64").
std::string TransPlatformName(const std::string& platform, const std::string& cpuCores,
                              bool hwSettingEnabled, const std::string& dockerHostPlatform);

// Whether a CPU with this GetCPUInfo("BogoMIPS") value can transcode in
// software.
bool IsFastCpu(const std::string& bogoMips);

// ForceFFmpegTranscoding on a platform that is (or is not) Braswell or Monaco.
bool ForceFFmpeg(bool braswell, bool monaco, const std::string& container,
                 const std::string& videoCodec, const std::string& videoProfile);

}  // namespace platform_rules
}  // namespace util
}  // namespace librh

namespace LibReelhall {

// first: always false; second: a CPU fast enough (BogoMIPS >= 1500) for
// software transcoding; third: the platform has a hardware transcoder.
void GetMachineTranscodeAndRemux(bool& first, bool& second, bool& third);

// Whether a video must be transcoded with FFmpeg rather than the platform's
// GStreamer pipeline.
bool ForceFFmpegTranscoding(const std::string& container, const std::string& videoCodec,
                            const std::string& videoProfile);

}  // namespace LibReelhall
