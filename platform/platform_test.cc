#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "platform/orvofs.h"
#include "platform/volume.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"

namespace {

TEST(OLIBCExecTest, ReportsAProgramThatCannotStartAtOnceAndReapsIt) {
  OLIBCErrSet(0);
  EXPECT_EQ(-1, OLIBCExec("/no/such/program", "x", nullptr, nullptr, nullptr));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(ENOENT, OLIBCErrGet());
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child left";
}

// The child of a monitor, which ignores some signals and may hold
// descriptors opened without close-on-exec, starts clean.
TEST(OLIBCExecTest, ChildStartsWithNullStdinNoStrayDescriptorDefaultSignalsAndEmptyMask) {
  const int savedStdin = dup(STDIN_FILENO);
  const int input = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(input, 0);
  dup2(input, 57);  // at a number the child's own work would not reach
  dup2(input, STDIN_FILENO);
  close(input);
  struct sigaction ignore = {}, oldTerm;
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGTERM, &ignore, &oldTerm);
  sigset_t usr1, oldMask;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  sigprocmask(SIG_BLOCK, &usr1, &oldMask);
  // grep looks at its own masks: a shell would reset them first.
  const int grep =
      OLIBCExec("/bin/grep", "-qE", "^Sig(Blk|Ign):.*[1-9a-f]", "/proc/self/status", nullptr);
  const int shell = OLIBCExec(
      "/bin/sh", "-c", "[ $(readlink /proc/self/fd/0) = /dev/null ] && [ ! -e /proc/$$/fd/57 ]",
      nullptr, nullptr);
  sigprocmask(SIG_SETMASK, &oldMask, nullptr);
  sigaction(SIGTERM, &oldTerm, nullptr);
  dup2(savedStdin, STDIN_FILENO);
  close(savedStdin);
  close(57);
  EXPECT_EQ(1, grep) << "0: a signal blocked or ignored";
  EXPECT_EQ(0, shell) << "1: stdin not /dev/null or descriptor 57 inherited";
}

// Files as anyone with a shell may have edited them (buffer bounds: the fuzzer).
TEST(KeyValueTest, ReadsAndChecksValuesAndPids) {
  orvotest::MachineRoot root;
  const char kConf[] =
      "# comment line, key=wrong\n"
      "spaced   =   value with spaces  \n"
      "quoted = \"  padded  \"\n"
      "empty=\n"
      "keyprefix=no\n"
      "crlf=value\r\n"
      "trailing=\"abc\" # note\n"
      "nul=ab\0cd\n"
      "last=no newline";
  root.WriteFile("/test.conf", std::string(kConf, sizeof(kConf) - 1));
  const std::string file = root.At("/test.conf");
  const char* rows[][2] = {
      {"spaced", "value with spaces"}, {"quoted", "  padded  "}, {"empty", ""},
      {"key", nullptr},                {"crlf", "value"},        {"trailing", "abc"},
      {"nul", "ab"},                   {"last", "no newline"},   {"# comment line, key", nullptr},
  };
  for (const auto& [key, expected] : rows) {
    char value[32];
    memset(value, 'x', sizeof(value));
    const int length = expected ? static_cast<int>(strlen(expected)) : 0;
    EXPECT_EQ(length, OLIBCFileGetKeyValue(file.c_str(), key, value, sizeof(value), 0)) << key;
    EXPECT_STREQ(expected ? expected : "", value) << key;
    EXPECT_EQ(expected ? 1 : 0, OLIBCFileCheckKeyValue(file.c_str(), key, expected ? expected : "", 0))
        << key;
  }

  for (const auto& [content, pid] : std::initializer_list<std::pair<const char*, int>>{
           {"  77  \n", 77}, {"99\nextra\n", 99}, {"", -1}, {"0\n", -1}, {"12abc\n", -1}, {"9999999999\n", -1}}) {
    root.WriteFile("/run/x.pid", content);
    EXPECT_EQ(pid, OLIBCReadPidFile(root.At("/run/x.pid").c_str())) << "'" << content << "'";
  }
}

