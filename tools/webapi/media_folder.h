// The media folder the web API plays from (WEBAPI_MEDIA_DIR).
#pragma once

#include <string>
#include <vector>

namespace webapi {

// The path of the entry `name`; "" for a name that would leave the folder.
std::string MediaPath(const std::string& name);

// The names of its playable files, sorted.
std::vector<std::string> PlayableFiles();

}  // namespace webapi
