// A stand-in transcoder for tests. Writes the descriptors it was started
// with ("fds 0 1 2 ...") and then its arguments, one per line, to the file
// named by ORVOTEST_RECORD (whole, by rename, so a reader never sees half),
// then lingers ORVOTEST_RECORD_LINGER_MS milliseconds so that a test can
// look at it while it runs; with ORVOTEST_RECORD_DEAF non-empty it lingers
// deaf to SIGINT and SIGTERM, as a hung transcoder would.
#include <dirent.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

int main(int argc, char** argv) {
  const char* record = getenv("ORVOTEST_RECORD");
  const char* deaf = getenv("ORVOTEST_RECORD_DEAF");
  if (record == nullptr) return 2;
  if (deaf != nullptr && *deaf != '\0') {
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
  }
  // Listed before this program opens anything of its own.
  std::vector<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return 3;
  while (const dirent* entry = readdir(dir)) {
    const int fd = atoi(entry->d_name);
    if (entry->d_name[0] != '.' && fd != dirfd(dir)) fds.push_back(fd);
  }
  closedir(dir);
  std::sort(fds.begin(), fds.end());
  const std::string part = std::string(record) + ".part";
  std::ofstream out(part, std::ios::trunc);
  out << "fds";
  for (int fd : fds) out << " " << fd;
  out << "\n";
  for (int i = 0; i < argc; ++i) out << argv[i] << "\n";
  out.close();
  if (!out || rename(part.c_str(), record) != 0) return 4;
  const char* linger = getenv("ORVOTEST_RECORD_LINGER_MS");
  std::this_thread::sleep_for(std::chrono::milliseconds(linger ? atol(linger) : 0));
  return 0;
}
