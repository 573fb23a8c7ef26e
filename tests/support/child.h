// Real child processes with bounded waits, and the users a test can become.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "toolkit/child_process.h"

namespace orvotest {

// Polls every 20 ms; the condition's last answer.
bool WaitUntil(const std::function<bool()>& condition, int timeoutMs);

bool Exists(const std::string& path);  // a dangling link does

inline pid_t StartChild(const std::function<int()>& body) { return toolkit::StartFunction(body); }

// -1 when the child was late (then stopped and reaped), crashed or is no child.
inline int WaitForChild(pid_t pid, int timeoutSeconds = 30) {
  return toolkit::WaitFor(pid, std::chrono::seconds(timeoutSeconds));
}

inline int RunInChild(const std::function<int()>& body, int timeoutSeconds = 30) {
  return WaitForChild(StartChild(body), timeoutSeconds);
}

// "<child failed with status N>" when the child did not end with 0 in time.
std::string TextFromChild(const std::function<std::string()>& body, int timeoutSeconds = 30);

// Stdio on /dev/null, `inherited` kept open.
inline pid_t StartProgram(const std::vector<std::string>& argv,
                          const std::vector<int>& inherited = {}) {
  toolkit::Wiring quiet;
  quiet.out = quiet.err = toolkit::kDevNull;
  quiet.kept = inherited;
  return toolkit::StartProgram(argv, quiet);
}

inline int RunQuietly(const std::vector<std::string>& argv, int timeoutSeconds) {
  return WaitForChild(StartProgram(argv), timeoutSeconds);
}

// This process's stdout and stderr, and its children's, appended to `log`.
void SendOutputTo(const std::string& log);

// "nobody" for good; false when impossible.
bool DropToUnprivilegedUser();

// "nobody" with root kept as the saved ids, as a web request on the NAS.
bool BecomeWebServerUser();

}  // namespace orvotest
