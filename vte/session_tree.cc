#include "vte/session_tree.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "platform/orvofs.h"
#include "platform/run_as.h"
#include "vte/utils/session_path.h"
#include "platform/volume.h"

namespace LibOrvoVTE {
namespace session {
namespace {

constexpr char kLogTag[] = "session_tree";
constexpr char kHttpType[] = "HTTP";
// Below a volume's mount path.
constexpr char kVolumeTree[] = "/@tmp/Reelhall";
constexpr mode_t kStickyMode = 01777;
constexpr long kRemovePauseNs = 100 * 1000 * 1000;

// The path a link holds, "" when it cannot be read.
std::string LinkText(const std::string& path) {
  char text[4096];
  const ssize_t length = readlink(path.c_str(), text, sizeof(text) - 1);
  if (length <= 0) return "";
  return std::string(text, static_cast<size_t>(length));
}

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() > tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// realpath(3) as a string; errno set and "" on failure.
std::string RealPath(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  if (real == nullptr) return "";
  std::string result(real);
  free(real);
  return result;
}

// Where `link` (owned by `owner`) leads when the library made it; the kind
// and directory of Entry.
void InspectLink(const std::string& link, const std::string& type, const std::string& id,
                 uid_t owner, Entry* entry) {
  const std::string target = LinkText(link);
  const std::string tail = std::string(kVolumeTree) + "/" + type + "/" + id;
  if (!EndsWith(target, tail)) return;
  const std::string mount = target.substr(0, target.size() - tail.size());
  if (!IsVolumeMountPath(mount)) return;
  const std::string realMount = RealPath(mount);
  if (realMount.empty()) return;
  const std::string realTarget = RealPath(target);
  if (realTarget.empty()) {
    // The volume directory is gone (or not made yet); the link is still
    // the library's own, to be removed.
    if (errno == ENOENT) entry->kind = Entry::kMade;
    return;
  }
  // Equal only when no component below the mount is a link.
  if (realTarget != realMount + tail) return;
  struct stat info;
  if (lstat(target.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != owner) return;
  entry->kind = Entry::kMade;
  entry->dir = target;
}

// The sticky bit on `dir` and on those of its parents below `base` that
// this process owns, where they lack it.
void MakeSticky(const std::string& base, std::string dir) {
  while (dir.size() > base.size()) {
    struct stat info;
    if (lstat(dir.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == geteuid() &&
        !(info.st_mode & S_ISVTX)) {
      chmod(dir.c_str(), (info.st_mode & 07777) | S_ISVTX);
    }
    dir.erase(dir.rfind('/'));
  }
}

}  // namespace

std::string TypeDir(const std::string& type) {
  return librh::machine::Resolve(librh::machine::kTempRoot) + "/" + type;
}

std::string VolumeTypeDir(const std::string& mount, const std::string& type) {
  return mount + kVolumeTree + "/" + type;
}

bool MakeTypeDir(const std::string& dir) {
  if (!librh::critical::orvosdk::ORVOFSMkdirPReelhall(dir, kStickyMode)) return false;
  // Directories made before the sticky bit, and the parents a type
  // directory hangs from (the temp root, a volume's tree), get it too.
  const size_t volumeTree = dir.find(kVolumeTree);
  const std::string tempRoot = librh::machine::Resolve(librh::machine::kTempRoot);
  MakeSticky(volumeTree != std::string::npos ? dir.substr(0, volumeTree)
                                             : tempRoot.substr(0, tempRoot.rfind('/')),
             dir);
  return true;
}

Entry Inspect(const std::string& type, const std::string& id) {
  Entry entry;
  const std::string path = SessionFilePath(type, id, "");
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) {
    entry.kind = errno == ENOENT ? Entry::kMissing : Entry::kForeign;
    return entry;
  }
  entry.kind = Entry::kForeign;
  entry.owner = info.st_uid;
  if (type == kHttpType) {
    if (S_ISDIR(info.st_mode)) {
      entry.kind = Entry::kMade;
      entry.dir = path;
    }
  } else if (S_ISLNK(info.st_mode)) {
    InspectLink(path, type, id, info.st_uid, &entry);
  }
  return entry;
}

bool TrustedOwner(uid_t owner) { return owner == 0 || owner == geteuid() || owner == getuid(); }

bool Usable(const Entry& entry) {
  return entry.kind == Entry::kMissing || (entry.kind == Entry::kMade && TrustedOwner(entry.owner));
}

bool CreateLink(const std::string& type, const std::string& id, const std::string& volumeDir,
                bool exclusive) {
  const std::string path = SessionFilePath(type, id, "");
  if (exclusive) return symlink(volumeDir.c_str(), path.c_str()) == 0;
  // Made aside under a name of this process, then renamed into place: a
  // rename replaces in one step, where unlink and symlink would let a
  // concurrent creation of the same id fail between the two.
  const std::string aside = TypeDir(type) + "/." + id + "." + std::to_string(getpid()) + ".link";
  unlink(aside.c_str());
  if (symlink(volumeDir.c_str(), aside.c_str()) != 0) return false;
  if (rename(aside.c_str(), path.c_str()) == 0) return true;
  unlink(aside.c_str());
  return false;
}

bool RemoveTree(const std::string& path, int attempts) {
  // The transcoder runs as root and leaves root's files and directories in
  // the session; a process that can raise to root removes them as root (the
  // tree has been checked, and rm follows no link inside it).
  uid_t real = 0, effective = 0, saved = 0;
  getresuid(&real, &effective, &saved);
  const bool raise = effective != 0 && (real == 0 || saved == 0);
  const auto remove = [&path] {
    OLIBCExec(librh::machine::kRemoveProgram, "-rf", path.c_str(), nullptr, nullptr);
  };
  for (int attempt = 0; attempt < attempts; ++attempt) {
    if (raise) {
      IF_RUN_AS(0, 0) { remove(); }
    } else {
      remove();
    }
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 && errno == ENOENT) return true;
    // rm found a file that appeared after it had read the directory.
    struct timespec pause = {0, kRemovePauseNs};
    if (attempt + 1 < attempts) nanosleep(&pause, nullptr);
  }
  return false;
}

bool Remove(const std::string& type, const std::string& id, int attempts) {
  const Entry entry = Inspect(type, id);
  if (entry.kind != Entry::kMade) return false;
  const std::string path = SessionFilePath(type, id, "");
  if (type == kHttpType) return RemoveTree(path, attempts);
  unlink(path.c_str());
  if (entry.dir.empty()) return true;
  // Moved aside first: a transcoder that writes to the volume directory by
  // its own path (Smooth fragments) can then create nothing in it either.
  const std::string aside = entry.dir.substr(0, entry.dir.rfind('/')) + "/." + id + ".removing";
  return RemoveTree(rename(entry.dir.c_str(), aside.c_str()) == 0 ? aside : entry.dir, attempts);
}

}  // namespace session
}  // namespace LibOrvoVTE
