// Every fixed path of the NAS that the library touches, resolved under one
// root prefix. The prefix comes from the environment variable
// ORVOVTE_MACHINE_ROOT; unset or empty means the machine's real paths.
//
// No other file spells these paths: tests and the demo point the variable at
// a temporary tree that plays a given platform.
#pragma once

#include <string>

namespace librh {
namespace machine {

inline constexpr char kRootVariable[] = "ORVOVTE_MACHINE_ROOT";

// The fixed paths, as the NAS knows them.
inline constexpr char kTempRoot[] = "/tmp/Reelhall";
inline constexpr char kLoadRegistry[] = "/tmp/Reelhall/enabled";
inline constexpr char kOrvoInfoConf[] = "/etc.defaults/orvoinfo.conf";
inline constexpr char kOrvoPlatform[] = "/proc/orvo_platform";
inline constexpr char kCpuInfo[] = "/proc/cpuinfo";
inline constexpr char kPackageDir[] = "/var/packages/Reelhall";
inline constexpr char kAdvancedConf[] = "/var/packages/Reelhall/etc/advanced.conf";
inline constexpr char kCodecsConf[] = "/var/packages/Reelhall/etc/codecs.conf";
inline constexpr char kPackageFFmpeg[] = "/var/packages/Reelhall/target/bin/ffmpeg";
inline constexpr char kPackageGstLaunch[] = "/var/packages/Reelhall/target/bin/gst-launch-1.0";
inline constexpr char kSystemFFmpeg[] = "/usr/local/ffmpeg/bin/ffmpeg";
inline constexpr char kConversionPidFile[] = "/run/orvovideoconversiond.pid";
// Data volumes are mounted as /volume1, /volume2, ...
inline constexpr char kVolumePattern[] = "/volume[0-9]*";

// System programs the engine runs. They belong to the operating system, not
// to the NAS, so they are never resolved under the machine root.
inline constexpr char kRemoveProgram[] = "/bin/rm";
inline constexpr char kFindProgram[] = "/bin/find";

// The prefix in force now ("" for the real machine). Read on every call so a
// test can switch roots between cases.
std::string Root();

// Root() + machinePath. machinePath must be absolute.
std::string Resolve(const std::string& machinePath);

}  // namespace machine
}  // namespace librh
