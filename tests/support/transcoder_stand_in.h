// Transcoder starts run for real, with a stand-in that records what it got.
#pragma once

#include <json/json.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/test_media.h"

namespace orvotest {

std::string StandInProgram();

struct Recording {
  std::vector<int> fds;  // open at start, ascending
  std::vector<std::string> argv;
};

// Stand-ins exec'd from now on by this process and its children record to
// `recordFile`, then linger, deaf to SIGINT and SIGTERM when `deaf`.
void ArmStandIn(const std::string& recordFile, int lingerMs = 0, bool deaf = false);

Recording ReadRecording(const std::string& recordFile, int timeoutSeconds = 0);

// Runs `start` (which execs the stand-in, or returns false) in a child that
// holds a stray descriptor without close-on-exec. `status`: 0 when the
// stand-in ran, 3 when `start` returned false, -1 when killed.
Recording RecordStart(const std::string& recordFile, const std::function<bool()>& start,
                      int& status);

// The probed document as a session keeps it, for the device "browser".
Json::Value SessionDocument(Media media, const std::string& profile);

// Writes the session's "video_metadata"; the session directory.
std::string WriteSession(const std::string& type, const std::string& id, const Json::Value& doc);

}  // namespace orvotest
