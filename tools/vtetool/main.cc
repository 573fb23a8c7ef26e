// Operator's tool for looking at what the engine sees and doing by hand what
// a web request does. Run `vtetool help` for the commands.
//
// Exit status: 0 on success, 1 when the command failed, 2 on bad usage.
extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <exception>
#include <iostream>
#include <ostream>

#include "tools/vtetool/command.h"

namespace vtetool {
namespace {

std::vector<Command>& Registry() {
  static std::vector<Command> commands;
  return commands;
}

void PrintUsage(std::ostream& out) {
  out << "usage: vtetool <command> [arguments]\n\ncommands:\n";
  for (const Command& command : Commands()) {
    out << "  " << command.name << " " << command.arguments << "\n      " << command.summary
        << "\n";
  }
}

int Usage() {
  PrintUsage(std::cerr);
  return kUsage;
}

}  // namespace

const std::vector<Command>& Commands() { return Registry(); }

CommandRegistration::CommandRegistration(const Command& command) {
  std::vector<Command>& commands = Registry();
  auto place = std::find_if(commands.begin(), commands.end(), [&](const Command& other) {
    return std::string(other.name) > command.name;
  });
  commands.insert(place, command);
}

}  // namespace vtetool

int main(int argc, char** argv) {
  using namespace vtetool;
  if (argc < 2) return Usage();
  const std::string name = argv[1];
  if (name == "help" || name == "-h" || name == "--help") {
    PrintUsage(std::cout);
    return kOk;
  }
  const Arguments arguments(argv + 2, argv + argc);
  for (const Command& command : Commands()) {
    if (name != command.name) continue;
    if (arguments.size() < command.minArguments || arguments.size() > command.maxArguments) {
      return Usage();
    }
    // libavformat's own complaints about a bad file would bury the one line
    // that says what failed.
    av_log_set_level(AV_LOG_QUIET);
    try {
      return command.run(arguments);
    } catch (const std::exception& error) {
      std::cerr << "vtetool: " << name << ": " << error.what() << std::endl;
      return kFailed;
    }
  }
  std::cerr << "vtetool: unknown command '" << name << "'" << std::endl;
  return Usage();
}
