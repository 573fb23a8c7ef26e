// Reading what the code under test wrote.
#pragma once

#include <string>

namespace orvotest {

// The whole content of `path`, bytes as they are; "" when it cannot be read.
std::string ReadWholeFile(const std::string& path);

}  // namespace orvotest
