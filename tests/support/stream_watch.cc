#include "tests/support/stream_watch.h"

#include <json/json.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/launchers.h"
#include "toolkit/process_table.h"
#include "vte/liborvovte.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

namespace orvotest {
namespace {

constexpr int kPidWaitMs = 10000;

// Long enough for the slowest end: a monitor notices its signal within
// one 2-second poll, then stops ffmpeg.
constexpr int kEndSeconds = 15;

void KillChildren() {
  for (const toolkit::ProcessEntry& child : toolkit::ChildrenOf(getpid())) {
    kill(child.pid, SIGKILL);
  }
}

bool ReapAll() {
  for (;;) {
    const pid_t done = waitpid(-1, nullptr, WNOHANG);
    if (done > 0) continue;
    return done < 0 && errno == ECHILD;
  }
}

}  // namespace

std::string CreateSession(Media media, const std::string& type, const std::string& profileFile,
                          const std::string& profile, const std::string& id) {
  const std::string source = TestMedia(media);
  if (source.empty()) return "";
  Json::Value params(Json::objectValue);
  params["stream_id"] = id;
  return LibOrvoVTE::VTEStream::VTE_Init(source, type, params,
                                         std::string(ORVOVTE_SAMPLE_PROFILES) + "/" + profileFile,
                                         profile, "browser", 0);
}

std::string SessionPath(const std::string& type, const std::string& id, const std::string& name) {
  const std::string dir =
      librh::machine::Resolve(librh::machine::kTempRoot) + "/" + type + "/" + id;
  return name.empty() ? dir : dir + "/" + name;
}

std::string MakeSession(const std::string& type, const std::string& id) {
  const std::string session = SessionPath(type, id);
  std::error_code ignored;
  std::filesystem::remove_all(session, ignored);
  std::filesystem::create_directories(std::filesystem::path(session).parent_path());
  if (type == "HTTP") {
    std::filesystem::create_directories(session);
  } else {
    const std::string dir =
        librh::machine::Resolve("/volume1/@tmp/Reelhall/" + type + "/" + id);
    std::filesystem::remove_all(dir, ignored);
    std::filesystem::create_directories(dir);
    std::filesystem::create_directory_symlink(dir, session, ignored);
  }
  return session;
}

int RecordedPid(const std::string& pidFile, int unlike) {
  int pid = -1;
  WaitUntil(
      [&] {
        const std::string text = LibOrvoVTE::ReadFile(pidFile);
        pid = text.empty() ? -1 : atoi(text.c_str());
        return pid > 0 && pid != unlike;
      },
      kPidWaitMs);
  return pid != unlike ? pid : -1;
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
  EXPECT_TRUE(ChildrenEnded(kEndSeconds)) << "a process of a stream outlived the test";
  MachineRootTest::TearDown();
}

bool BecomeSubreaper() { return prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0; }

bool ChildrenEnded(int timeoutSeconds) {
  if (WaitUntil(ReapAll, timeoutSeconds * 1000)) return true;
  KillChildren();
  WaitUntil(ReapAll, 2000);
  return false;
}

std::vector<int> RegistryPids() {
  Json::Value registry;
  std::vector<int> pids;
  if (!LibReelhall::ReadJsonFromFile(librh::machine::Resolve(librh::machine::kLoadRegistry),
                                     registry) ||
      !registry.isArray()) {
    return pids;
  }
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
