// The one way the system writes a log line: syslog(priority, "%s:%d <message>")
// with the source tag (a source file's base name) and a line number.
#pragma once

#include <syslog.h>

#include <functional>
#include <string>

namespace librh {
namespace log {

// Formats `format` and sends "<tag>:<line> <message>" at `priority`.
void Write(int priority, const char* tag, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Receives each line instead of syslog while installed; the text is the whole
// line as syslog would get it ("tag:line message").
using Sink = std::function<void(int priority, const std::string& text)>;

// Installs `sink` (an empty function restores syslog). Not thread-safe: tests
// install it before the code under test runs.
void SetSinkForTesting(Sink sink);

}  // namespace log
}  // namespace librh

// Logs with the calling file's `kLogTag` and the current line. Where a message
// has a line number that operators already match on, call log::Write with
// that number instead.
#define ORVO_LOG(priority, ...) ::librh::log::Write((priority), kLogTag, __LINE__, __VA_ARGS__)
