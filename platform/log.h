// The one way the system writes a log line: syslog(priority, "%s:%d <message>")
// with the source tag (a source file's base name) and a line number.
//
// Where the machine has no syslog daemon (no socket at /dev/log), syslog
// drops every line. So the line also goes to the library's own log file,
// kLogFile under the machine root, whenever that file exists (an operator or
// a test creates it to turn it on), and under a machine root (the demo's, a
// test's) that has no syslog socket to use, where the file and its
// directory are created. Each line is appended in one write:
//
//   <UTC time, ISO 8601> <pid> <priority name> <tag>:<line> <message>
//
// with every control character of the message written as "#" and three
// octal digits (a newline is "#012"), as syslog daemons do, so that one
// call is one line.
#pragma once

#include <syslog.h>

#include <functional>
#include <string>

namespace librh {
namespace log {

// The library's log file, as the machine knows it (resolved under the root).
inline constexpr char kLogFile[] = "/var/log/liborvovte.log";

// Formats `format` and sends "<tag>:<line> <message>" at `priority`.
void Write(int priority, const char* tag, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Receives each line instead of syslog while installed; the text is the whole
// line as syslog would get it ("tag:line message").
using Sink = std::function<void(int priority, const std::string& text)>;

// Installs `sink` (an empty function restores syslog). Not thread-safe: tests
// install it before the code under test runs.
void SetSinkForTesting(Sink sink);

// The priority's name in a log file line ("err", "warning", ...); its number
// for a name, -1 for an unknown one.
const char* PriorityName(int priority);
int PriorityFromName(const std::string& name);

}  // namespace log
}  // namespace librh

// Logs with the calling file's `kLogTag` and the current line. Where a message
// has a line number that operators already match on, call log::Write with
// that number instead.
#define ORVO_LOG(priority, ...) ::librh::log::Write((priority), kLogTag, __LINE__, __VA_ARGS__)
