#include "vte/utils/session_path.h"

#include "platform/machine_root.h"

namespace LibOrvoVTE {

std::string SessionFilePath(const std::string& type, const std::string& streamId,
                            const std::string& name) {
  if (type.empty() || streamId.empty()) return "";
  std::string path = librh::machine::Resolve(librh::machine::kTempRoot) + "/" + type + "/" + streamId;
  if (!name.empty()) path += "/" + name;
  return path;
}

}  // namespace LibOrvoVTE
