#include "tools/webapi/media_folder.h"

#include <dirent.h>
#include <string.h>

#include <algorithm>

#include "tools/webapi/http_request.h"

namespace webapi {
namespace {

bool IsPlayableName(const std::string& name) {
  static const char* const kExtensions[] = {".mp4", ".mkv", ".m4v", ".mov", ".ts",
                                            ".avi", ".webm", ".wmv", ".flv"};
  for (const char* extension : kExtensions) {
    const size_t length = strlen(extension);
    if (name.size() > length && name.compare(name.size() - length, length, extension) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::string MediaPath(const std::string& name) {
  if (name.empty() || name[0] == '.' || name.find('/') != std::string::npos) return "";
  return Env("WEBAPI_MEDIA_DIR") + "/" + name;
}

std::vector<std::string> PlayableFiles() {
  std::vector<std::string> names;
  if (DIR* dir = opendir(Env("WEBAPI_MEDIA_DIR").c_str())) {
    while (const dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.' && IsPlayableName(entry->d_name)) names.push_back(entry->d_name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace webapi
