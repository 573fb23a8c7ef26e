#include <json/json.h>

#include <iostream>

#include "tools/vtetool/command.h"
#include "tools/vtetool/output.h"
#include "vte/liborvovte.h"

namespace vtetool {
namespace {

// A view on a session by its id, for the paths in it.
class SessionView : public LibOrvoVTE::VTEStream {
 public:
  SessionView(const std::string& id, const std::string& type) : VTEStream(id, type) {}
};

int Session(const Arguments& arguments) {
  const std::string& path = arguments[0];
  const std::string& type = arguments[1];
  const std::string device = arguments.size() > 4 ? arguments[4] : "";
  const std::string id = LibOrvoVTE::VTEStream::VTE_Init(
      path, type, Json::Value(Json::objectValue), arguments[2], arguments[3], device, 0);
  if (id == LibOrvoVTE::kTransSpaceNotEnough) {
    std::cerr << "vtetool: session: no data volume has room for a " << type << " session ("
              << id << ")" << std::endl;
    return kFailed;
  }
  if (id.empty()) {
    std::cerr << "vtetool: session: could not create a " << type << " session for " << path
              << " with profile " << arguments[3] << " of " << arguments[2]
              << " (the system log says why)" << std::endl;
    return kFailed;
  }
  std::cout << "stream id: " << id << "\n";
  PrintSessionDirectory(SessionView(id, type).GetVTEFileFullPath(""));
  return kOk;
}

const CommandRegistration kSession({"session", "<file> <type> <profile file> <profile> [device]",
                                    "create a stream session and list its directory", 4, 5,
                                    Session});

}  // namespace
}  // namespace vtetool
