#include "vte/utils/json_utils.h"

#include <exception>
#include <sstream>

#include "platform/log.h"
#include "platform/whole_file.h"

namespace LibReelhall {
namespace {

constexpr char kLogTag[] = "json_utils";

}  // namespace

bool ReadJsonFromFile(const std::string& path, Json::Value& out) {
  if (path.empty()) return false;
  std::string content;
  if (!librh::ReadWholeFile(path, &content)) return false;
  try {
    std::istringstream stream(content);
    Json::Reader reader;
    return reader.parse(stream, out, true);
  } catch (const std::exception&) {
    return false;
  }
}

bool WriteJsonToFile(const std::string& path, const Json::Value& value) {
  if (path.empty()) {
    librh::log::Write(LOG_ERR, kLogTag, 55, "Bad parameter");
    return false;
  }
  bool written = false;
  try {
    const std::string text = Json::FastWriter().write(value);
    FILE* file = fopen(path.c_str(), "we");
    if (file != nullptr) {
      written = fwrite(text.data(), 1, text.size(), file) == text.size();
      written = (fclose(file) == 0) && written;
    }
  } catch (const std::exception&) {
    written = false;
  }
  if (!written) {
    librh::log::Write(LOG_ERR, kLogTag, 63, "failed to write json file[%s]", path.c_str());
  }
  return written;
}

std::string IntegerText(const Json::Value& value) {
  // jsoncpp keeps what does not fit a signed 64-bit integer as unsigned, and
  // refuses to read it back as signed.
  if (value.type() == Json::intValue) return std::to_string(value.asLargestInt());
  if (value.type() == Json::uintValue) return std::to_string(value.asLargestUInt());
  return "";
}

}  // namespace LibReelhall
