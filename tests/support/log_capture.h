// The lines the library logs: this process's instead of syslog, or every
// process's in the log file under the machine root, from the capture on.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orvotest {

struct LoggedLine {
  int priority;
  std::string text;  // "tag:line message"
};

class LogCapture {
 public:
  // kLogFile creates the file when missing, which turns it on.
  enum Source { kThisProcess, kLogFile };
  explicit LogCapture(Source source = kThisProcess);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LoggedLine>& Lines() const;

 private:
  Source source_;
  std::string file_;
  off_t start_ = 0;
  mutable std::vector<LoggedLine> lines_;
};

}  // namespace orvotest
