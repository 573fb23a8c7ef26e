// Progressive streams (HTTP and WebM). A stream opened here is an anchor:
// its session holds the probed file and the profile, and every data request
// plays a run of its own (a session "<id>_r<pid>") that the request closes
// when the client has what it asked for or goes away. A seek is a new
// request.
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
// "start" (seconds) for "WEBM", "audio" for both.
int StreamProgressive(const std::string& type, const std::string& id, const Query& query);

// Ends the anchor's runs that their requests did not close (a request
// killed outright closes nothing).
void CloseRuns(const std::string& type, const std::string& id);

}  // namespace webapi
