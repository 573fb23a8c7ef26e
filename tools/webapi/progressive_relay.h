// Progressive streams (HTTP and WebM). A stream opened here is an anchor:
// its session holds the probed file and the profile. Every data request
// plays a run in the anchor's one run session ("<id>_run"); a new request (a
// seek) replaces the run still going there, and the library gives the
// replaced run's transcoding slot back before it checks the new one. The
// request whose run was not replaced closes it when the client has what it
// asked for or goes away.
#pragma once

#include <string>

#include "tools/webapi/http_request.h"

namespace webapi {

// Makes the checks a run makes once on the anchor `id` of `type`, so that a
// stream that cannot play says so when it is opened. False with the
// library's error code ("" when it gave none) in `code`.
bool CheckAnchor(const std::string& type, const std::string& id, const std::string& audioId,
                 std::string* code);

// Plays a run of the anchor `id` to the client: Range requests for "HTTP",
// "start" (seconds) for "WEBM", "audio" for both. The status line goes out
// only once the transcoder has written its first bytes; a run that cannot
// start or whose transcoder ends or stays silent before that is answered
// with an error code, which "last_error=1" asks for afterwards (a video
// element does not show an error body). An "HTTP" answer always has the
// length it announces: output that ends short is completed with MPEG-TS null
// packets, and a range that starts past the source's end is answered with
// them alone, without a transcoder.
int StreamProgressive(const std::string& type, const std::string& id, const Query& query);

// Ends the anchor's run, whatever request started it.
void CloseRuns(const std::string& type, const std::string& id);

}  // namespace webapi
