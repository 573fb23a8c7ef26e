// Processes found again through a pid file by other processes, later. A pid
// alone does not name a process for long: once the recorded one has ended,
// the kernel hands its number to the next process it starts. So a record
// keeps, beside the pid file (whose text stays the bare decimal pid that
// other readers expect), the process's identity: the boot and the moment
// the process started. Only a process with that identity is ever taken for
// the recorded one, signalled or waited for.
#pragma once

#include <sys/types.h>

#include <string>

namespace LibOrvoVTE {

// Writes `pid` to `pidFile` and its identity to the file beside it (see
// IdentityFileOf). False when either cannot be written; a pid whose
// process is already gone is written without an identity, so it is never
// taken for a running process.
bool RecordProcess(const std::string& pidFile, pid_t pid);

// Removes the record in `pidFile` (and its identity file).
void RemoveProcessRecord(const std::string& pidFile);

// "monitor.pid" keeps its identity in "monitor.start"; any other name gets
// ".start" appended.
std::string IdentityFileOf(const std::string& pidFile);

// The process recorded in a pid file, held (through a pidfd where the
// kernel has them) from construction on, so that the checks below and a
// signal reach the same process even if it ends in between.
class RecordedProcess {
 public:
  explicit RecordedProcess(const std::string& pidFile);
  ~RecordedProcess();
  RecordedProcess(const RecordedProcess&) = delete;
  RecordedProcess& operator=(const RecordedProcess&) = delete;

  // The pid in the file, -1 when it holds none.
  pid_t Pid() const { return pid_; }
  // Whether the process with that pid is the one recorded (it may have
  // ended since; a pid reused by another process is never the recorded one).
  bool IsRecorded() const { return recorded_; }
  // Whether the recorded process still runs (a zombie has ended).
  bool IsRunning() const;
  // Sends `signal` to the recorded process; false, sending nothing, when the
  // pid is not the recorded process's any more or it has ended.
  bool Signal(int signal) const;
  // Waits at most `timeoutMs` for the recorded process to end, noticing
  // the end at once (within tens of milliseconds without pidfds). True when
  // it has ended, or when there is no recorded process to wait for.
  bool WaitForEnd(int timeoutMs) const;

 private:
  pid_t pid_ = -1;
  bool recorded_ = false;
  int pidfd_ = -1;  // -1 when not recorded, or the kernel has no pidfds
  std::string identity_;
};

}  // namespace LibOrvoVTE
