// The base of the fragment-based streams (HLS and Smooth Streaming): the
// transcoder writes its output as files in the session directory, and each
// client request for one of them reaches the library through ReadFragment in
// a process of its own.
#pragma once

#include <json/json.h>

#include <string>

#include "vte/liborvovte.h"

namespace LibOrvoVTE {

class AdaptStream : public VTEStream {
 public:
  ~AdaptStream() override;

  // Opens the session: `params` are the client's stream parameters (with the
  // "url" fragments are later requested under), `subtitleParams` and the two
  // strings are each derived kind's own.
  virtual bool Init(const Json::Value& params, const Json::Value& subtitleParams,
                    const std::string& audioId, const std::string& audioFormat) = 0;
  // Makes sure a transcoder will produce `fragmentId`, starting or
  // restarting one when needed.
  virtual bool Transcoding(const std::string& fragmentId) = 0;
  // Waits (bounded) until `fragmentId` is complete; its full path, or "".
  virtual std::string ReadFragment(const std::string& fragmentId) = 0;
  // Stops the monitor and removes the session.
  virtual bool Close();

  // The common part of every Init: the open checks for `audioId` (the
  // client may force the open with "force_open_vte"), then whether
  // `params` carry a non-empty "url". On a failed check the error code
  // stands; a missing url fails without one.
  bool InitAdaptStream(const Json::Value& params, const std::string& audioId);
  // The URL prefix under which fragments are requested, with the client's
  // optional keys; "" when "url", "format", the id or the type is missing.
  std::string GetStreamURL(const Json::Value& params) const;
  // Stops the running monitor and deletes the fragments it produced, before
  // a run at another position starts. False when the deletion failed.
  bool SeekingHandler() const;
  // Whether no client has touched the session ("access_status") for at
  // least `seconds`. A session never accessed never times out.
  bool VTEIsTimeout(unsigned long seconds) const;
  // Whether the session is gone (closed, or swept away): nothing a request
  // waits for will come.
  bool IsClosed() const;

  // Restarts take turns: a request restarting the stream holds the start
  // lock until the monitor it forks has recorded itself. A descriptor
  // holding it, or -1 when another restart kept it for a whole fragment
  // wait; while any copy of it is open, a start is pending.
  int TakeStartLock() const;
  // The lock, taken at once, when a restart once took it and none is
  // pending now; -1 otherwise.
  int TryStartLock() const;
  // Whether a restart once took the lock and none is pending now.
  bool IsStartLockFree() const;
  // Waits (as long as a restart may take) while a restart holds the turn:
  // until its monitor has recorded itself, "monitor.pid" still names the run
  // before it. Creates nothing.
  void WaitForStartTurn() const;
  // Whether `fragmentFile` is missing and no monitor runs to write it: none
  // runs, or the one that runs recorded itself before the newest restart
  // announced its run.
  bool NoRunWillWrite(const std::string& fragmentFile) const;
  // Whether the run the newest restart announced will never write
  // `fragmentFile`: its request died before the monitor recorded itself, or
  // the monitor has died since, and the file is not there.
  bool IsStartAbandoned(const std::string& fragmentFile) const;

 protected:
  AdaptStream(const std::string& streamId, const std::string& format);
};

}  // namespace LibOrvoVTE
