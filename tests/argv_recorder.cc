// A stand-in transcoder for tests. Writes the descriptors it was started
// with ("fds 0 1 2 ...") and then its arguments, one per line, to the file
// named by ORVOTEST_RECORD (whole, by rename, so a reader never sees half),
// then lingers ORVOTEST_RECORD_LINGER_MS milliseconds so that a test can
// look at it while it runs; with ORVOTEST_RECORD_DEAF set it lingers deaf to
// SIGINT and SIGTERM, as a hung transcoder would.
#include <dirent.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  const char* record = getenv("ORVOTEST_RECORD");
  if (record == nullptr) return 2;
  if (getenv("ORVOTEST_RECORD_DEAF") != nullptr) {
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
  }

  // Listed before this program opens anything of its own.
  std::vector<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return 3;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const int fd = atoi(entry->d_name);
    if (fd != dirfd(dir)) fds.push_back(fd);
  }
  closedir(dir);
  std::sort(fds.begin(), fds.end());

  const std::string part = std::string(record) + ".part";
  {
    std::ofstream out(part, std::ios::trunc);
    out << "fds";
    for (int fd : fds) out << " " << fd;
    out << "\n";
    for (int i = 0; i < argc; ++i) out << argv[i] << "\n";
    if (!out.flush()) return 4;
  }
  if (rename(part.c_str(), record) != 0) return 5;

  if (const char* linger = getenv("ORVOTEST_RECORD_LINGER_MS")) {
    const long ms = atol(linger);
    struct timespec pause = {ms / 1000, (ms % 1000) * 1000000};
    nanosleep(&pause, nullptr);
  }
  return 0;
}
