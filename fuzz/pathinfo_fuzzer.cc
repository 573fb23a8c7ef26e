// The parts of a client-named path: the subtitle service builds file names
// from them.
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "subtitle/subtitle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path(reinterpret_cast<const char*>(data), size);
  const Json::Value info = librh::subtitle::PathInfo(path);
  for (const char* key : {"dirname", "basename", "extension", "language", "filename"}) {
    if (!info[key].isString()) abort();
  }
  const std::string dirname = info["dirname"].asString();
  const std::string basename = info["basename"].asString();
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    if (dirname != path || basename != path) abort();
  } else if (dirname + "/" + basename != path || basename.find('/') != std::string::npos) {
    abort();
  }
  return 0;
}
