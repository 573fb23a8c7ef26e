// JSON documents kept in files. Writes truncate in place: callers sharing a
// file serialise with LibReelhall::Lock.
#pragma once

#include <json/json.h>

#include <string>

namespace LibReelhall {

// Parses the file into `out`; false, silently, when it cannot be opened, and
// the parser's verdict otherwise.
bool ReadJsonFromFile(const std::string& path, Json::Value& out);

// Writes `value` as one line of JSON and a newline; false and a log line on
// failure.
bool WriteJsonToFile(const std::string& path, const Json::Value& value);

// The decimal text of an integer value, signed or unsigned 64-bit alike; ""
// for a value of any other kind.
std::string IntegerText(const Json::Value& value);

}  // namespace LibReelhall
