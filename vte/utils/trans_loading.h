// The machine-wide registry of running transcoders. The machine may run only
// a few at once; every process that starts, supervises or stops one (web-API
// requests, monitors, the offline conversion service) records it here.
//
// The registry is one JSON file, which is also its lock file: an array of
// {"PID": int, "hardware_transcode": bool, "offline_conversion": bool}.
// An adaptive stream's entry also names its session ("session": "<type>/
// <id>"): the stream was admitted when it opened, and the entry holds its
// place from then until the session is closed or gone. Its pid is that of
// the session's running transcoder, 0 while none runs.
// Taking a TransLoading locks the file and loads the entries of live
// processes; letting it go writes the entries back and unlocks. Keep its
// scope short: every other process that needs the registry waits meanwhile.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>

#include "vte/utils/lock.h"

namespace LibReelhall {

class TransLoading : public Lock {
 public:
  // Takes the registry (waiting for other holders) and loads its live
  // entries. When the lock cannot be taken the registry is empty and every
  // operation below refuses.
  TransLoading();
  // Writes the entries back, opens the file to every user, and unlocks.
  // Nothing is written when the lock was never held.
  ~TransLoading() override;

  // Whether one more transcoder of that kind may start now. An empty
  // registry admits one of either kind whatever the limits say.
  bool TransEnable(bool hardware);
  bool SoftwareTransEnable() const;
  // False on a platform without a hardware engine.
  bool HardwareTransEnable() const;
  // Whether one more entry of that kind stays within its limit.
  bool CheckTransEnable(bool hardware) const;

  // Adds an entry; duplicates are allowed.
  bool SaveTransPID(int pid, bool hardware, bool offline);
  // Drops every entry of `pid`; a session that still exists keeps its entry,
  // with pid 0. Succeeds when there is none.
  bool RemoveTransPIDLock(int pid);
  // Loads the file, keeping only entries whose process is alive or whose
  // session still exists. An empty or missing file holds no entries; any
  // other unreadable content fails.
  bool ReadAndCheckAlive();

  // Admits session `session` ("<type>/<id>") with an entry of its own,
  // unless it holds one already; false when the limit refuses it.
  bool AdmitSession(const std::string& session, bool hardware);
  // Gives the session's entry to `pid` (its transcoder); false when the
  // session holds none.
  bool TakeSessionEntry(const std::string& session, int pid);
  // Drops the session's entry: the session is gone, and the streams it
  // admitted with it.
  bool ReleaseSession(const std::string& session);
  // Whether an offline conversion holds a transcoder.
  bool IsOffineConverting() const;

 private:
  // Logs the refusal of an operation made without the lock.
  bool HeldOrLog() const;

  Json::Value entries_;
  uint8_t softwareLimit_;
  uint32_t hardwareLimit_;
};

}  // namespace LibReelhall
