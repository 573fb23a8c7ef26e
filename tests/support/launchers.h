// The transcoder launchers (nas/launchers) in a machine root, and the
// means to run them and look at what they wrote.
#pragma once

#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/machine_root.h"

namespace orvotest {

// Links the launchers built with the tests into `root` where the library
// expects the NAS's transcoders; a gtest failure when that fails.
void InstallLaunchers(const MachineRoot& root);

// Reads `fd` into `data` until end of file, or until `data` holds at least
// `enough` bytes, for at most `timeoutMs` milliseconds. False when time ran out.
bool ReadPipe(int fd, std::string* data, int timeoutMs, size_t enough = std::string::npos);

// Waits until `path` exists, at most `timeoutMs` milliseconds.
bool WaitForPath(const std::string& path, int timeoutMs);

// "a b c" as {"a", "b", "c"}, and back.
std::vector<std::string> SplitWords(const std::string& line);
std::string JoinWords(const std::vector<std::string>& words);

}  // namespace orvotest
