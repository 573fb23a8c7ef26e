// The reference web API: a CGI program that the web server runs once per
// request, which is the library's model (process-wide ids, signal flags and
// monitors forked from the request's process). The endpoint is the name the
// program is run under (SCRIPT_NAME's last part):
//
//   files     the playable files of the media folder
//   open      file, type (hls|ss|http|webm), profile, device, audio,
//             audio_format, subtitle ("all" or a subtitle id), hls_header=1:
//             creates and opens a stream; answers {"id","url"} or {"error"}
//   stream    format, id and the keys the playlists, the manifest and the
//             player add: playlists, manifest, segments, fragments, and the
//             progressive bytes (Range requests for http, start=S for webm)
//   close     format, id: ends the stream and whatever it still runs
//   subtitle  WebVTT windows for the subtitle playlists (subtitle-service)
//
// Configuration comes from the server's environment: ORVOVTE_MACHINE_ROOT,
// WEBAPI_MEDIA_DIR, WEBAPI_PROFILE_DIR, WEBAPI_SUBTITLE_SERVICE, WEBAPI_LOG
// (where the request's and its transcoders' output goes) and
// WEBAPI_BREAK_SEGMENTS=1, a debug switch that serves every HLS segment cut
// short, so that a player test can be shown to fail.
//
// Behind the set-user-ID gate (request_gate_main.cc) of an unprivileged
// web server, as on the NAS, the program goes back to the server's user with
// root kept only as its saved uid and gid, so the library raises where it
// must (the probe, the transcoder, the subtitle search).
#include <grp.h>
#include <unistd.h>

#include <cstdio>

#include <string>

#include "tools/webapi/endpoints.h"
#include "tools/webapi/http_request.h"
#include "tools/webapi/response.h"
#include "tools/webapi/subtitle_proxy.h"
#include "toolkit/query.h"

namespace {

// False when root could not be set aside.
bool KeepRootSaved() {
  const std::string user = webapi::Env("WEBAPI_REQUEST_USER");
  if (user.empty() || geteuid() != 0) return true;
  unsigned uid = 0;
  unsigned gid = 0;
  if (sscanf(user.c_str(), "%u:%u", &uid, &gid) != 2) return false;
  unsetenv("WEBAPI_REQUEST_USER");
  return setgroups(0, nullptr) == 0 && setresgid(gid, gid, 0) == 0 && setresuid(uid, uid, 0) == 0;
}

}  // namespace

int main() {
  using namespace webapi;
  if (!KeepRootSaved()) return 1;
  TakeRequestHeaders();
  if (!TakeResponse(Env("WEBAPI_LOG"))) return 1;
  const std::string script = Env("SCRIPT_NAME");
  const std::string endpoint = script.substr(script.rfind('/') + 1);
  const Query query = toolkit::ParseQuery(Env("QUERY_STRING"));
  const std::string method = Env("REQUEST_METHOD");
  // A page going away closes its stream with a beacon, which is a POST.
  if (method != "GET" && method != "HEAD" && !(method == "POST" && endpoint == "close")) {
    return Fail(405, "method_not_allowed");
  }
  if (endpoint == "files") return ListFiles();
  if (endpoint == "open") return OpenStream(query);
  if (endpoint == "stream") return Stream(query);
  if (endpoint == "close") return CloseStream(query);
  if (endpoint == "subtitle") return Subtitle(query);
  return Fail(404, "no_such_endpoint");
}
