#include "toolkit/write_all.h"

#include <errno.h>
#include <unistd.h>

namespace toolkit {

bool WriteAll(int fd, const char* data, size_t size, const volatile sig_atomic_t* stop) {
  while (size > 0) {
    const ssize_t wrote = write(fd, data, size);
    if (wrote < 0 && errno == EINTR && (stop == nullptr || *stop == 0)) continue;
    if (wrote <= 0) return false;
    data += wrote;
    size -= static_cast<size_t>(wrote);
  }
  return true;
}

}  // namespace toolkit
