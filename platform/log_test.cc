#include "platform/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "platform/machine_root.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"

namespace {

using LogFileTest = orvotest::MachineRootTest;

// Once the library's log file exists, every line reaches it beside syslog,
// one line per call whatever the message holds: a newline in a file name
// cannot forge a line of its own.
TEST_F(LogFileTest, OneLinePerCallInTheLibraryLogFile) {
  const orvotest::LogCapture capture(orvotest::LogCapture::kLogFile);
  librh::log::Write(LOG_WARNING, "tag", 7, "file [%s]", "a\n2025-01-01T00:00:00Z 1 err x:1 forged");
  std::ostringstream text;
  text << std::ifstream(librh::machine::Resolve(librh::log::kLogFile)).rdbuf();
  EXPECT_THAT(text.str(), ::testing::MatchesRegex(
                              "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z " +
                              std::to_string(getpid()) +
                              " warning tag:7 file \\[a#0122025-01-01T00:00:00Z 1 err x:1 "
                              "forged\\]\n"));
  ASSERT_EQ(capture.Lines().size(), 1u);
  EXPECT_EQ(capture.Lines()[0].priority, LOG_WARNING);
}

}  // namespace
