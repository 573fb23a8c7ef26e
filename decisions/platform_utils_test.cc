#include "decisions/platform_utils.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/machine_root.h"
#include "tests/support/machine_root.h"

namespace librh {
namespace util {
namespace {

namespace machine = librh::machine;
namespace rules = platform_rules;
using orvotest::MachineRoot;
using orvotest::PlatformFiles;

// "platform=<name> <flags> <transcode platform> <ffmpeg|gstreamer> <fast
// cpu> <hardware>", where the flags are E(vansport) B(raswell) M(onaco)
// G(streamer) H(ardware) and +hw for the administrator's switch, "-" when
// none holds; then ForceFFmpegTranscoding("mov", "h264", "High 10") and
// GetMachineTranscodeAndRemux's second and third answers.
std::string Describe() {
  PlatformUtils& p = PlatformUtils::GetInst();
  std::string flags = std::string(p.IsEvansport() ? "E" : "") + (p.IsBraswell() ? "B" : "") +
                      (p.IsMonaco() ? "M" : "") + (p.IsSupportGstreamer() ? "G" : "") +
                      (p.IsSupportHWTranscode() ? "H" : "") + (p.IsHWSettingEnabled() ? "+hw" : "");
  bool first = true, fast = false, hardware = false;
  LibReelhall::GetMachineTranscodeAndRemux(first, fast, hardware);
  return "platform=" + p.GetPlatformName() + " " + (flags.empty() ? "-" : flags) + " " +
         p.GetTransPlatformName() + " " +
         (LibReelhall::ForceFFmpegTranscoding("mov", "h264", "High 10") ? "ffmpeg" : "gstreamer") +
         (first ? " first" : "") + (fast ? " fast" : " slow") + (hardware ? " hw" : " sw");
}

PlatformFiles Platform(const std::string& name, int cores, double bogoMips = 4800,
                       const std::string& host = "") {
  PlatformFiles files;
  files.name = name;
  files.cpuCores = cores;
  files.bogoMips = bogoMips;
  files.hostPlatform = host;
  return files;
}

TEST(PlatformUtils, PlatformsReadFromTheMachine) {
  const struct {
    PlatformFiles files;
    const char* unique;    // orvoinfo.conf's line when not the fixture's
    const char* advanced;  // advanced.conf, nullptr for none
    const char* cpuinfo;   // /proc/cpuinfo when not the fixture's
    const char* expected;
  } kRows[] = {
      {Platform("braswell", 4), nullptr, nullptr, nullptr,
       "platform=braswell BGH+hw braswell_2 ffmpeg fast hw"},
      {Platform("braswell", 1), nullptr, R"({"hardware_transcode": false})", nullptr,
       "platform=braswell BGH braswell_1 ffmpeg fast hw"},
      {Platform("", 4), "unique=\"nounderscore\"", nullptr, nullptr, "platform= - x86_2 ffmpeg fast sw"},
      {Platform("", 0), "unique=\"a__b\"", nullptr, nullptr, "platform= - x86_1 ffmpeg fast sw"},
      {Platform("monaco", 1), nullptr, R"({"hardware_transcode": false})", nullptr,
       "platform=monaco MGH+hw monaco_2 gstreamer fast hw"},
      {Platform("evansport", 2), nullptr, R"({"hardware_transcode": false})", nullptr,
       "platform=evansport EH x86_1 ffmpeg fast hw"},
      {Platform("evansport", 1), nullptr, R"({"hardware_transcode": "no"})", nullptr,
       "platform=evansport EH+hw evansport_1 ffmpeg fast hw"},
      {Platform("evansport", 2), nullptr, "{hardware_transcode", nullptr,
       "platform=evansport EH+hw evansport_2 ffmpeg fast hw"},
      {Platform("x86", 2), nullptr, R"({"hardware_transcode": true})", nullptr,
       "platform=x86 - x86_2 ffmpeg fast sw"},
      {Platform("x86", 2, 1499.99), nullptr, nullptr, nullptr, "platform=x86 - x86_2 ffmpeg slow sw"},
      {Platform("x86", 2, 1500), nullptr, nullptr, nullptr, "platform=x86 - x86_2 ffmpeg fast sw"},
      {Platform("x86", 2), nullptr, nullptr, "bogomips\t: 4800.00\ncpu cores\t: 2\n",
       "platform=x86 - x86_2 ffmpeg slow sw"},
      {Platform("dockerx64", 2, 4800, "BROMOLOW"), nullptr, nullptr, nullptr,
       "platform=dockerx64 - bromolow_2 ffmpeg fast sw"},
      {Platform("dockerx64", 1, 4800, "X64"), nullptr, nullptr, nullptr,
       "platform=dockerx64 - x86_1 ffmpeg fast sw"},
  };
  for (const auto& row : kRows) {
    MachineRoot root(row.files);
    if (row.unique) root.WriteFile(machine::kOrvoInfoConf, std::string(row.unique) + "\n");
    if (row.advanced) root.WriteFile(machine::kAdvancedConf, row.advanced);
    if (row.cpuinfo) root.WriteFile(machine::kCpuInfo, row.cpuinfo);
    EXPECT_EQ(row.expected, Describe())
        << row.files.name << " cores " << row.files.cpuCores << " unique "
        << (row.unique ? row.unique : "-") << " advanced " << (row.advanced ? row.advanced : "-");
  }
}

// A line longer than the kernel file's 128-byte reads is examined in
// pieces: the piece holding the name has no ":" and the piece holding ":"
// no name.
TEST(PlatformUtils, CpuInfoValue) {
  const struct {
    std::string text;
    const char* key;
    const char* expected;
  } kRows[] = {
      {"processor\t: 0\ncpu cores\t: 4\n", "cpu cores", " 4\n"},
      {"cpu cores\t: 4", "cpu cores", " 4"},
      {"cpu cores\t: 2\ncpu cores\t: 8\n", "cpu cores", " 2\n"},
      {"cpu cores: 4: 5\ncpu cores :6\n", "cpu cores", "6\n"},
      {"BogoMIPS\t: 1500.00\n", "MIPS", " 1500.00\n"},
      {"bogomips\t: 4800.00\n", "BogoMIPS", ""},
      {"cpu cores" + std::string(130, 'x') + ": 9\n", "cpu cores", ""},
      {"", "cpu cores", ""},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(row.expected, rules::CpuInfoValue(row.text, row.key)) << row.text;
  }
}

TEST(PlatformUtils, TransPlatformNameRules) {
  const struct {
    const char* platform;
    const char* cores;
    bool hw;
    const char* dockerHost;
    const char* expected;
  } kRows[] = {
      {"cedarview", " 4\n", true, "", "cedarview_2"}, {"kvmx64", " 1\n", true, "", "cedarview_2"},
      {"alpine4k", "", false, "", "cedarview_2"},     {"broadwell", " 1\n", true, "", "bromolow_1"},
      {"bromolow", " 8\n", false, "", "bromolow_2"},  {"avoton", "", true, "", "avoton_1"},
      {"braswell", "\t2", true, "", "braswell_2"},    {"Monaco", " 1\n", true, "", "x86_1"},
      {"dockerx64", " 4\n", true, "avoton", "avoton_2"}, {"", "abc", true, "", "x86_1"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(row.expected, rules::TransPlatformName(row.platform, row.cores, row.hw, row.dockerHost))
        << row.platform << " cores '" << row.cores << "' hw " << row.hw;
  }
  for (const char* host : {"AVOTON", "CEDARVIEW"}) {
    EXPECT_EQ(std::string(host) == "AVOTON" ? "avoton" : "cedarview", rules::DockerHostPlatform(host));
  }
  EXPECT_EQ("x86", rules::DockerHostPlatform("bromolow"));
}

TEST(PlatformUtils, ForceFFmpegOnBraswell) {
  const struct {
    const char* container;
    const char* codec;
    const char* profile;
    bool expected;
  } kRows[] = {
      {"rm", "", "", true},          {"swf", "flv1", "", true},
      {"mov", "", "High 10", false}, {"mov", "h264", "High 10", true},
      {"mkv", "hevc", "Main 10", true}, {"mkv", "hevc", "Main", false},
      {"mkv", "h264", "Main 10", false},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(row.expected, rules::ForceFFmpeg(true, false, row.container, row.codec, row.profile))
        << row.container << " " << row.codec << " " << row.profile;
  }
}

// The platform name and the container host are read once per process; the
// administrator's settings and the core count on every question.
TEST(PlatformUtils, NameAndHostReadOnceSettingsReadAfresh) {
  MachineRoot root(Platform("evansport", 2, 4800, "AVOTON"));
  PlatformUtils& p = PlatformUtils::GetInst();
  std::string report = p.GetDockerHostPlatformName() + " " + p.GetTransPlatformName() + " | ";
  root.WriteFile(machine::kOrvoInfoConf, "unique=\"reelbox_monaco_1019\"\n");
  root.WriteFile(machine::kOrvoPlatform, "BROMOLOW\n");
  root.WriteFile(machine::kAdvancedConf, R"({"hardware_transcode": false})");
  report += p.GetDockerHostPlatformName() + " " + p.GetHostPlatformName() + " " +
            p.GetTransPlatformName() + " " + p.GetPlatformName();
  EXPECT_EQ("avoton evansport_2 | avoton BROMOLOW x86_1 monaco", report);
}

}  // namespace
}  // namespace util
}  // namespace librh
