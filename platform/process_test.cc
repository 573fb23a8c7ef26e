#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "toolkit/files.h"

namespace {

// Cases that need scratch files get a temporary machine root.
class ProcessTest : public orvotest::MachineRootTest {};

// Runs `run` with this process's stdout sent to a file and returns what was
// written there; the exec'd programs inherit that stdout.
std::string CaptureStdout(const std::string& file, const std::function<int()>& run, int* result) {
  fflush(stdout);
  int out = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  int saved = dup(STDOUT_FILENO);
  dup2(out, STDOUT_FILENO);
  close(out);
  *result = run();
  fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  return toolkit::ReadWholeFile(file);
}

// True when this process has no child left, reaped or not.
bool NoChildren() {
  int status;
  return waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

TEST(OLIBCExecTest, ReportsAProgramThatCannotStartAtOnceAndReapsIt) {
  orvotest::MachineRoot root;
  const std::string notExecutable = root.At("/script.sh");
  root.WriteFile("/script.sh", "#!/bin/sh\nexit 0\n");
  chmod(notExecutable.c_str(), 0644);

  struct Case {
    std::string path;
    int error;
  } cases[] = {
      {root.At("/no/such/program"), ENOENT},
      {root.At("/volume1"), EACCES},
      // Even root needs an execute bit.
      {notExecutable, EACCES},
  };
  for (const Case& c : cases) {
    OLIBCErrSet(0);
    EXPECT_EQ(OLIBCExec(c.path.c_str(), "x", nullptr, nullptr, nullptr), -1) << c.path;
    EXPECT_EQ(errno, c.error) << c.path;
    EXPECT_EQ(OLIBCErrGet(), c.error) << c.path;
    EXPECT_TRUE(NoChildren()) << c.path;
  }

  const char* const noArgs[] = {nullptr};
  EXPECT_EQ(OLIBCExecv("/bin/true", noArgs, 1), -1);
  EXPECT_EQ(OLIBCExecv(nullptr, noArgs, 1), -1);
  EXPECT_EQ(OLIBCErrGet(), EINVAL);
}

// The child of a monitor, which ignores some signals and may hold
// descriptors opened without close-on-exec, starts clean: /dev/null on
// stdin, no stray descriptor, default dispositions and an empty mask.
TEST_F(ProcessTest, ExecChildStartsWithNullStdinNoStrayDescriptorDefaultSignalsAndEmptyMask) {
  // At a number the child's own work would not reach.
  int leaky = open(Root().At("/volume1").c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(leaky, 0);
  ASSERT_EQ(dup2(leaky, 57), 57);
  close(leaky);
  // The engine's own stdin (here a file) is not the program's.
  Root().WriteFile("/input", "engine input\n");
  const int savedStdin = dup(STDIN_FILENO);
  const int input = open(Root().At("/input").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(input, 0);
  dup2(input, STDIN_FILENO);
  close(input);
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction oldTerm, oldPipe;
  sigaction(SIGTERM, &ignore, &oldTerm);
  sigaction(SIGPIPE, &ignore, &oldPipe);
  sigset_t usr1, oldMask;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  sigprocmask(SIG_BLOCK, &usr1, &oldMask);

  // The shell clears its own mask, so grep reads it.
  int shell = 0, grep = 0;
  const std::string seen =
      CaptureStdout(
          Root().At("/out.txt"),
          [] {
            return OLIBCExec("/bin/sh", "-c", "readlink /proc/self/fd/0; [ ! -e /proc/$$/fd/57 ] || echo fd 57",
                             nullptr, nullptr);
          },
          &shell) +
      CaptureStdout(
          Root().At("/out.txt"),
          [] { return OLIBCExec("/bin/grep", "-E", "^Sig(Ign|Blk)", "/proc/self/status", nullptr); }, &grep);

  sigprocmask(SIG_SETMASK, &oldMask, nullptr);
  sigaction(SIGTERM, &oldTerm, nullptr);
  sigaction(SIGPIPE, &oldPipe, nullptr);
  dup2(savedStdin, STDIN_FILENO);
  close(savedStdin);
  close(57);
  EXPECT_EQ(shell, 0);
  EXPECT_EQ(grep, 0);
  EXPECT_EQ(seen, "/dev/null\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(ProcessTest, DetachedExecLeavesNothingToReap) {
  const std::string marker = Root().At("/started");
  const char* const argv[] = {"touch", marker.c_str(), nullptr};
  EXPECT_EQ(OLIBCExecv("/usr/bin/touch", argv, 0), 0);
  EXPECT_TRUE(NoChildren());
  EXPECT_TRUE(orvotest::WaitForPath(marker, 10000));

  const std::string missing = Root().At("/missing");
  const char* const missingArgv[] = {"missing", nullptr};
  EXPECT_EQ(OLIBCExecv(missing.c_str(), missingArgv, 0), -1);
  EXPECT_EQ(OLIBCErrGet(), ENOENT);
  EXPECT_TRUE(NoChildren());
}

}  // namespace
