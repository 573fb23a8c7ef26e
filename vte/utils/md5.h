#pragma once

#include <string>

namespace LibReelhall {

// 32 lower-case hex digits of the MD5 of all of `data`'s bytes.
std::string GetMD5(const std::string& data);

// MD5 of a whole (small) file, read into memory; "" and a log line when it
// cannot be opened or read.
std::string GetFileMD5(const std::string& path);

}  // namespace LibReelhall
