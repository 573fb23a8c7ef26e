#pragma once

#include <json/json.h>

#include <string>

namespace vtetool {

// Indented JSON on stdout.
void PrintJson(const Json::Value& value);

// "session directory: <dir> [-> <link target>]" and its files with sizes.
void PrintSessionDirectory(const std::string& dir);

}  // namespace vtetool
