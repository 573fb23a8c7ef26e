#include "platform/run_as.h"

#include <unistd.h>

#include "platform/log.h"

namespace librh {
namespace {

constexpr char kLogTag[] = "run_as";

// Setting the effective ids of a process that is not root needs root first.
bool SetEffectiveIds(uid_t uid, gid_t gid) {
  if (geteuid() != 0 && setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)) != 0) {
    return false;
  }
  if (setresgid(static_cast<gid_t>(-1), gid, static_cast<gid_t>(-1)) != 0) return false;
  if (setresuid(static_cast<uid_t>(-1), uid, static_cast<uid_t>(-1)) != 0) return false;
  return true;
}

}  // namespace

RunAs::RunAs(uid_t uid, gid_t gid, const char* tag, int line)
    : savedUid_(geteuid()), savedGid_(getegid()), tag_(tag), line_(line) {
  if (savedUid_ == uid && savedGid_ == gid) {
    entered_ = true;
    return;
  }
  switched_ = true;
  entered_ = SetEffectiveIds(uid, gid);
  if (!entered_) {
    log::Write(LOG_AUTH | LOG_ERR, tag_, line_, "ERROR: %s(%d, %d)", "IF_RUN_AS",
               static_cast<int>(uid), static_cast<int>(gid));
  }
}

RunAs::~RunAs() {
  if (!switched_) return;
  if (geteuid() == savedUid_ && getegid() == savedGid_) return;
  if (!SetEffectiveIds(savedUid_, savedGid_)) {
    log::Write(LOG_AUTH | LOG_CRIT, tag_, line_, "ERROR: ~%s(%d, %d)", "IF_RUN_AS",
               static_cast<int>(savedUid_), static_cast<int>(savedGid_));
  }
}

bool DoActionAsRoot(const std::string& name, const std::function<bool()>& action) {
  IF_RUN_AS(0, 0) { return action(); }
  log::Write(LOG_ERR, kLogTag, __LINE__, "failed to run [%s] as root", name.c_str());
  return false;
}

}  // namespace librh
