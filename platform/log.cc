#include "platform/log.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

namespace librh {
namespace log {
namespace {

Sink& TestSink() {
  static Sink sink;
  return sink;
}

}  // namespace

void Write(int priority, const char* tag, int line, const char* format, ...) {
  char message[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(message, sizeof(message), format, args);
  va_end(args);

  Sink& sink = TestSink();
  if (sink) {
    char text[2200];
    snprintf(text, sizeof(text), "%s:%d %s", tag, line, message);
    sink(priority, text);
    return;
  }
  syslog(priority, "%s:%d %s", tag, line, message);
}

void SetSinkForTesting(Sink sink) { TestSink() = std::move(sink); }

}  // namespace log
}  // namespace librh
