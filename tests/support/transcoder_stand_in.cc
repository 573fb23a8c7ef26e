#include "tests/support/transcoder_stand_in.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "metadata/video_metadata.h"
#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/stream_watch.h"
#include "vte/utils/json_utils.h"

namespace orvotest {

std::string StandInProgram() { return ORVOTEST_ARGV_RECORDER; }

void ArmStandIn(const std::string& recordFile, int lingerMs, bool deaf) {
  unlink(recordFile.c_str());
  setenv("ORVOTEST_RECORD", recordFile.c_str(), 1);
  setenv("ORVOTEST_RECORD_LINGER_MS", std::to_string(lingerMs).c_str(), 1);
  setenv("ORVOTEST_RECORD_DEAF", deaf ? "1" : "", 1);
}

Recording ReadRecording(const std::string& recordFile, int timeoutSeconds) {
  Recording recording;
  std::ifstream in;
  WaitUntil([&] { return in.open(recordFile), in.is_open(); }, timeoutSeconds * 1000);
  std::string line;
  if (!std::getline(in, line)) return recording;
  std::istringstream fds(line.substr(3));
  for (int fd; fds >> fd;) recording.fds.push_back(fd);
  while (std::getline(in, line)) recording.argv.push_back(line);
  return recording;
}

Recording RecordStart(const std::string& recordFile, const std::function<bool()>& start,
                      int& status) {
  ArmStandIn(recordFile);
  status = RunInChild([&start] {
    // Opened as careless code would: the transcoder must not inherit it.
    if (open("/dev/null", O_RDONLY) < 0) return 5;
    return start() ? 4 : 3;
  });
  return ReadRecording(recordFile);
}

Json::Value SessionDocument(Media media, const std::string& profile) {
  Json::Value doc;
  if (!LibOrvoVTE::VideoMetaData::ReadMetaDataFromFFMPEG(TestMedia(media), doc)) {
    ADD_FAILURE() << MediaName(media);
  }
  doc["profile_key"] = "profile";
  doc["profile_value"] = profile;
  doc["device"] = "browser";
  return doc;
}

std::string WriteSession(const std::string& type, const std::string& id, const Json::Value& doc) {
  const std::string dir = MakeSession(type, id);
  if (!LibReelhall::WriteJsonToFile(dir + "/video_metadata", doc)) ADD_FAILURE() << dir;
  return dir;
}

}  // namespace orvotest
