// Running part of a test in a real child process, with a bounded wait.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace orvotest {

// Forks, runs `body` in the child and _exits with its result. Waits at most
// `timeoutSeconds`, then kills the child. Returns the child's exit status, or
// -1 when it was killed, crashed or could not be started.
int RunInChild(const std::function<int()>& body, int timeoutSeconds = 30);

// Forks a child that runs `body` and _exits; returns its pid without waiting
// (-1 on failure). The caller reaps it with WaitForChild.
pid_t StartChild(const std::function<int()>& body);

// Waits at most `timeoutSeconds` for `pid`; kills and reaps it when late.
// Returns its exit status, or -1 as for RunInChild.
int WaitForChild(pid_t pid, int timeoutSeconds = 30);

// Runs `body` in a child as RunInChild does and hands back the text it
// returned; "<child failed with status N>" when it did not end with 0 in time.
std::string TextFromChild(const std::function<std::string()>& body, int timeoutSeconds = 30);

// Drops every id of the calling process to the unprivileged "nobody" user
// for good (real, effective and saved). False when that is impossible.
bool DropToUnprivilegedUser();

}  // namespace orvotest
