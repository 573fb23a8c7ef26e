// Parts of a test, or programs, in real child processes with bounded waits
// (toolkit/child_process.h under the tests' names), and the users a test
// process can become.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "toolkit/child_process.h"

namespace orvotest {

// Polls `condition` every 20 ms for at most `timeoutMs`; its last answer.
bool WaitUntil(const std::function<bool()>& condition, int timeoutMs);

// Whether the path exists (a dangling link does).
bool Exists(const std::string& path);

// A child running `body`, unwaited; -1 on failure.
inline pid_t StartChild(const std::function<int()>& body) { return toolkit::StartFunction(body); }

// The child's exit status; -1 when it was late (then stopped and reaped),
// crashed or is no child.
inline int WaitForChild(pid_t pid, int timeoutSeconds = 30) {
  return toolkit::WaitFor(pid, std::chrono::seconds(timeoutSeconds));
}

inline int RunInChild(const std::function<int()>& body, int timeoutSeconds = 30) {
  return WaitForChild(StartChild(body), timeoutSeconds);
}

// The text `body` returned in a child; "<child failed with status N>" when
// the child did not end with 0 in time.
std::string TextFromChild(const std::function<std::string()>& body, int timeoutSeconds = 30);

// `argv` started with stdio on /dev/null, `inherited` kept open; its pid, or -1.
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

// Appends this process's stdout and stderr, and its children's, to `log`.
void SendOutputTo(const std::string& log);

// Every id of this process "nobody"'s for good; false when impossible.
bool DropToUnprivilegedUser();

// This process "nobody" as a web server's request is on the NAS: root kept
// as the saved ids for the library to raise to; false when impossible.
bool BecomeWebServerUser();

}  // namespace orvotest
