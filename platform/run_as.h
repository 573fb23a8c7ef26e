// Running work with other effective ids, and restoring them afterwards.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace librh {

// Switches the effective uid and gid to the target for its lifetime: saves
// the current effective ids, raises to root, sets the gid then the uid; on
// destruction raises to root and restores the saved gid then uid. A failure to
// switch is logged at LOG_AUTH|LOG_ERR and leaves Entered() false; a failure
// to restore is logged at LOG_AUTH|LOG_CRIT.
class RunAs {
 public:
  RunAs(uid_t uid, gid_t gid, const char* tag, int line);
  ~RunAs();
  RunAs(const RunAs&) = delete;
  RunAs& operator=(const RunAs&) = delete;

  bool Entered() const { return entered_; }
  explicit operator bool() const { return entered_; }

 private:
  uid_t savedUid_;
  gid_t savedGid_;
  const char* tag_;
  int line_;
  bool switched_ = false;
  bool entered_ = false;
};

// Runs `action` with effective uid and gid 0 and returns its result; false
// without running it when the switch to root fails. `name` names the action
// in the log.
bool DoActionAsRoot(const std::string& name, const std::function<bool()>& action);

}  // namespace librh

// Guards the following statement: it runs only when the switch succeeded,
// and the ids are restored when it ends. Needs `kLogTag` in scope.
#define IF_RUN_AS(uid, gid) \
  if (::librh::RunAs orvo_run_as_scope{(uid), (gid), kLogTag, __LINE__}; orvo_run_as_scope)
