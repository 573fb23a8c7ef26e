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

// "<name> <flags> <transcode platform> <ffmpeg|gstreamer> <fast
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
  return p.GetPlatformName() + " " + (flags.empty() ? "-" : flags) + " " +
         p.GetTransPlatformName() + " " +
         (LibReelhall::ForceFFmpegTranscoding("mov", "h264", "High 10") ? "ffmpeg" : "gstreamer") +
         (first ? " first" : "") + (fast ? " fast" : " slow") + (hardware ? " hw" : " sw");
}

TEST(PlatformUtils, PlatformsReadFromTheMachine) {
  const char kOff[] = R"({"hardware_transcode": false})";
  const struct {
    PlatformFiles files;
    const char* file;  // a platform file written over the fixture's, with `text`
    const char* text;
    const char* expected;
  } kRows[] = {
      {{"braswell", 1, 4800, ""}, machine::kAdvancedConf, kOff, "braswell BGH braswell_1 ffmpeg fast hw"},
      {{"", 4, 4800, ""}, machine::kOrvoInfoConf, "unique=\"nounderscore\"\n", " - x86_2 ffmpeg fast sw"},
      {{"monaco", 1, 4800, ""}, machine::kAdvancedConf, kOff, "monaco MGH+hw monaco_2 gstreamer fast hw"},
      {{"evansport", 2, 4800, ""}, machine::kAdvancedConf, kOff, "evansport EH x86_1 ffmpeg fast hw"},
      {{"evansport", 1, 4800, ""}, machine::kAdvancedConf, R"({"hardware_transcode": "no"})",
       "evansport EH+hw evansport_1 ffmpeg fast hw"},
      {{"evansport", 2, 4800, ""}, machine::kAdvancedConf, "{hardware_transcode",
       "evansport EH+hw evansport_2 ffmpeg fast hw"},
      {{"x86", 2, 1500, ""}, nullptr, nullptr, "x86 - x86_2 ffmpeg fast sw"},
      {{"x86", 2, 4800, ""}, machine::kCpuInfo, "bogomips\t: 4800.00\ncpu cores\t: 2\n",
       "x86 - x86_2 ffmpeg slow sw"},
      {{"dockerx64", 2, 4800, "BROMOLOW"}, nullptr, nullptr, "dockerx64 - bromolow_2 ffmpeg fast sw"},
  };
  for (const auto& row : kRows) {
    MachineRoot root(row.files);
    if (row.file) root.WriteFile(row.file, row.text);
    EXPECT_EQ(row.expected, Describe()) << row.files.name << " " << (row.file ? row.text : "");
  }
}

// The rules on what was read. A /proc/cpuinfo line longer than the kernel
// file's 128-byte reads is examined in pieces: the piece holding the name
// has no ":" and the piece holding ":" no name.
TEST(PlatformUtils, RulesOnWhatWasRead) {
  const std::string longLine = "cpu cores" + std::string(130, 'x') + ": 9\n";
  const char* cpuinfo[][3] = {
      {"processor\t: 0\ncpu cores\t: 4\n", "cpu cores", " 4\n"},
      {"cpu cores\t: 2\ncpu cores\t: 8\n", "cpu cores", " 2\n"},
      {"cpu cores: 4: 5\ncpu cores :6\n", "cpu cores", "6\n"},
      {"bogomips\t: 4800.00\n", "BogoMIPS", ""},
      {longLine.c_str(), "cpu cores", ""},
  };
  for (const auto& row : cpuinfo) EXPECT_EQ(row[2], rules::CpuInfoValue(row[0], row[1])) << row[0];
  // platform, cores, the administrator's switch, container host: profile family
  const char* families[][5] = {
      {"alpine4k", "", "", "", "cedarview_2"}, {"broadwell", " 1\n", "1", "", "bromolow_1"},
      {"Monaco", " 1\n", "1", "", "x86_1"},   {"", "abc", "1", "", "x86_1"},
  };
  for (const auto& row : families) {
    EXPECT_EQ(row[4], rules::TransPlatformName(row[0], row[1], *row[2] != '\0', row[3]))
        << row[0] << " '" << row[1] << "'";
  }
  // Braswell: container, codec, profile; "1" where FFmpeg is forced.
  const char* forced[][4] = {
      {"rm", "", "", "1"},           {"swf", "flv1", "", "1"},         {"mov", "", "High 10", ""},
      {"mov", "h264", "High 10", "1"}, {"mkv", "hevc", "Main 10", "1"}, {"mkv", "hevc", "Main", ""},
      {"mkv", "h264", "Main 10", ""},
  };
  for (const auto& row : forced) {
    EXPECT_EQ(*row[3] != '\0', rules::ForceFFmpeg(true, false, row[0], row[1], row[2]))
        << row[0] << " " << row[1] << " " << row[2];
  }
}

// The platform name and the container host are read once per process; the
// administrator's settings and the core count on every question.
TEST(PlatformUtils, NameAndHostReadOnceSettingsReadAfresh) {
  MachineRoot root(PlatformFiles{"evansport", 2, 4800, "AVOTON"});
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
