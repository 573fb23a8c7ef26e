#include "tools/webapi/response.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "tools/webapi/http_request.h"
#include "toolkit/write_all.h"

namespace webapi {
namespace {

int gResponseFd = -1;
volatile sig_atomic_t gStop = 0;

void OnStop(int) { gStop = 1; }

}  // namespace

bool TakeResponse(const std::string& log) {
  gResponseFd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (gResponseFd < 0) return false;
  const int devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int logFd =
      log.empty() ? -1 : open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (devnull >= 0) {
    dup2(devnull, STDIN_FILENO);
    dup2(devnull, STDOUT_FILENO);
    dup2(logFd >= 0 ? logFd : devnull, STDERR_FILENO);
  }
  struct sigaction stop = {};
  stop.sa_handler = OnStop;
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);
  sigaction(SIGHUP, &stop, nullptr);
  return true;
}

int ResponseDescriptor() { return gResponseFd; }

bool Stopped() { return gStop != 0; }

bool WriteAll(const char* data, size_t size) {
  return toolkit::WriteAll(gResponseFd, data, size, &gStop);
}

bool WriteAll(const std::string& text) { return WriteAll(text.data(), text.size()); }

void Head(int status, const std::string& type, long long length,
          const std::vector<std::string>& extra) {
  std::string head = "Status: " + std::to_string(status) + "\r\nContent-Type: " + type +
                     "\r\nCache-Control: no-store\r\n";
  if (length >= 0) head += "Content-Length: " + std::to_string(length) + "\r\n";
  for (const std::string& line : extra) head += line + "\r\n";
  WriteAll(head + "\r\n");
}

int Answer(int status, const std::string& type, const std::string& body) {
  Head(status, type, static_cast<long long>(body.size()));
  WriteAll(body);
  return 0;
}

int AnswerJson(const Json::Value& body) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Answer(200, "application/json", Json::writeString(writer, body) + "\n");
}

int Fail(int status, const std::string& code) {
  return Answer(status, "application/json", ErrorBody(code) + "\n");
}

int SendFile(const std::string& path, const std::string& type, size_t limit) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info;
  if (fd < 0 || fstat(fd, &info) != 0) {
    if (fd >= 0) close(fd);
    return Fail(404, "file_not_found");
  }
  size_t left = static_cast<size_t>(info.st_size);
  if (limit > 0) left = std::min(left, limit);
  Head(200, type, static_cast<long long>(left));
  char buffer[65536];
  while (left > 0 && !gStop) {
    const ssize_t n = read(fd, buffer, std::min(left, sizeof(buffer)));
    if (n <= 0 || !WriteAll(buffer, static_cast<size_t>(n))) break;
    left -= static_cast<size_t>(n);
  }
  close(fd);
  return 0;
}

}  // namespace webapi
