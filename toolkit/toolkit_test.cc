#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "toolkit/child_process.h"
#include "toolkit/query.h"

namespace toolkit {
namespace {

using std::chrono::milliseconds;

TEST(ChildProcessTest, RunsToTheEndOrTheDeadlineAndReapsEveryChild) {
  const struct {
    const char* script;
    int timeoutMs;
    int status;
    const char* output;
  } rows[] = {
      {"printf 'out'; printf 'err' >&2", 10000, 0, "out"},
      {"kill -9 $$", 10000, -1, ""},
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

  EXPECT_EQ(-1, WaitFor(StartProgram({"sleep", "30"}), milliseconds(50)));
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child left unreaped";
}

// The last of a repeated key wins; "+" is a space; a "%" without two hex
// digits stays as it is.
TEST(QueryTest, DecodesQueryStrings) {
  std::string all;
  for (const auto& [key, value] : ParseQuery("format=ss&id=ab_12&fragment_id=Fragments(video=5)&flag&&"
                                             "subtitle_id=%2Fm%2fa.srt&name=a+b&id=last&bad=%z1%1z%4")) {
    all += key + "=" + value + " ";
  }
  EXPECT_EQ("bad=%z1%1z%4 flag= format=ss fragment_id=Fragments(video=5) id=last name=a b subtitle_id=/m/a.srt ",
            all);
}

}  // namespace
}  // namespace toolkit
