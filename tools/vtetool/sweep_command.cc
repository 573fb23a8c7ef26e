#include <cstdlib>
#include <iostream>

#include "tools/vtetool/command.h"
#include "vte/session_sweep.h"

namespace vtetool {
namespace {

int Sweep(const Arguments& arguments) {
  unsigned long idle = LibOrvoVTE::kAbandonedSeconds;
  if (!arguments.empty()) {
    char* end = nullptr;
    idle = strtoul(arguments[0].c_str(), &end, 10);
    if (arguments[0].empty() || *end != '\0') {
      std::cerr << "vtetool: sweep: the idle time is whole seconds, not " << arguments[0]
                << std::endl;
      return kUsage;
    }
  }
  for (const std::string& path : LibOrvoVTE::SweepSessions(idle)) {
    std::cout << "removed " << path << "\n";
  }
  return kOk;
}

const CommandRegistration kSweep(
    {"sweep", "[idle seconds]",
     "remove sessions with no monitor left and no use for that long (default 900), and volume "
     "directories no session leads to",
     0, 1, Sweep});

}  // namespace
}  // namespace vtetool
