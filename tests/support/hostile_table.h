// The rows of docs/hostile-input.md, which scripts/hostile-table.sh collects.
#pragma once

#include <string>

namespace orvotest {

// Appends "| area | input | result |" to $ORVOVTE_HOSTILE_TABLE while the
// running case has not failed: a row is what was seen.
void HostileRow(const std::string& area, const std::string& input, const std::string& result);

// `text` with control characters as \xNN and "|" as "\|", for a table cell.
std::string Printable(const std::string& text);

}  // namespace orvotest
