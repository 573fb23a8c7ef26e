#include "toolkit/files.h"

#include <fstream>
#include <iterator>

namespace toolkit {

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace toolkit
