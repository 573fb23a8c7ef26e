// vtetool's commands. Each command file registers its rows with a static
// CommandRegistration, so adding a command touches no other file.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vtetool {

using Arguments = std::vector<std::string>;

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Command {
  const char* name;
  const char* arguments;  // for the usage text
  const char* summary;
  size_t minArguments;
  size_t maxArguments;
  int (*run)(const Arguments& arguments);
};

// Every registered command, sorted by name.
const std::vector<Command>& Commands();

struct CommandRegistration {
  explicit CommandRegistration(const Command& command);
};

}  // namespace vtetool
