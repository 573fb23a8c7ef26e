// Watching a stream's session and the detached processes it leaves running
// (monitors, transcoders) from a test.
#pragma once

#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"

namespace orvotest {

// A fresh x86 machine root with /volume1 and the transcoder launchers, in
// which this process adopts every detached process a stream starts. Each
// of them must have ended by the end of the case (a bounded wait).
class StreamTest : public MachineRootTest {
 protected:
  void SetUp() override;
  void TearDown() override;
};

// Creates the session `id` of `type` for `media` with profile `profile` of
// the sample profile file `profileFile` ("http.json"); its id or "".
std::string CreateSession(Media media, const std::string& type, const std::string& profileFile,
                          const std::string& profile, const std::string& id);

// The session directory of `type` and `id`, or the file `name` in it.
std::string SessionPath(const std::string& type, const std::string& id,
                        const std::string& name = "");

// Makes a fresh, empty session directory of `type` and `id` as the library
// does (a link to a directory on /volume1 but for "HTTP"); returns its path.
std::string MakeSession(const std::string& type, const std::string& id);

// The pid recorded in `pidFile`, waiting at most 10 seconds for one other
// than `unlike`; -1 when none came.
int RecordedPid(const std::string& pidFile, int unlike = -1);

// Whether `pid` ends (a zombie has ended) within `timeoutMs`.
bool Ends(int pid, int timeoutMs = 10000);

// Detached monitors and transcoders become this process's children when
// their parents exit, to be reaped and counted.
bool BecomeSubreaper();

// Reaps every child within `timeoutSeconds`; false (and the rest killed) when
// some did not end in time.
bool ChildrenEnded(int timeoutSeconds);

// The pids of the load registry's entries under the current machine root;
// not 0, the pid of a session's place while no transcoder of it runs.
std::vector<int> RegistryPids();
bool Registered(int pid);

}  // namespace orvotest
