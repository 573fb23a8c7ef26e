// Where a session keeps its files. Every path into a session is built here.
#pragma once

#include <string>

namespace LibOrvoVTE {

// <temp root>/<type>/<stream id>, and the file `name` in it when `name` is
// not empty; "" when the type or the id is empty.
std::string SessionFilePath(const std::string& type, const std::string& streamId,
                            const std::string& name);

}  // namespace LibOrvoVTE
