// A stand-in transcoder: writes the descriptors it was started with ("fds 0
// 1 2 ...") and its arguments, a line each, to $ORVOTEST_RECORD (by rename,
// so never half), then lingers ORVOTEST_RECORD_LINGER_MS ms for a test to
// watch it; deaf to SIGINT and SIGTERM, as a hung transcoder, when asked.
#include <fcntl.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

int main(int argc, char** argv) {
  const char* record = getenv("ORVOTEST_RECORD");
  const char* deaf = getenv("ORVOTEST_RECORD_DEAF");
  const char* linger = getenv("ORVOTEST_RECORD_LINGER_MS");
  if (record == nullptr) return 2;
  if (deaf != nullptr && *deaf != '\0') {
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
  }
  // Listed before this program opens anything of its own.
  std::string fds = "fds";
  for (int fd = 0; fd < 1024; ++fd) {
    if (fcntl(fd, F_GETFD) != -1) fds += " " + std::to_string(fd);
  }
  const std::string part = std::string(record) + ".part";
  std::ofstream out(part, std::ios::trunc);
  out << fds << "\n";
  for (int i = 0; i < argc; ++i) out << argv[i] << "\n";
  out.close();
  if (!out || rename(part.c_str(), record) != 0) return 4;
  std::this_thread::sleep_for(std::chrono::milliseconds(linger ? atol(linger) : 0));
  return 0;
}
