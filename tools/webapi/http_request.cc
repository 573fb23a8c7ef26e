#include "tools/webapi/http_request.h"

#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <map>
#include <vector>

#include <json/json.h>

namespace webapi {
namespace {

// A run of decimal digits only; strtoll alone would take "-5" or " 5".
bool ParseCount(const std::string& text, long long* value) {
  if (text.empty() || text.size() > 18) return false;
  for (char c : text) {
    if (!isdigit(static_cast<unsigned char>(c))) return false;
  }
  *value = strtoll(text.c_str(), nullptr, 10);
  return true;
}

std::map<std::string, std::string>& Headers() {
  static std::map<std::string, std::string> headers;
  return headers;
}

}  // namespace

void TakeRequestHeaders() {
  std::vector<std::string> names;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string variable = *entry;
    const size_t equals = variable.find('=');
    if (variable.compare(0, 5, "HTTP_") != 0 || equals == std::string::npos) continue;
    names.push_back(variable.substr(0, equals));
    Headers()[names.back()] = variable.substr(equals + 1);
  }
  for (const std::string& name : names) unsetenv(name.c_str());
}

std::string RequestHeader(const std::string& name) {
  const auto found = Headers().find(name);
  return found == Headers().end() ? std::string() : found->second;
}

std::string Env(const char* name) {
  const char* value = getenv(name);
  return value != nullptr ? value : "";
}

std::string Key(const Query& query, const char* name) {
  const auto found = query.find(name);
  return found == query.end() ? std::string() : found->second;
}

ByteRange ResolveRange(const std::string& header, long long length) {
  ByteRange range;
  const std::string prefix = "bytes=";
  if (header.compare(0, prefix.size(), prefix) != 0) return range;
  const std::string spec = header.substr(prefix.size());
  const size_t dash = spec.find('-');
  if (dash == std::string::npos || spec.find(',') != std::string::npos) return range;
  long long first = 0;
  long long last = 0;
  const bool hasFirst = ParseCount(spec.substr(0, dash), &first);
  const bool hasLast = ParseCount(spec.substr(dash + 1), &last);
  if (!hasFirst && dash != 0) return range;
  if (dash + 1 < spec.size() && !hasLast) return range;
  if (!hasFirst) {
    // "bytes=-N": the last N bytes, which needs the length.
    if (!hasLast || length <= 0 || last == 0) return range;
    range.kind = ByteRange::kPart;
    range.first = last >= length ? 0 : length - last;
    range.last = length - 1;
    return range;
  }
  if (hasLast && last < first) return range;
  if (length > 0 && first >= length) {
    range.kind = ByteRange::kUnsatisfiable;
    return range;
  }
  range.kind = ByteRange::kPart;
  range.first = first;
  if (length > 0) {
    range.last = hasLast && last < length ? last : length - 1;
  } else {
    range.last = hasLast ? last : -1;
  }
  return range;
}

std::string ErrorBody(const std::string& code) {
  Json::Value body;
  body["error"] = code;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, body);
}

}  // namespace webapi
