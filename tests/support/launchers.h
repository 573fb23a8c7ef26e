// The transcoder launchers in a machine root, and what they read and write.
#pragma once

#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/machine_root.h"

namespace orvotest {

// Where the library expects the NAS's transcoders; a gtest failure otherwise.
void InstallLaunchers(const MachineRoot& root);

// "a b c" as {"a", "b", "c"}, and back.
std::vector<std::string> SplitWords(const std::string& line);
std::string JoinWords(const std::vector<std::string>& words);

}  // namespace orvotest