TEST(VolumeTest, PicksTheRoomiestWritableVolumeUnderTheMachineRoot) {
  const VolumeCandidate rw1{"/volume1", 100, true}, rw2{"/volume2", 300, true},
      rw3{"/volume3", 300, true}, ro4{"/volume4", 1000, false};
  const struct {
    std::vector<VolumeCandidate> volumes;
    unsigned long long needed;
    const char* expected;  // "<result> <status> <chosen>"
  } rows[] = {
      {{}, 0, "0 0 -"},           {{rw1}, 100, "1 1 /volume1"},     {{rw1, rw2}, 10, "1 1 /volume2"},
      {{rw2, rw3}, 10, "1 1 /volume2"}, {{ro4, rw1}, 500, "0 1 -"}, {{ro4}, 0, "0 5 -"},
  };
  for (const auto& row : rows) {
    VolumeInfo info{"-", 7};
    int status = -1;
    const int result = ChooseVolume(row.volumes, row.needed, &info, &status);
    EXPECT_EQ(row.expected, std::to_string(result) + " " + std::to_string(status) + " " + info.mountPath)
        << row.volumes.size() << " volumes, " << row.needed << " bytes needed";
  }
  // Only "/volume<digits>" directories under the root count.
  orvotest::MachineRoot root;
  root.AddVolume(12);
  root.WriteFile("/volume2", "a file, not a mount");
  ASSERT_EQ(0, mkdir(root.At("/volume3-old").c_str(), 0755));
  std::vector<std::string> mounts;
  ASSERT_TRUE(VolumeMounts(&mounts));
  EXPECT_EQ((std::vector<std::string>{root.At("/volume1"), root.At("/volume12")}), mounts);
  for (const std::string& path : {root.At("/volume1/x"), root.At("/volume"), std::string("/volume1")}) {
    EXPECT_FALSE(IsVolumeMountPath(path)) << path;
  }
}

// Session directories are shared by processes of several users.
TEST(OrvofsTest, CreatesEveryMissingDirectoryWithTheModeAndOwner) {
  orvotest::MachineRoot root;
  const mode_t savedUmask = umask(077);
  const std::string existing = root.At("/existing");
  ASSERT_EQ(0, mkdir(existing.c_str(), 0700));
  EXPECT_EQ(0, ORVOFSMkdirP((existing + "//a/b//c/").c_str(), 0, 1, 1024, 100, 0777));
  EXPECT_EQ(0, ORVOFSMkdirP((existing + "/a/b/c").c_str(), 0, 1, -1, -1, 0700)) << "exists";
  umask(savedUmask);
  for (const char* dir : {"", "/a", "/a/b", "/a/b/c"}) {
    struct stat info = {};
    stat((existing + dir).c_str(), &info);
    const std::string owner = *dir == '\0' || geteuid() != 0 ? "" : "1024:100";
    EXPECT_EQ(*dir == '\0' ? 040700u : 040777u, info.st_mode) << dir;
    EXPECT_EQ(owner, owner.empty() ? "" : std::to_string(info.st_uid) + ":" + std::to_string(info.st_gid))
        << dir;
  }
  root.WriteFile("/file", "not a directory");
  EXPECT_EQ(-1, ORVOFSMkdirP(root.At("/file/sub/deeper").c_str(), 0, 1, -1, -1, 0777));
}

using LogFileTest = orvotest::MachineRootTest;

// A newline in a file name cannot forge a line of its own.
TEST_F(LogFileTest, OneLinePerCallInTheLibraryLogFile) {
  const orvotest::LogCapture capture(orvotest::LogCapture::kLogFile);
  librh::log::Write(LOG_WARNING, "tag", 7, "file [%s]", "a\n2025-01-01T00:00:00Z 1 err x:1 forged");
  std::ostringstream text;
  text << std::ifstream(librh::machine::Resolve(librh::log::kLogFile)).rdbuf();
  const std::string line = " warning tag:7 file \\[a#0122025-01-01T00:00:00Z 1 err x:1 forged\\]\n";
  EXPECT_THAT(text.str(), ::testing::MatchesRegex("[-0-9T:]{19}Z " + std::to_string(getpid()) + line));
}

}  // namespace
