#include "platform/fileop.h"

#include <sys/stat.h>

namespace librh {
namespace critical {
namespace fileop {

bool CheckFileAndGetSize(const std::string& path, long long& size) {
  struct stat info;
  if (path.empty() || stat(path.c_str(), &info) != 0) return false;
  // A directory or a device has no size a reader could use.
  if (!S_ISREG(info.st_mode)) return false;
  size = static_cast<long long>(info.st_size);
  return true;
}

}  // namespace fileop
}  // namespace critical
}  // namespace librh
