// What /proc tells about other processes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace toolkit {

struct ProcessEntry {
  pid_t pid = 0;
  std::string name;  // the command name, which may hold blanks and parentheses
};

// The live processes (zombies left out) whose parent is `parent`.
std::vector<ProcessEntry> ChildrenOf(pid_t parent);

}  // namespace toolkit
