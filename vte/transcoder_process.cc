// Starting a session's ffmpeg transcoder, recording the monitor that
// supervises it, and closing the session.
#include "vte/transcoder_process.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>

#include "decisions/argument_helper.h"
#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "platform/run_as.h"
#include "vte/liborvovte.h"
#include "vte/session_tree.h"
#include "vte/utils/recorded_process.h"
#include "vte/utils/trans_loading.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

constexpr char kLogTag[] = "liborvovte";

constexpr char kMonitorPidFile[] = "monitor.pid";
constexpr char kMonitorLockFile[] = "filelock";
// Web-API processes of other users replace the monitor too.
constexpr mode_t kMonitorLockMode = 0660;
// A replaced monitor gets this long to stop its children and go.
constexpr int kOldMonitorWaitMs = 5000;

// The platform's hardware decoding path, which is left off for flv sources
// and for rotated pictures.
constexpr char kHardwareDecodeOption[] = "-prefer_smd";
constexpr char kNoHardwareDecodeContainer[] = "flv";

// Only reached where close_range cannot set the flag (kernels before 5.11);
// a huge limit would make the loop take seconds.
unsigned int HighestDescriptor() {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 4096;
  return limit.rlim_cur > 65536 ? 65536U : static_cast<unsigned int>(limit.rlim_cur);
}

void CloseOnExec(unsigned int first, unsigned int last) {
  if (first > last) return;
  if (close_range(first, last, CLOSE_RANGE_CLOEXEC) == 0) return;
  const unsigned int top = std::min(last, HighestDescriptor());
  for (unsigned int fd = first; fd <= top; ++fd) {
    const int flags = fcntl(static_cast<int>(fd), F_GETFD);
    if (flags >= 0 && !(flags & FD_CLOEXEC)) fcntl(static_cast<int>(fd), F_SETFD, flags | FD_CLOEXEC);
  }
}

// Marked rather than closed: if the exec fails, the caller still has working
// descriptors. The passed ones are made inheritable whatever their flag.
void LimitInheritance(std::vector<int> passed) {
  passed.erase(std::remove_if(passed.begin(), passed.end(), [](int fd) { return fd <= 2; }),
               passed.end());
  std::sort(passed.begin(), passed.end());
  unsigned int first = 3;
  for (int fd : passed) {
    const unsigned int kept = static_cast<unsigned int>(fd);
    if (kept < first) continue;  // listed twice
    if (kept > first) CloseOnExec(first, kept - 1);
    const int flags = fcntl(fd, F_GETFD);
    if (flags >= 0) fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC);
    first = kept + 1;
  }
  CloseOnExec(first, ~0U);
}

// The monitor this process, a transcoder child, must die with; 0 in every
// other process.
pid_t gMonitor = 0;

void ArmDeathWithMonitor() {
  if (gMonitor <= 0) return;
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  // The monitor may have died before the signal was armed.
  if (getppid() != gMonitor) _exit(1);
}

// A child raised to root for its exec becomes root through and through:
// the kernel forgets the death signal at an exec whose real and effective
// users differ, and libraries the transcoder loads (libgcrypt, through
// FFmpeg's network protocols) give up every root id of such a process at
// load time. The death signal is armed last.
void BecomeRootForExec() {
  if (geteuid() == 0 && (setresgid(0, 0, 0) != 0 || setresuid(0, 0, 0) != 0)) _exit(1);
  ArmDeathWithMonitor();
}

// The session's "filelock", opened and locked with `operation` (LOCK_EX,
// or LOCK_EX | LOCK_NB); -1 when it cannot be had.
int LockMonitorRecord(const std::string& lockPath, int flags, int operation) {
  if (lockPath.empty()) return -1;
  const int fd = open(lockPath.c_str(), flags | O_CLOEXEC, kMonitorLockMode);
  if (fd < 0) return -1;
  int locked;
  do {
    locked = flock(fd, operation);
  } while (locked != 0 && errno == EINTR);
  if (locked == 0) return fd;
  close(fd);
  return -1;
}

}  // namespace

namespace transcoder {

bool Register(bool hardware, const std::string& session) {
  LibReelhall::TransLoading registry;
  // The exec keeps the pid, so this becomes the transcoder's entry.
  if (registry.TakeSessionEntry(session, getpid())) return true;
  if (!registry.TransEnable(hardware)) {
    ORVO_LOG(LOG_ERR, "VTE - TransEnable Failed.");
    return false;
  }
  const int pid = getpid();
  if (!registry.SaveTransPID(pid, hardware, false)) {
    ORVO_LOG(LOG_ERR, "VTE - Fail SaveTransPID [%d].", pid);
    return false;
  }
  return true;
}

int PassedDescriptor(const std::string& word, const std::string& prefix) {
  if (word.size() <= prefix.size() || word.compare(0, prefix.size(), prefix) != 0) return -1;
  const std::string digits = word.substr(prefix.size());
  if (digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos) return -1;
  return std::atoi(digits.c_str());
}

bool ExecAsRoot(const std::string& action, const std::vector<std::string>& argv,
                const std::vector<int>& passed) {
  if (argv.empty()) return false;
  std::vector<char*> pointers;
  pointers.reserve(argv.size() + 1);
  for (const std::string& word : argv) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  LimitInheritance(passed);
  return librh::DoActionAsRoot(action, [&pointers] {
    BecomeRootForExec();
    execvp(pointers[0], pointers.data());
    return false;
  });
}

void DetachFromCaller(int kept) {
  // The log's socket is among the descriptors closed below; closing it the
  // log's own way lets the next line reopen it instead of writing to
  // whatever reuses its number.
  closelog();
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null >= 0) {
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
  }
  for (int fd = STDERR_FILENO + 1; fd < kept; ++fd) close(fd);
  const int above = kept > STDERR_FILENO ? kept + 1 : STDERR_FILENO + 1;
  if (close_range(static_cast<unsigned int>(above), ~0U, 0) != 0) {
    // Kernels before 5.9 lack close_range.
    const long limit = sysconf(_SC_OPEN_MAX);
    for (long fd = above; fd < (limit > 0 && limit < 65536 ? limit : 65536); ++fd) {
      close(static_cast<int>(fd));
    }
  }
}


