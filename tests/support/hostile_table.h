// The rows of docs/hostile-input.md, which scripts/hostile-table.sh collects.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace orvotest {

// `text` as a table cell's code: in backticks, control characters as \xNN.
inline std::string Printable(const std::string& text) {
  std::string shown = "`";
  for (const unsigned char c : text) {
    char escaped[8] = {static_cast<char>(c), '\0'};
    if (c < 0x20 || c == 0x7f) snprintf(escaped, sizeof(escaped), "\\x%02X", c);
    shown += c == '|' ? "\\|" : escaped;
  }
  return shown + "`";
}

// Appends "| area | input | result |" to $ORVOVTE_HOSTILE_TABLE in one write
// (cases run in parallel) while the running case has not failed.
inline void HostileRow(const std::string& area, const std::string& input,
                       const std::string& result) {
  const char* table = getenv("ORVOVTE_HOSTILE_TABLE");
  if (table == nullptr || *table == '\0' || ::testing::Test::HasFailure()) return;
  const std::string row = "| " + area + " | " + input + " | " + result + " |\n";
  const int fd = open(table, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  EXPECT_EQ(write(fd, row.data(), row.size()), static_cast<ssize_t>(row.size())) << table;
  if (fd >= 0) close(fd);
}

}  // namespace orvotest
