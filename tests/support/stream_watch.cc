#include "tests/support/stream_watch.h"

#include <json/json.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/launchers.h"
#include "toolkit/process_table.h"
#include "vte/liborvovte.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

namespace orvotest {

std::string CreateSession(Media media, const std::string& type, const std::string& profileFile,
                          const std::string& profile, const std::string& id) {
  const std::string source = TestMedia(media);
  if (source.empty()) return "";
  Json::Value params(Json::objectValue);
  params["stream_id"] = id;
  const std::string profiles = std::string(ORVOVTE_SAMPLE_PROFILES) + "/" + profileFile;
  return LibOrvoVTE::VTEStream::VTE_Init(source, type, params, profiles, profile, "browser", 0);
}

std::string SessionPath(const std::string& type, const std::string& id, const std::string& name) {
  const std::string dir =
      librh::machine::Resolve(librh::machine::kTempRoot) + "/" + type + "/" + id;
  return name.empty() ? dir : dir + "/" + name;
}

std::string MakeSession(const std::string& type, const std::string& id) {
  namespace fs = std::filesystem;
  const std::string session = SessionPath(type, id);
  const std::string volume = librh::machine::Resolve("/volume1/@tmp/Reelhall/");
  const std::string dir = type == "HTTP" ? session : volume + type + "/" + id;
  RemoveTree(session);
  RemoveTree(dir);
  std::error_code ignored;
  fs::create_directories(fs::path(session).parent_path());
  fs::create_directories(dir);
  if (dir != session) fs::create_directory_symlink(dir, session, ignored);
  return session;
}

int RecordedPid(const std::string& pidFile, int unlike) {
  int pid = -1;
  const auto came = [&] {
    pid = atoi(LibOrvoVTE::ReadFile(pidFile).c_str());
    return pid > 0 && pid != unlike;
  };
  return WaitUntil(came, 10000) ? pid : -1;
}

bool Ends(int pid, int timeoutMs) {
  return WaitUntil([pid] { return !OLIBCProcAlive(pid); }, timeoutMs);
}

void StreamTest::SetUp() {
  MachineRootTest::SetUp();
  ASSERT_TRUE(BecomeSubreaper());
  InstallLaunchers(Root());
}

void StreamTest::TearDown() {
  // A monitor notices a signal within one 2-second poll, then stops ffmpeg.
  EXPECT_TRUE(ChildrenEnded(15)) << "a process of a stream outlived the test";
  MachineRootTest::TearDown();
}

bool BecomeSubreaper() { return prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0; }

bool ChildrenEnded(int timeoutSeconds) {
  const auto reapAll = [] {
    pid_t done;
    while ((done = waitpid(-1, nullptr, WNOHANG)) > 0) {
    }
    return done < 0 && errno == ECHILD;
  };
  if (WaitUntil(reapAll, timeoutSeconds * 1000)) return true;
  for (const toolkit::ProcessEntry& child : toolkit::ChildrenOf(getpid())) {
    kill(child.pid, SIGKILL);
  }
  WaitUntil(reapAll, 2000);
  return false;
}

std::vector<int> RegistryPids() {
  Json::Value registry;
  std::vector<int> pids;
  const std::string file = librh::machine::Resolve(librh::machine::kLoadRegistry);
  if (!LibReelhall::ReadJsonFromFile(file, registry) || !registry.isArray()) return pids;
  for (const Json::Value& entry : registry) {
    if (entry.isObject() && entry["PID"].isInt() && entry["PID"].asInt() != 0) {
      pids.push_back(entry["PID"].asInt());
    }
  }
  return pids;
}

bool Registered(int pid) {
  const std::vector<int> pids = RegistryPids();
  return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

}  // namespace orvotest
