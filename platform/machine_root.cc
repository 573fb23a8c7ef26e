#include "platform/machine_root.h"

#include <cstdlib>

namespace librh {
namespace machine {

std::string Root() {
  const char* root = std::getenv(kRootVariable);
  if (root == nullptr) return "";
  std::string prefix(root);
  // A trailing slash would double up with the absolute paths appended to it.
  while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
  return prefix;
}

std::string Resolve(const std::string& machinePath) { return Root() + machinePath; }

}  // namespace machine
}  // namespace librh
