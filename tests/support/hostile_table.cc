#include "tests/support/hostile_table.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace orvotest {

std::string Printable(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      shown += "\\n";
    } else if (c == '\r') {
      shown += "\\r";
    } else if (c == '\t') {
      shown += "\\t";
    } else if (c == '|') {
      shown += "\\|";
    } else if (byte < 0x20 || byte == 0x7f) {
      char hex[8];
      snprintf(hex, sizeof(hex), "\\x%02X", byte);
      shown += hex;
    } else {
      shown += c;
    }
  }
  return shown;
}

void HostileRow(const std::string& area, const std::string& input, const std::string& result) {
  const char* table = getenv("ORVOVTE_HOSTILE_TABLE");
  if (table == nullptr || *table == '\0') return;
  const std::string row = "| " + area + " | " + input + " | " + result + " |\n";
  // One append per row: cases run in parallel processes.
  const int fd = open(table, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  const ssize_t written = write(fd, row.data(), row.size());
  (void)written;
  close(fd);
}

}  // namespace orvotest
