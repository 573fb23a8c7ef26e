// Running the stock transcoder as the launcher's only child, for the cases
// where the launcher has work to do while it runs.
//
// The library registered the launcher's pid as the transcoder: the monitors
// signal it and wait for it. So the launcher passes SIGINT and SIGTERM on,
// ends with the child's status, and the child dies with it even when the
// launcher is killed outright (PR_SET_PDEATHSIG).
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace launchers {

// Runs `argv` (argv[0] an absolute path) and calls `tick` about every
// `tickMs` milliseconds while it runs, and once more after it ended. Returns
// the child's wait status, or -1 with the reason in `error` when it could not
// be started.
int Supervise(const std::vector<std::string>& argv, const std::function<void()>& tick,
              int tickMs, std::string* error);

// Ends the calling process the way the child ended: with its exit status, or
// by the same signal.
[[noreturn]] void ExitLike(int waitStatus);

}  // namespace launchers
