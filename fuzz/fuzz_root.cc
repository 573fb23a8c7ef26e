#include "fuzz/fuzz_root.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "platform/log.h"
#include "platform/machine_root.h"

namespace orvofuzz {

namespace {

std::string CreateRoot() {
  char pattern[] = "/tmp/orvofuzz.XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    perror("mkdtemp");
    abort();
  }
  const std::string root(pattern);
  setenv(librh::machine::kRootVariable, root.c_str(), 1);
  // Millions of runs would fill the root's log file with the lines hostile
  // input makes the library write; nobody reads them.
  librh::log::SetSinkForTesting([](int, const std::string&) {});
  // The registry and sessions live under the temp root.
  std::string dir = root;
  for (const char* part : {"/tmp", "/Reelhall"}) {
    dir += part;
    mkdir(dir.c_str(), 0755);
  }
  return root;
}

}  // namespace

const std::string& MachineRoot() {
  static const std::string root = CreateRoot();
  return root;
}

void WriteBytes(const std::string& path, const uint8_t* data, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    perror(path.c_str());
    abort();
  }
  size_t done = 0;
  while (done < size) {
    const ssize_t n = write(fd, data + done, size - done);
    if (n <= 0) {
      perror(path.c_str());
      abort();
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
}

}  // namespace orvofuzz
