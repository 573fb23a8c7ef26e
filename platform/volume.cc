#include "platform/volume.h"

#include <glob.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"

namespace {

constexpr char kLogTag[] = "volume";

// The pattern's '*' also takes names such as "volume1-old"; only "volume"
// followed by digits is a mount point.
bool IsVolumeName(const std::string& path) {
  const std::string pattern = librh::machine::kVolumePattern;
  const std::string prefix = pattern.substr(1, pattern.find('[') - 1);  // "volume"
  std::string name = path.substr(path.rfind('/') + 1);
  if (name.compare(0, prefix.size(), prefix) != 0 || name.size() == prefix.size()) return false;
  return name.find_first_not_of("0123456789", prefix.size()) == std::string::npos;
}

// Describes one data volume; false when it is not a directory or cannot be
// examined.
// f_bavail, not f_bfree: the blocks reserved for root are not for a
// stream's output.
unsigned long long AvailableBytes(const struct statvfs& fs) {
  return static_cast<unsigned long long>(fs.f_bavail) * static_cast<unsigned long long>(fs.f_frsize);
}

bool Examine(const std::string& path, VolumeCandidate* volume) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return false;
  struct statvfs fs;
  if (statvfs(path.c_str(), &fs) != 0) {
    ORVO_LOG(LOG_WARNING, "statvfs(%s) failed: %s", path.c_str(), strerror(errno));
    return false;
  }
  volume->mountPath = path;
  volume->availableBytes = AvailableBytes(fs);
  volume->writable = (fs.f_flag & ST_RDONLY) == 0 && access(path.c_str(), W_OK) == 0;
  return true;
}

// Below this a segment of almost any stream no longer fits, and what is left
// belongs to the system's own writers rather than to the next segment.
constexpr unsigned long long kFullBelowBytes = 1024 * 1024;

// A root that cannot be listed is a failure to look, not a machine without
// volumes; a root that does not exist has none.
int GlobError(const char* /*path*/, int error) { return error == ENOENT ? 0 : 1; }

}  // namespace

bool VolumeFull(const std::string& path) {
  struct statvfs fs;
  return statvfs(path.c_str(), &fs) == 0 && AvailableBytes(fs) < kFullBelowBytes;
}

int ChooseVolume(const std::vector<VolumeCandidate>& candidates, unsigned long long neededBytes,
                 VolumeInfo* info, int* status) {
  const VolumeCandidate* best = nullptr;
  for (const VolumeCandidate& candidate : candidates) {
    if (!candidate.writable) continue;
    if (best == nullptr || candidate.availableBytes > best->availableBytes) best = &candidate;
  }
  int bits = 0;
  if (!candidates.empty()) bits |= kVolumeStatusFound;
  if (!candidates.empty() && best == nullptr) bits |= kVolumeStatusReadOnly;
  if (status != nullptr) *status = bits;
  if (best == nullptr || best->availableBytes < neededBytes) return 0;
  info->mountPath = best->mountPath;
  info->availableBytes = best->availableBytes;
  return 1;
}

bool IsVolumeMountPath(const std::string& path) {
  const std::string root = librh::machine::Resolve("/");
  return path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
         path.find('/', root.size()) == std::string::npos && IsVolumeName(path);
}

bool VolumeMounts(std::vector<std::string>* mounts) {
  mounts->clear();
  const std::string pattern = librh::machine::Resolve(librh::machine::kVolumePattern);
  glob_t found;
  memset(&found, 0, sizeof(found));
  int result = glob(pattern.c_str(), GLOB_ONLYDIR, GlobError, &found);
  if (result != 0 && result != GLOB_NOMATCH) {
    globfree(&found);
    ORVO_LOG(LOG_ERR, "glob(%s) failed: %d", pattern.c_str(), result);
    OLIBCErrSet(result == GLOB_NOSPACE ? ENOMEM : EIO);
    return false;
  }
  for (size_t i = 0; i < found.gl_pathc; ++i) {
    if (IsVolumeName(found.gl_pathv[i])) mounts->push_back(found.gl_pathv[i]);
  }
  globfree(&found);
  return true;
}

int VolumeAvailGet(unsigned long long neededBytes, VolumeInfo* info, int* status, int flags) {
  if (info == nullptr) {
    OLIBCErrSet(EINVAL);
    return -1;
  }
  std::vector<std::string> mounts;
  if (!VolumeMounts(&mounts)) return -1;
  std::vector<VolumeCandidate> candidates;
  for (const std::string& mount : mounts) {
    VolumeCandidate volume;
    if (Examine(mount, &volume)) candidates.push_back(volume);
  }
  return ChooseVolume(candidates, neededBytes, info, status);
}
