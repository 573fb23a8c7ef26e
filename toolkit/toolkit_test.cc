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
      {"exit 3", 10000, 3, ""},
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

  std::string error;
  EXPECT_EQ(-1, StartProgram({"/no/such/program"}, Wiring{}, &error));
  EXPECT_EQ("cannot run /no/such/program: No such file or directory", error);
  EXPECT_EQ(-1, WaitFor(StartProgram({"sleep", "30"}), milliseconds(50)));
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child left unreaped";
}

TEST(QueryTest, PercentDecodingAndQueryStrings) {
  const struct {
    const char* in;
    bool plus;
    const char* out;
  } rows[] = {{"%2Fv%2fMovie.eng.srt", false, "/v/Movie.eng.srt"}, {"a+b", true, "a b"}, {"a+b", false, "a+b"},
              {"%4", false, "%4"}, {"%zz1", false, "%zz1"}};
  for (const auto& row : rows) EXPECT_EQ(row.out, PercentDecode(row.in, row.plus)) << row.in;

  // The last of a repeated key wins; "+" is a space in a query.
  const auto keys = ParseQuery(
      "format=ss&id=ab_12&fragment_id=QualityLevels(1500000)/Fragments(video=50000000)"
      "&subtitle_id=%2Fm%2Fa.eng.srt&flag&&name=a+b&id=last");
  EXPECT_EQ("flag= format=ss fragment_id=QualityLevels(1500000)/Fragments(video=50000000) id=last "
            "name=a b subtitle_id=/m/a.eng.srt ",
            [&] {
              std::string all;
              for (const auto& [key, value] : keys) all += key + "=" + value + " ";
              return all;
            }());
  EXPECT_TRUE(ParseQuery("").empty());
}

}  // namespace
}  // namespace toolkit
