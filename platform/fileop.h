#pragma once

#include <string>

namespace librh {
namespace critical {
namespace fileop {

// Whether `path` names a regular file that can be examined; its size in
// `size` when so (left unchanged otherwise).
bool CheckFileAndGetSize(const std::string& path, long long& size);

}  // namespace fileop
}  // namespace critical
}  // namespace librh
