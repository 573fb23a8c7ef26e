#include "platform/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "platform/machine_root.h"
#include "platform/orvofs.h"

namespace librh {
namespace log {
namespace {

// Where syslog(3) sends its lines; not a path of the NAS, so never resolved
// under the machine root.
constexpr char kSyslogSocket[] = "/dev/log";
// Processes of every user (the web API's, root's monitors) append to the
// one file; the first of them creates it.
constexpr mode_t kLogFileMode = 0666;
constexpr mode_t kLogDirMode = 0755;

constexpr struct {
  int priority;
  const char* name;
} kPriorities[] = {{LOG_EMERG, "emerg"},     {LOG_ALERT, "alert"}, {LOG_CRIT, "crit"},
                   {LOG_ERR, "err"},         {LOG_WARNING, "warning"},
                   {LOG_NOTICE, "notice"},   {LOG_INFO, "info"},   {LOG_DEBUG, "debug"}};

Sink& TestSink() {
  static Sink sink;
  return sink;
}

// The file's descriptor for one append, or -1 when the file is not wanted
// or cannot be opened. On the machine itself (no root prefix) the operator
// decides where lines go: the file is used only when it exists.
int OpenLogFile() {
  const std::string path = machine::Resolve(kLogFile);
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY);
  if (fd >= 0 || errno != ENOENT || machine::Root().empty() || access(kSyslogSocket, F_OK) == 0) {
    return fd;
  }
  const std::string dir = path.substr(0, path.rfind('/'));
  if (ORVOFSMkdirP(dir.c_str(), 1, 1, static_cast<uid_t>(-1), static_cast<gid_t>(-1),
                   kLogDirMode) != 0) {
    return -1;
  }
  const int created =
      open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, kLogFileMode);
  // Not reduced by the umask, or other users' processes could not append.
  if (created >= 0) fchmod(created, kLogFileMode);
  return created;
}

void AppendToFile(int priority, const char* tag, int line, const char* message) {
  const int fd = OpenLogFile();
  if (fd < 0) return;
  char stamp[32] = "";
  const time_t now = time(nullptr);
  struct tm utc;
  if (gmtime_r(&now, &utc) != nullptr) strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%SZ", &utc);
  std::string text(stamp);
  text += " " + std::to_string(getpid()) + " " + PriorityName(priority) + " " + tag + ":" +
          std::to_string(line) + " ";
  for (const char* at = message; *at != '\0'; ++at) {
    const unsigned char c = static_cast<unsigned char>(*at);
    if (c < 0x20 || c == 0x7f) {
      char octal[5];
      snprintf(octal, sizeof(octal), "#%03o", c);
      text += octal;
    } else {
      text += static_cast<char>(c);
    }
  }
  text += '\n';
  // One write, so that lines of concurrent processes never interleave.
  ssize_t written;
  do {
    written = write(fd, text.data(), text.size());
  } while (written < 0 && errno == EINTR);
  close(fd);
}

}  // namespace

void Write(int priority, const char* tag, int line, const char* format, ...) {
  const int savedErrno = errno;
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
  } else {
    syslog(priority, "%s:%d %s", tag, line, message);
    AppendToFile(priority, tag, line, message);
  }
  // Callers log and then report errno.
  errno = savedErrno;
}

void SetSinkForTesting(Sink sink) { TestSink() = std::move(sink); }

const char* PriorityName(int priority) {
  for (const auto& entry : kPriorities) {
    if (entry.priority == LOG_PRI(priority)) return entry.name;
  }
  return "err";
}

int PriorityFromName(const std::string& name) {
  for (const auto& entry : kPriorities) {
    if (name == entry.name) return entry.priority;
  }
  return -1;
}

}  // namespace log
}  // namespace librh
