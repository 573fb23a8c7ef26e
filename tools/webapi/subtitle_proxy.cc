#include "tools/webapi/subtitle_proxy.h"

#include <chrono>

#include "tools/webapi/media_folder.h"
#include "tools/webapi/response.h"
#include "toolkit/child_process.h"

namespace webapi {
namespace {

// A subtitle window is converted in well under a second.
constexpr std::chrono::seconds kSubtitleTimeout{30};

}  // namespace

int Subtitle(const Query& query) {
  const std::string name = Key(query, "id");
  const std::string path = MediaPath(name);
  if (path.empty()) return Fail(400, "bad_request");
  const std::string program = Env("WEBAPI_SUBTITLE_SERVICE");
  if (program.empty()) return Fail(500, "subtitle_failed");
  std::string text;
  toolkit::Wiring wiring;
  wiring.in = toolkit::kInherit;
  // The service searches beside the video as the NAS's own service would,
  // with root (the video's folder may be closed to the web server's user).
  wiring.rootIfHeld = true;
  const int status = toolkit::RunProgram(
      {program, "--media", name + "=" + path, "--request", Env("REQUEST_URI")}, kSubtitleTimeout,
      &text, wiring);
  if (status != 0) return Fail(404, "subtitle_not_found");
  return Answer(200, "text/vtt; charset=utf-8", text);
}

}  // namespace webapi
