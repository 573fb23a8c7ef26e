// Directory creation as the NAS platform and the media application do it.
#pragma once

#include <sys/types.h>

#include <string>

// Creates `path` and every missing parent. Each directory it creates gets
// `mode` (not reduced by the umask) and owner uid:gid (ownership is best
// effort when not running as root). An existing directory is success.
// `ignoreExisting` and `createParents` are accepted for the NAS's signature;
// parents are always created. Returns 0 on success, -1 on failure with errno
// set.
int ORVOFSMkdirP(const char* path, int ignoreExisting, int createParents, uid_t uid, gid_t gid,
                 mode_t mode);

namespace librh {
namespace critical {
namespace orvosdk {

// Creates the directory tree `path` for the media application with `mode` on
// every directory it creates. True when `path` is a directory afterwards.
bool ORVOFSMkdirPReelhall(const std::string& path, mode_t mode);

}  // namespace orvosdk
}  // namespace critical
}  // namespace librh
