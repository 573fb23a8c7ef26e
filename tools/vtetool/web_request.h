// Stream calls made the way the web API makes them: the open request's
// session, each request in a process of its own, and the close request.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "vte/adapt_stream.h"

namespace vtetool {

// A segment or fragment request waits at most a minute; this leaves room for
// the rest of the request.
constexpr std::chrono::seconds kRequestTimeout{75};

// Runs `body` in a child process with its standard descriptors on /dev/null:
// the monitor the request may fork inherits them and must not hold this
// tool's output open. Stores the text `body` returned in `answer`. False when
// the child failed or was still running after kRequestTimeout (it is
// stopped then); the child is reaped on every path.
bool AsWebRequest(const std::function<std::string()>& body, std::string* answer);

// Creates a session of `type` for the file `path` with `profile` of
// `profileFile`; its id, or "" after telling why on stderr as `command`.
std::string NewSession(const std::string& command, const std::string& type,
                       const std::string& path, const std::string& profileFile,
                       const std::string& profile, const std::string& device);

// Ends `stream`'s session (stops its processes, removes its files). kOk, or
// kFailed after telling on stderr as `command` that there is no `kind`
// session by that id.
int CloseSession(const std::string& command, const std::string& kind,
                 LibOrvoVTE::AdaptStream& stream, const std::string& id);

}  // namespace vtetool
