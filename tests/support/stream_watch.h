// A stream's session and the processes it detaches, watched from a test.
#pragma once

#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"

namespace orvotest {

// A machine root with the launchers, in which this process adopts what a
// stream detaches; a case fails when one of them outlives it.
class StreamTest : public MachineRootTest {
 protected:
  void SetUp() override;
  void TearDown() override;
};

// Its id, or "". `profileFile` is a sample profile file ("http.json").
std::string CreateSession(Media media, const std::string& type, const std::string& profileFile,
                          const std::string& profile, const std::string& id);

std::string SessionPath(const std::string& type, const std::string& id,
                        const std::string& name = "");

// A fresh, empty session directory as the library makes it (a link to one on
// /volume1 but for "HTTP").
std::string MakeSession(const std::string& type, const std::string& id);

// The pid in `pidFile` once it is not `unlike` (within 10 s), or -1.
int RecordedPid(const std::string& pidFile, int unlike = -1);

// A zombie has ended.
bool Ends(int pid, int timeoutMs = 10000);

// Detached monitors and transcoders become this process's, to be reaped.
bool BecomeSubreaper();

// False, and the rest killed, when some child did not end in time.
bool ChildrenEnded(int timeoutSeconds);

// Not 0, the pid of a session's place while none of its transcoders runs.
std::vector<int> RegistryPids();
bool Registered(int pid);

}  // namespace orvotest
