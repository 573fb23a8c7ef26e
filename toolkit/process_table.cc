#include "toolkit/process_table.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>

#include "toolkit/files.h"

namespace toolkit {

std::vector<ProcessEntry> ChildrenOf(pid_t parent) {
  std::vector<ProcessEntry> children;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return children;
  while (const dirent* entry = readdir(proc)) {
    ProcessEntry child;
    child.pid = atoi(entry->d_name);
    if (child.pid <= 0) continue;
    // The state and the parent follow the command name's last ')'.
    const std::string stat = ReadWholeFile("/proc/" + std::string(entry->d_name) + "/stat");
    const size_t open = stat.find('(');
    const size_t close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) continue;
    char state = 0;
    int ppid = 0;
    if (sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) != 2 || ppid != parent ||
        state == 'Z') {
      continue;
    }
    child.name = stat.substr(open + 1, close - open - 1);
    children.push_back(child);
  }
  closedir(proc);
  return children;
}

}  // namespace toolkit
