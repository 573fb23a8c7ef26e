#include "decisions/platform_utils.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"

namespace librh {
namespace util {
namespace {

namespace machine = librh::machine;
namespace rules = platform_rules;
using orvotest::MachineRoot;
using orvotest::PlatformFiles;

// "platform=<name> <flags> <transcode platform> <ffmpeg|gstreamer>", where the
// flags are E(vansport) B(raswell) M(onaco) G(streamer) H(ardware) and +hw
// for the administrator's switch, "-" when none holds; the last word is
// ForceFFmpegTranscoding("mov", "h264", "High 10").
std::string Describe() {
  PlatformUtils& p = PlatformUtils::GetInst();
  std::string flags = std::string(p.IsEvansport() ? "E" : "") + (p.IsBraswell() ? "B" : "") +
                      (p.IsMonaco() ? "M" : "") + (p.IsSupportGstreamer() ? "G" : "") +
                      (p.IsSupportHWTranscode() ? "H" : "") + (p.IsHWSettingEnabled() ? "+hw" : "");
  return "platform=" + p.GetPlatformName() + " " + (flags.empty() ? "-" : flags) + " " +
         p.GetTransPlatformName() + " " +
         (LibReelhall::ForceFFmpegTranscoding("mov", "h264", "High 10") ? "ffmpeg" : "gstreamer");
}

PlatformFiles Platform(const std::string& name, int cores, const std::string& host = "") {
  PlatformFiles files;
  files.name = name;
  files.cpuCores = cores;
  files.hostPlatform = host;
  return files;
}

TEST(PlatformUtils, PlatformsReadFromTheMachine) {
  const struct {
    PlatformFiles files;
    const char* unique;    // orvoinfo.conf's line when not the fixture's
    const char* advanced;  // advanced.conf, nullptr for none
    const char* expected;
  } kRows[] = {
      {Platform("braswell", 4), nullptr, nullptr, "platform=braswell BGH+hw braswell_2 ffmpeg"},
      {Platform("braswell", 1), nullptr, R"({"hardware_transcode": false})",
       "platform=braswell BGH braswell_1 ffmpeg"},
      {Platform("", 1), "unique=\"nounderscore\"", nullptr, "platform= - x86_1 ffmpeg"},
      {Platform("", 4), "unique=\"nounderscore\"", nullptr, "platform= - x86_2 ffmpeg"},
      {Platform("", 0), nullptr, nullptr, "platform= - x86_1 ffmpeg"},
      {Platform("monaco", 1), nullptr, R"({"hardware_transcode": false})",
       "platform=monaco MGH+hw monaco_2 gstreamer"},
      {Platform("evansport", 2), nullptr, R"({"hardware_transcode": false})",
       "platform=evansport EH x86_1 ffmpeg"},
      {Platform("evansport", 2), nullptr, nullptr, "platform=evansport EH+hw evansport_2 ffmpeg"},
      {Platform("evansport", 1), nullptr, nullptr, "platform=evansport EH+hw evansport_1 ffmpeg"},
      {Platform("evansport", 2), nullptr, R"({"hardware_transcode": "no"})",
       "platform=evansport EH+hw evansport_2 ffmpeg"},
      {Platform("evansport", 2), nullptr, "{hardware_transcode",
       "platform=evansport EH+hw evansport_2 ffmpeg"},
      {Platform("x86", 2), nullptr, R"({"hardware_transcode": true})",
       "platform=x86 - x86_2 ffmpeg"},
      {Platform("dockerx64", 2, "BROMOLOW"), nullptr, nullptr,
       "platform=dockerx64 - bromolow_2 ffmpeg"},
      {Platform("dockerx64", 1, "X64"), nullptr, nullptr, "platform=dockerx64 - x86_1 ffmpeg"},
      {Platform("dockerx64", 4), nullptr, nullptr, "platform=dockerx64 - x86_2 ffmpeg"},
  };
  for (const auto& row : kRows) {
    MachineRoot root(row.files);
    if (row.unique) root.WriteFile(machine::kOrvoInfoConf, std::string(row.unique) + "\n");
    if (row.advanced) root.WriteFile(machine::kAdvancedConf, row.advanced);
    EXPECT_EQ(row.expected, Describe())
        << row.files.name << " cores " << row.files.cpuCores << " unique "
        << (row.unique ? row.unique : "-") << " advanced " << (row.advanced ? row.advanced : "-");
  }
}

TEST(PlatformUtils, ParsePlatformKeepsEmptyPieces) {
  const struct {
    const char* unique;
    bool ok;
    const char* platform;
  } kRows[] = {
      {"x_evansport_y", true, "evansport"}, {"a_b", true, "b"}, {"_", true, ""}, {"a__b", true, ""},
      {"nounderscore", false, "?"},         {"", false, "?"},
  };
  for (const auto& row : kRows) {
    std::string platform = "?";
    EXPECT_EQ(row.ok, PlatformUtils::ParsePlatform(row.unique, platform)) << row.unique;
    EXPECT_EQ(row.platform, platform) << row.unique;
  }
}

TEST(PlatformUtils, CpuInfoValue) {
  const std::string longName(130, 'x');
  const struct {
    std::string text;
    const char* key;
    const char* expected;
  } kRows[] = {
      {"processor\t: 0\ncpu cores\t: 4\n", "cpu cores", " 4\n"},
      {"cpu cores\t: 4", "cpu cores", " 4"},
      {"cpu cores\t: 2\ncpu cores\t: 8\n", "cpu cores", " 2\n"},
      {"model name\t: x\n", "cpu cores", ""},
      {"cpu cores: 4: 5\ncpu cores :6\n", "cpu cores", "6\n"},  // three pieces are skipped
      {"BogoMIPS\t: 1500.00\n", "MIPS", " 1500.00\n"},          // substring match
      {"bogomips\t: 4800.00\n", "BogoMIPS", ""},                // case matters
      // A line longer than the 128-byte buffer is examined in pieces: the
      // piece holding the name has no ":" and the piece holding ":" no name.
      {"cpu cores" + longName + ": 9\n", "cpu cores", ""},
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
      {"cedarview", " 4\n", true, "", "cedarview_2"},
      {"kvmx64", " 1\n", true, "", "cedarview_2"},
      {"alpine4k", "", false, "", "cedarview_2"},
      {"broadwell", " 1\n", true, "", "bromolow_1"},
      {"bromolow", " 8\n", false, "", "bromolow_2"},
      {"avoton", "", true, "", "avoton_1"},
      {"braswell", "\t2", true, "", "braswell_2"},
      {"Monaco", " 1\n", true, "", "x86_1"},
      {"dockerx64", " 4\n", true, "avoton", "avoton_2"},
      {"", "abc", true, "", "x86_1"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(row.expected,
              rules::TransPlatformName(row.platform, row.cores, row.hw, row.dockerHost))
        << row.platform << " cores '" << row.cores << "' hw " << row.hw;
  }
  const char* const kHosts[][2] = {
      {"AVOTON", "avoton"}, {"CEDARVIEW", "cedarview"}, {"bromolow", "x86"}};
  for (const auto& host : kHosts) EXPECT_EQ(host[1], rules::DockerHostPlatform(host[0])) << host[0];
}

TEST(PlatformUtils, ForceFFmpegOnBraswell) {
  const struct {
    const char* container;
    const char* codec;
    const char* profile;
    bool expected;
  } kRows[] = {
      {"rm", "", "", true},
      {"swf", "flv1", "", true},
      {"mov", "", "High 10", false},
      {"mov", "h264", "High 10", true},
      {"mkv", "hevc", "Main 10", true},
      {"mkv", "hevc", "Main", false},
      {"mkv", "h264", "Main 10", false},
      {"mp4", "h264", "High", false},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(row.expected, rules::ForceFFmpeg(true, false, row.container, row.codec, row.profile))
        << row.container << " " << row.codec << " " << row.profile;
    EXPECT_FALSE(rules::ForceFFmpeg(false, true, row.container, row.codec, row.profile));
    EXPECT_TRUE(rules::ForceFFmpeg(false, false, row.container, row.codec, row.profile));
  }
}

TEST(PlatformUtils, MachineTranscodeAndRemuxReadsBogoMips) {
  const struct {
    const char* name;
    const char* cpuinfo;
    const char* expected;  // first second third
  } kRows[] = {
      {"x86", "BogoMIPS\t: 1499.99\n", "0 0 0"},      {"x86", "BogoMIPS\t: 1500.00\n", "0 1 0"},
      {"braswell", "bogomips\t: 4800.00\n", "0 0 1"}, {"evansport", "BogoMIPS :3000\n", "0 1 1"},
      {"monaco", "BogoMIPS\t: fast\n", "0 0 1"},
  };
  for (const auto& row : kRows) {
    MachineRoot root(Platform(row.name, 2));
    root.WriteFile(machine::kCpuInfo, row.cpuinfo);
    bool first = true, second = true, third = true;
    LibReelhall::GetMachineTranscodeAndRemux(first, second, third);
    EXPECT_EQ(row.expected, std::to_string(first) + " " + std::to_string(second) + " " +
                                std::to_string(third))
        << row.name << " " << row.cpuinfo;
  }
}

TEST(PlatformUtils, GetCPUInfoLogsBadKeyAndMissingFile) {
  MachineRoot root;
  std::filesystem::remove(root.At(machine::kCpuInfo));
  orvotest::LogCapture capture;
  PlatformUtils& p = PlatformUtils::GetInst();
  // One call per statement: the logged lines must come in this order.
  std::string report = "[" + p.GetCPUInfo("") + "]";
  report += "[" + p.GetCPUInfo("cpu cores") + "] ";
  report += p.GetTransPlatformName() + "\n";
  report += capture.Dump();
  const std::string open = std::to_string(LOG_ERR) + " platform_utils:188 Failed to open file [" +
                           root.At(machine::kCpuInfo) + "]\n";
  EXPECT_EQ("[][] x86_1\n" + std::to_string(LOG_ERR) + " platform_utils:183 Bad parameter\n" +
                open + open,
            report);
}

TEST(PlatformUtils, NameAndHostReadOnceSettingsReadAfresh) {
  MachineRoot root(Platform("evansport", 2, "AVOTON"));
  PlatformUtils& p = PlatformUtils::GetInst();
  std::string report = p.GetDockerHostPlatformName() + " " + p.GetTransPlatformName() + " | ";
  // The files change under the running process (Play would start afresh).
  root.WriteFile(machine::kOrvoInfoConf, "unique=\"reelbox_monaco_1019\"\n");
  root.WriteFile(machine::kOrvoPlatform, "BROMOLOW\n");
  root.WriteFile(machine::kAdvancedConf, R"({"hardware_transcode": false})");
  report += p.GetDockerHostPlatformName() + " " + p.GetHostPlatformName() + " " +
            p.GetTransPlatformName() + " " + p.GetPlatformName();
  EXPECT_EQ("avoton evansport_2 | avoton BROMOLOW x86_1 monaco", report);
}

TEST(PlatformUtils, ConcurrentFirstCallsAgreeOnTheHost) {
  MachineRoot root(Platform("dockerx64", 4, "CEDARVIEW"));
  constexpr int kThreads = 8;
  std::atomic<int> ready{0};
  std::vector<std::string> hosts(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();
      hosts[i] = PlatformUtils::GetInst().GetDockerHostPlatformName();
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::string report;
  for (const std::string& host : hosts) report += host + " ";
  report += PlatformUtils::GetInst().GetTransPlatformName();
  EXPECT_EQ(
      "cedarview cedarview cedarview cedarview cedarview cedarview cedarview cedarview "
      "cedarview_2",
      report);
}

}  // namespace
}  // namespace util
}  // namespace librh
