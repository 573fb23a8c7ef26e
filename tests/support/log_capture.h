// Collects the lines the library logs: those of this process while the
// capture lives, instead of syslog; or, from the library's log file under
// the current machine root, those of every process (monitors, transcoders,
// requests in children) from the capture's start on.
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
  enum Source {
    kThisProcess,
    // Creates the file when missing, which turns it on whatever syslog does.
    kLogFile,
  };
  explicit LogCapture(Source source = kThisProcess);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // From the file: what has been appended so far.
  const std::vector<LoggedLine>& Lines() const;
  // Whether some line logged at `priority` equals `text`.
  bool Has(int priority, const std::string& text) const;
  // Whether some line contains `fragment`.
  bool Contains(const std::string& fragment) const;
  std::string Dump() const;

 private:
  Source source_;
  std::string file_;
  off_t start_ = 0;
  mutable std::vector<LoggedLine> lines_;
};

}  // namespace orvotest
