#include "toolkit/child_process.h"

#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace toolkit {
namespace {

using std::chrono::milliseconds;

// A child deaf to SIGTERM is killed once the grace has passed; whatever
// happens, no child is left unreaped.
TEST(ChildProcessTest, RunsToTheEndOrTheDeadlineAndReapsEveryChild) {
  const struct {
    const char* script;
    int timeoutMs;
    int status;
    const char* output;
  } rows[] = {
      {"printf 'out'; printf 'err' >&2", 10000, 0, "out"},
      {"exit 3", 10000, 3, ""},
      {"kill -9 $$", 10000, -1, ""},
      {"printf early; exec sleep 30", 200, -1, "early"},
      {"trap '' TERM; printf deaf; exec sleep 30", 200, -1, "deaf"},
  };
  Wiring quiet;
  quiet.err = kDevNull;
  for (const auto& row : rows) {
    std::string output;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(row.status, RunProgram({"sh", "-c", row.script}, milliseconds(row.timeoutMs), &output, quiet))
        << row.script;
    EXPECT_EQ(row.output, output) << row.script;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << row.script;
  }

  std::string error;
  EXPECT_EQ(-1, StartProgram({"/no/such/program"}, Wiring{}, &error));
  EXPECT_EQ("cannot run /no/such/program: No such file or directory", error);
  EXPECT_EQ(-1, WaitFor(StartProgram({"sleep", "30"}), milliseconds(50)));
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno) << "every child is reaped";
}

}  // namespace
}  // namespace toolkit
