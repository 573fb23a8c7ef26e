#include "platform/orvofs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/log.h"

namespace {

constexpr char kLogTag[] = "orvofs";

bool IsDirectory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Gives a directory this call just created its mode and owner. mkdir's mode
// is reduced by the umask, so the mode is set again explicitly.
int Adopt(const std::string& dir, uid_t uid, gid_t gid, mode_t mode) {
  if (chmod(dir.c_str(), mode) != 0) return -1;
  if (chown(dir.c_str(), uid, gid) != 0 && geteuid() == 0) return -1;
  return 0;
}

// Creates one directory; an existing directory (perhaps made a moment ago by
// another process) is fine, anything else in its place is not.
int MakeOne(const std::string& dir, uid_t uid, gid_t gid, mode_t mode) {
  if (mkdir(dir.c_str(), mode) == 0) return Adopt(dir, uid, gid, mode);
  if (errno != EEXIST) return -1;
  if (IsDirectory(dir)) return 0;
  errno = ENOTDIR;
  return -1;
}

}  // namespace

int ORVOFSMkdirP(const char* path, int ignoreExisting, int createParents, uid_t uid, gid_t gid,
                 mode_t mode) {
  if (path == nullptr || path[0] == '\0') {
    errno = EINVAL;
    return -1;
  }
  const std::string full(path);
  // Walk the prefixes that end at a component: "/a", "/a/b", ... Empty
  // components ("//", a trailing "/") add nothing.
  size_t pos = 0;
  while (pos < full.size()) {
    size_t slash = full.find('/', pos);
    if (slash == std::string::npos) slash = full.size();
    bool emptyComponent = slash == pos;
    pos = slash + 1;
    if (emptyComponent) continue;
    if (MakeOne(full.substr(0, slash), uid, gid, mode) != 0) return -1;
  }
  return 0;
}

namespace librh {
namespace critical {
namespace orvosdk {

bool ORVOFSMkdirPReelhall(const std::string& path, mode_t mode) {
  // The tree belongs to whoever the process runs as now: (uid_t)-1 and
  // (gid_t)-1 leave the owner chown gives a new directory unchanged.
  if (ORVOFSMkdirP(path.c_str(), 1, 1, static_cast<uid_t>(-1), static_cast<gid_t>(-1), mode) !=
      0) {
    ORVO_LOG(LOG_ERR, "Failed to create [%s]: %s", path.c_str(), strerror(errno));
    return false;
  }
  return IsDirectory(path);
}

}  // namespace orvosdk
}  // namespace critical
}  // namespace librh
