// A stream's transcoder start-up run for real, with a stand-in program
// (tests/argv_recorder.cc) in place of the transcoder that records what it
// was given.
#pragma once

#include <json/json.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/test_media.h"

namespace orvotest {

// The stand-in's path, to pass as the transcoder program.
std::string StandInProgram();

// What the stand-in saw.
struct Recording {
  bool written = false;
  std::vector<int> fds;  // open descriptors at start, ascending
  std::vector<std::string> argv;
};

// Stand-ins exec'd from now on by this process and its children write to
// `recordFile` (removed here), then linger `lingerMs`, deaf to SIGINT and
// SIGTERM when `deaf`.
void ArmStandIn(const std::string& recordFile, int lingerMs = 0, bool deaf = false);

// What the stand-in wrote to `recordFile`, waiting at most `timeoutSeconds`.
Recording ReadRecording(const std::string& recordFile, int timeoutSeconds = 0);

// Runs `start` (which execs the stand-in, or returns false) in a child that
// holds a stray descriptor without close-on-exec. `status` gets the child's:
// 0 when the stand-in ran, 3 when `start` returned false, -1 when killed.
Recording RecordStart(const std::string& recordFile, const std::function<bool()>& start,
                      int& status);

// The probed document of `media` as a session keeps it, with the transcoding
// profile `profile` and the device "browser".
Json::Value SessionDocument(Media media, const std::string& profile);

// Writes a session's "video_metadata" under the current machine root, as the
// session of `type` and `id` would hold it; returns the session directory.
std::string WriteSession(const std::string& type, const std::string& id, const Json::Value& doc);

}  // namespace orvotest
