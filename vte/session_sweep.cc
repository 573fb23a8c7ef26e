#include "vte/session_sweep.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "platform/volume.h"
#include "vte/session_tree.h"
#include "vte/utils/recorded_process.h"
#include "vte/utils/trans_loading.h"

namespace LibOrvoVTE {
namespace {

constexpr const char* kTypes[] = {"HTTP", "WEBM", "HLS", "SS"};
// The monitor's pid ("HTTP": the transcoder's) and the file every client
// request touches.
constexpr char kMonitorPidFile[] = "monitor.pid";
constexpr char kAccessFile[] = "access_status";

std::vector<std::string> Names(const std::string& dir) {
  std::vector<std::string> names;
  DIR* listing = opendir(dir.c_str());
  if (listing == nullptr) return names;
  while (const dirent* entry = readdir(listing)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(listing);
  return names;
}

time_t Modified(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? info.st_mtime : 0;
}

// Whether this process may remove what `owner` made in a sticky directory.
bool Removable(uid_t owner) { return geteuid() == 0 || owner == geteuid(); }

// The last time anyone used the session: a client's access, or a file the
// session's own processes created or removed, or its creation.
time_t LastUse(const std::string& link, const session::Entry& entry) {
  time_t last = Modified(link);
  if (!entry.dir.empty()) {
    last = std::max({last, Modified(entry.dir), Modified(entry.dir + "/" + kAccessFile)});
  }
  return last;
}

bool Running(const session::Entry& entry) {
  if (entry.dir.empty()) return false;
  // A pid another process has taken since the monitor ended keeps nothing.
  return RecordedProcess(entry.dir + "/" + kMonitorPidFile).IsRunning();
}

void SweepSessionsOf(const std::string& type, unsigned long idleSeconds,
                     std::vector<std::string>* removed) {
  const std::string typeDir = session::TypeDir(type);
  const time_t now = time(nullptr);
  for (const std::string& name : Names(typeDir)) {
    const session::Entry entry = session::Inspect(type, name);
    if (entry.kind != session::Entry::kMade || !Removable(entry.owner)) continue;
    const std::string link = typeDir + "/" + name;
    const time_t last = LastUse(link, entry);
    if (last > now || static_cast<unsigned long>(now - last) < idleSeconds) continue;
    if (Running(entry)) continue;
    // Once: nothing writes into an abandoned session, and what cannot be
    // removed now (not this user's) would only hold up the open.
    if (!session::Remove(type, name, 1)) continue;
    LibReelhall::TransLoading().ReleaseSession(type + "/" + name);
    removed->push_back(link);
  }
}

// Entries of a volume's session tree that no session of the library leads
// to: left by a removal that was cut short, or by a crash. A session's
// link is always made before its volume directory.
void SweepOrphansOf(const std::string& mount, const std::string& type,
                    std::vector<std::string>* removed) {
  const std::string dir = session::VolumeTypeDir(mount, type);
  for (const std::string& name : Names(dir)) {
    const std::string path = dir + "/" + name;
    const session::Entry entry = session::Inspect(type, name);
    if (entry.kind == session::Entry::kMade && entry.dir == path) continue;
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !Removable(info.st_uid)) continue;
    if (session::RemoveTree(path, 1)) removed->push_back(path);
  }
}

}  // namespace

std::vector<std::string> SweepSessions(unsigned long idleSeconds) {
  std::vector<std::string> removed;
  for (const char* type : kTypes) SweepSessionsOf(type, idleSeconds, &removed);
  std::vector<std::string> mounts;
  VolumeMounts(&mounts);
  for (const std::string& mount : mounts) {
    for (const char* type : kTypes) SweepOrphansOf(mount, type, &removed);
  }
  return removed;
}

}  // namespace LibOrvoVTE
