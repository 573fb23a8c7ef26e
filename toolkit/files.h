// Reading whole files.
#pragma once

#include <string>

namespace toolkit {

// The whole content of `path`, bytes as they are; "" when it cannot be read.
// Reads to the end, so kernel files (which report no size) come whole.
std::string ReadWholeFile(const std::string& path);

}  // namespace toolkit