void DieWithMonitor(pid_t monitor) {
  gMonitor = monitor;
  ArmDeathWithMonitor();
}

void ForgetMonitor(const VTEStream& stream) {
  // Never waited for: a request that holds the lock may be waiting for
  // this very process to end, and it replaces the record or, once this
  // process has ended, removes it itself.
  const int fd =
      LockMonitorRecord(stream.GetVTEFileFullPath(kMonitorLockFile), O_RDONLY, LOCK_EX | LOCK_NB);
  if (fd < 0) return;
  const std::string pidPath = stream.GetVTEFileFullPath(kMonitorPidFile);
  const RecordedProcess recorded(pidPath);
  if (recorded.IsRecorded() && recorded.Pid() == getpid()) RemoveProcessRecord(pidPath);
  flock(fd, LOCK_UN);
  close(fd);
}

}  // namespace transcoder

bool VTEStream::ExecuteTranscoding(long seekSeconds, bool copyTimestamps,
                                   const std::vector<std::string>& arguments,
                                   const std::string& output, const std::string& program) {
  try {
    if (type_.empty() || streamId_.empty() || program.empty() || profileArgs_.empty() ||
        seekSeconds < 0) {
      return false;
    }
    const std::string input = metadata_.GetFilePath();
    if (input.empty()) return false;

    // Built in full before the registry is touched, so a refusal below
    // leaves no entry behind.
    std::vector<std::string> argv = {program, "-ss", std::to_string(seekSeconds)};
    if (hardware_ && metadata_.GetContainer() != kNoHardwareDecodeContainer &&
        GetMetaVideoRotate() == 0) {
      argv.push_back(kHardwareDecodeOption);
    }
    if (copyTimestamps) argv.push_back("-copyts");
    argv.push_back("-i");
    argv.push_back(input);
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const std::vector<std::string> map =
        ArgumentHelper(metadata_).GetVideoAudioMap(GetRequestAudioID());
    // HLS segments need both streams chosen explicitly; other outputs can
    // live with ffmpeg's default choice.
    if (map.empty() && type_ == "HLS") {
      ORVO_LOG(LOG_ERR, "VTE - Fail GetVideoAudioMap.");
      return false;
    }
    argv.insert(argv.end(), map.begin(), map.end());
    argv.push_back(output);

    if (!remux_ && !transcoder::Register(hardware_, type_ + "/" + streamId_)) return false;
    return transcoder::ExecAsRoot("Execute FFmpeg", argv,
                                  {transcoder::PassedDescriptor(output, "pipe:")});
  } catch (const std::exception&) {
    return false;
  }
}

bool VTEStream::SaveMonitorPid(int pid, bool waitForOld) const {
  const int fd =
      LockMonitorRecord(GetVTEFileFullPath(kMonitorLockFile), O_RDONLY | O_CREAT, LOCK_EX);
  if (fd < 0) return false;

  const std::string pidPath = GetVTEFileFullPath(kMonitorPidFile);
  // A pid that another process has taken since the recorded one ended is
  // left alone.
  const RecordedProcess old(pidPath);
  old.Signal(SIGTERM);
  if (pid > 0) RecordProcess(pidPath, pid);
  bool oldEnded = !old.IsRunning();
  if (waitForOld && old.IsRecorded()) oldEnded = old.WaitForEnd(kOldMonitorWaitMs);
  // Nobody replaces a monitor that has ended (or a record naming no
  // process of ours): its record goes, as the monitor could not remove it
  // while this held the lock.
  if (pid <= 0 && oldEnded) RemoveProcessRecord(pidPath);

  flock(fd, LOCK_UN);
  close(fd);
  return true;
}

bool VTEStream::IsFFmpegRun() const {
  if (streamId_.empty() || type_.empty()) {
    ORVO_LOG(LOG_ERR, "Bad parameter");
    return false;
  }
  return RecordedProcess(GetVTEFileFullPath(kMonitorPidFile)).IsRunning();
}

bool VTEStream::CloseStreamCommon() {
  if (streamId_.empty() || type_.empty()) return false;
  if (VerifyFileExist(GetVTEFileFullPath(""), 0)) {
    // The monitor stops its own children; nobody waits for it here.
    SaveMonitorPid(0, false);
    RemoveTransDir();
  }
  return true;
}

bool VTEStream::RemoveTransDir() {
  if (streamId_.empty() || type_.empty()) return false;
  // An "HTTP" session is a plain directory, which this leaves in place.
  if (type_ == "HTTP" || GetVTEFileFullPath("").empty()) return true;
  session::Remove(type_, streamId_);
  // Its place in the registry goes with it.
  LibReelhall::TransLoading().ReleaseSession(type_ + "/" + streamId_);
  return true;
}

}  // namespace LibOrvoVTE
