#include "platform/whole_file.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace librh {

bool ReadWholeFile(const std::string& path, std::string* content, size_t limit) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  content->clear();
  char buffer[8192];
  while (content->size() < limit) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int saved = errno;
      close(fd);
      errno = saved;
      return false;
    }
    if (n == 0) break;
    content->append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  return true;
}

}  // namespace librh
