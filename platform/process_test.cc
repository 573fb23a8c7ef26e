#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "platform/olibc.h"
#include "tests/support/machine_root.h"

namespace {

TEST(OLIBCExecTest, ReportsAProgramThatCannotStartAtOnceAndReapsIt) {
  orvotest::MachineRoot root;
  root.WriteFile("/script.sh", "#!/bin/sh\nexit 0\n");
  chmod(root.At("/script.sh").c_str(), 0644);  // even root needs an execute bit
  for (const auto& [path, error] : {std::make_pair(root.At("/no/such/program"), ENOENT),
                                    std::make_pair(root.At("/volume1"), EACCES),
                                    std::make_pair(root.At("/script.sh"), EACCES)}) {
    OLIBCErrSet(0);
    EXPECT_EQ(-1, OLIBCExec(path.c_str(), "x", nullptr, nullptr, nullptr)) << path;
    EXPECT_EQ(error, errno) << path;
    EXPECT_EQ(error, OLIBCErrGet()) << path;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << path << ": a child left";
  }
}

// The child of a monitor, which ignores some signals and may hold
// descriptors opened without close-on-exec, starts clean: /dev/null on
// stdin (not the engine's), no stray descriptor, default dispositions and
// an empty mask.
TEST(OLIBCExecTest, ChildStartsWithNullStdinNoStrayDescriptorDefaultSignalsAndEmptyMask) {
  orvotest::MachineRoot root;
  root.WriteFile("/input", "engine input\n");
  const int savedStdin = dup(STDIN_FILENO);
  const int input = open(root.At("/input").c_str(), O_RDONLY);
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

}  // namespace
