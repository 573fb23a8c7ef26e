// The rows of docs/hostile-input.md: each hostile-input, fault or load test
// reports what it tried and what came of it, and scripts/hostile-table.sh
// collects the rows into the document.
#pragma once

#include <string>

namespace orvotest {

// Appends "| area | input | result |" to the file named by
// ORVOVTE_HOSTILE_TABLE (nothing without it). `result` is what the test saw,
// so a row is only written after the test's own checks of it.
void HostileRow(const std::string& area, const std::string& input, const std::string& result);

// `text` with control characters shown as \n, \r, \t or \xNN and "|" as
// "\|", for a table cell.
std::string Printable(const std::string& text);

}  // namespace orvotest
