// Running part of a test, or a program, in a real child process with a
// bounded wait (toolkit/child_process.h under the tests' names), and the
// bounded polling the tests wait with.
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

// Forks a child that runs `body` and _exits; returns its pid without waiting
// (-1 on failure). The caller reaps it with WaitForChild.
inline pid_t StartChild(const std::function<int()>& body) { return toolkit::StartFunction(body); }

// Waits at most `timeoutSeconds` for `pid`; stops and reaps it when late.
// Returns its exit status, or -1 when it was late, crashed or is no child.
inline int WaitForChild(pid_t pid, int timeoutSeconds = 30) {
  return toolkit::WaitFor(pid, std::chrono::seconds(timeoutSeconds));
}

// StartChild, then WaitForChild.
inline int RunInChild(const std::function<int()>& body, int timeoutSeconds = 30) {
  return WaitForChild(StartChild(body), timeoutSeconds);
}

// Runs `body` in a child as RunInChild does and hands back the text it
// returned; "<child failed with status N>" when it did not end with 0 in time.
std::string TextFromChild(const std::function<std::string()>& body, int timeoutSeconds = 30);

// Starts `argv` (argv[0] looked up in PATH) with stdin, stdout and stderr on
// /dev/null; `inherited` descriptors stay open in it. The pid, or -1. The
// caller reaps it with WaitForChild.
inline pid_t StartProgram(const std::vector<std::string>& argv,
                          const std::vector<int>& inherited = {}) {
  toolkit::Wiring quiet;
  quiet.out = quiet.err = toolkit::kDevNull;
  quiet.kept = inherited;
  return toolkit::StartProgram(argv, quiet);
}

// StartProgram, then WaitForChild.
inline int RunQuietly(const std::vector<std::string>& argv, int timeoutSeconds) {
  return WaitForChild(StartProgram(argv), timeoutSeconds);
}

// Sends the calling process's standard output and error to the end of the
// file `log`: what the processes it starts print goes there too.
void SendOutputTo(const std::string& log);

// Drops every id of the calling process to the unprivileged "nobody" user
// for good (real, effective and saved). False when that is impossible.
bool DropToUnprivilegedUser();

// Makes the calling process "nobody" as a web server's request is on the
// NAS: real and effective ids nobody's, root kept as the saved ids for the
// library to raise to. False when that is impossible.
bool BecomeWebServerUser();

}  // namespace orvotest
