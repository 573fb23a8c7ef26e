// Collects the lines the library logs while it lives, instead of syslog.
#pragma once

#include <string>
#include <vector>

namespace orvotest {

struct LoggedLine {
  int priority;
  std::string text;  // "tag:line message"
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LoggedLine>& Lines() const { return lines_; }
  // Whether some line logged at `priority` equals `text`.
  bool Has(int priority, const std::string& text) const;
  // Whether some line contains `fragment`.
  bool Contains(const std::string& fragment) const;
  std::string Dump() const;

 private:
  std::vector<LoggedLine> lines_;
};

}  // namespace orvotest
