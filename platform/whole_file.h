// Reading a whole file through a close-on-exec descriptor (libstdc++'s
// file streams cannot ask for one). Kernel files report no size, so it reads
// to the end rather than stat'ing.
#pragma once

#include <cstddef>
#include <string>

namespace librh {

// Replaces `content` with the file's bytes, stopping once it holds `limit`
// or more. False, with errno set, when the file cannot be opened or read.
bool ReadWholeFile(const std::string& path, std::string* content,
                   size_t limit = std::string::npos);

}  // namespace librh
