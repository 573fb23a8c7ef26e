#include "vte/utils/trans_loading.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "decisions/platform_utils.h"
#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"
#include "toolkit/files.h"
#include "vte/utils/json_utils.h"

namespace LibReelhall {
namespace {

std::string RegistryPath() { return librh::machine::Resolve(librh::machine::kLoadRegistry); }

// The file as another process sees it between two holders.
bool ReadRegistry(Json::Value& registry) {
  Lock lock(RegistryPath(), true);
  return lock.IsLockSucess() && ReadJsonFromFile(RegistryPath(), registry) && registry.isArray();
}

void Register(int pid, bool hardware, bool offline, int times = 1) {
  TransLoading registry;
  for (int i = 0; i < times; ++i) registry.SaveTransPID(pid, hardware, offline);
}

int CountPid(const Json::Value& registry, int pid) {
  int count = 0;
  for (const Json::Value& entry : registry) count += entry["PID"].asInt() == pid;
  return count;
}

orvotest::PlatformFiles Platform(const std::string& name) {
  orvotest::PlatformFiles files;
  files.name = name;
  return files;
}

// A pipe that children inherit: the parent closes `write` to release every
// child blocked in WaitForRelease at once.
struct Gate {
  int read = -1, write = -1;
  Gate() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) == 0) {
      read = fds[0];
      write = fds[1];
    }
  }
  ~Gate() {
    CloseRead();
    CloseWrite();
  }
  void CloseRead() { Close(read); }
  void CloseWrite() { Close(write); }
  // In a child: blocks until the parent closes its end (or dies).
  void WaitForRelease() {
    CloseWrite();
    char byte;
    while (::read(read, &byte, 1) > 0) {
    }
  }
  // In the parent: `count` bytes from the children, or fewer when time runs
  // out or every writer is gone.
  std::string Collect(size_t count, int timeoutSeconds) {
    CloseWrite();
    std::string bytes;
    struct pollfd ready = {read, POLLIN, 0};
    char byte;
    while (bytes.size() < count && poll(&ready, 1, timeoutSeconds * 1000) > 0 &&
           ::read(read, &byte, 1) == 1) {
      bytes += byte;
    }
    return bytes;
  }
  static void Close(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
};

using TransLoadingTest = orvotest::MachineRootTest;

TEST(TransLoadingLimits, FollowThePlatform) {
  struct Row {
    const char* platform;
    int softwareHeld, hardwareHeld;  // live entries already registered
    bool admitsSoftware, admitsHardware;
  } rows[] = {
      {"x86", 0, 0, true, false},  // no engine: never a hardware transcoder
      {"x86", 1, 0, false, false},
      {"monaco", 0, 0, true, true},  // an empty registry admits even past a 0 limit
      {"monaco", 0, 1, false, false},     {"monaco", 1, 0, false, true},
      {"evansport", 1, 0, false, true},   {"evansport", 0, 1, true, false},
      {"braswell", 1, 0, false, true},    {"braswell", 0, 99, true, true},
      {"braswell", 0, 100, true, false},  // the 101st is refused
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.platform) + " with " + std::to_string(row.softwareHeld) +
                 " software and " + std::to_string(row.hardwareHeld) + " hardware entries");
    orvotest::MachineRoot root(Platform(row.platform));
    // Duplicates are allowed, and this process stays alive throughout.
    Register(getpid(), false, false, row.softwareHeld);
    Register(getpid(), true, false, row.hardwareHeld);
    TransLoading registry;
    EXPECT_EQ(row.admitsSoftware, registry.TransEnable(false));
    EXPECT_EQ(row.admitsHardware, registry.TransEnable(true));
    if (row.softwareHeld + row.hardwareHeld > 0) {
      EXPECT_EQ(row.admitsSoftware, registry.SoftwareTransEnable());
      EXPECT_EQ(row.admitsHardware, registry.HardwareTransEnable());
    }
  }
}

TEST_F(TransLoadingTest, WritesEntriesBackOpenToEveryUser) {
  const mode_t oldMask = umask(022);
  {
    TransLoading registry;
    EXPECT_FALSE(registry.IsOffineConverting());
    EXPECT_TRUE(registry.SaveTransPID(getpid(), true, false));
    EXPECT_TRUE(registry.SaveTransPID(getppid(), false, true));
    EXPECT_TRUE(registry.IsOffineConverting());
  }
  umask(oldMask);
  const std::string text = toolkit::ReadWholeFile(RegistryPath());
  const std::string me = std::to_string(getpid());
  const std::string parent = std::to_string(getppid());
  EXPECT_EQ("[{\"PID\":" + me + ",\"hardware_transcode\":true,\"offline_conversion\":false}," +
                "{\"PID\":" + parent +
                ",\"hardware_transcode\":false,\"offline_conversion\":true}]\n",
            text);
  struct stat info;
  ASSERT_EQ(0, stat(RegistryPath().c_str(), &info));
  EXPECT_EQ(0777u, info.st_mode & 07777);
}

TEST_F(TransLoadingTest, RemovesEveryEntryOfAPidAndDeadPidsOnceTaken) {
  const pid_t dead = orvotest::StartChild([] { return 0; });
  ASSERT_EQ(0, orvotest::WaitForChild(dead, 10));
  Register(getpid(), false, false, 3);
  Register(getppid(), true, true);
  Register(dead, false, false);  // last: the next taker drops it
  Json::Value registry;
  ASSERT_TRUE(ReadRegistry(registry));
  EXPECT_EQ(1, CountPid(registry, dead)) << "saving does not check liveness";
  {
    TransLoading taken;
    EXPECT_TRUE(taken.RemoveTransPIDLock(999999999)) << "an unknown pid is no failure";
    EXPECT_TRUE(taken.RemoveTransPIDLock(getpid()));
    EXPECT_TRUE(taken.IsOffineConverting()) << "the other pid's entry stays";
  }
  ASSERT_TRUE(ReadRegistry(registry));
  ASSERT_EQ(1u, registry.size()) << registry;
  EXPECT_EQ(getppid(), registry[0]["PID"].asInt());
}

// Whatever the file holds, taking the registry neither crashes nor trusts
// what is not an entry, and the next write leaves a valid registry.
TEST_F(TransLoadingTest, SurvivesWhateverTheFileHolds) {
  const std::string me = std::to_string(getpid());
  struct Row {
    const char* name;
    std::string content;
    bool readFails;
    std::string kept;  // the entries expected to survive, as JSON
    bool admitsSoftware, offline;
  } rows[] = {
      {"empty file", "", false, "[]", true, false},
      {"null", "null", false, "[]", true, false},
      {"blank", "  \n", true, "[]", true, false},
      {"not JSON", "{{ PID", true, "[]", true, false},
      {"object", "{\"PID\":" + me + ",\"hardware_transcode\":false}", true, "[]", true, false},
      {"scalar", "42", true, "[]", true, false},
      {"odd elements",
       "[5,\"x\",null,[1],{\"hardware_transcode\":false},{\"PID\":\"" + me + "\"},{\"PID\":1.5}," +
           "{\"PID\":-3},{\"PID\":" + me +
           ",\"hardware_transcode\":\"false\",\"offline_conversion\":\"true\"}]",
       false,
       "[{\"PID\":" + me + ",\"hardware_transcode\":\"false\",\"offline_conversion\":\"true\"}]",
       true, false},
      {"live software conversion",
       "[{\"PID\":" + me + ",\"hardware_transcode\":false,\"offline_conversion\":true}]", false,
       "[{\"PID\":" + me + ",\"hardware_transcode\":false,\"offline_conversion\":true}]", false,
       true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Root().WriteFile(librh::machine::kLoadRegistry, row.content);
    {
      orvotest::LogCapture logs;
      TransLoading registry;
      EXPECT_EQ(row.readFails, logs.Contains("ReadAndCheckAlive failed")) << logs.Dump();
      EXPECT_EQ(row.admitsSoftware, registry.TransEnable(false));
      EXPECT_EQ(row.offline, registry.IsOffineConverting());
      registry.SaveTransPID(getppid(), true, false);
    }
    Json::Value written;
    ASSERT_TRUE(ReadRegistry(written));
    Json::Value kept;
    std::istringstream keptText(row.kept);
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), keptText, &kept, nullptr));
    ASSERT_EQ(kept.size() + 1, written.size());
    for (Json::ArrayIndex i = 0; i < kept.size(); ++i) EXPECT_EQ(kept[i], written[i]) << i;
    EXPECT_EQ(getppid(), written[kept.size()]["PID"].asInt());
  }
}

// Many processes add and remove their own pid at once; the lock must keep
// every read-modify-write whole, or entries get lost or duplicated.
TEST_F(TransLoadingTest, KeepsEveryEntryUnderContention) {
  constexpr int kProcesses = 16;
  constexpr int kRounds = 50;
  Gate done, release;
  std::set<int> children;
  for (int i = 0; i < kProcesses; ++i) {
    const pid_t pid = orvotest::StartChild([&] {
      done.CloseRead();
      const int me = getpid();
      bool whole = true;
      for (int round = 0; round < kRounds && whole; ++round) {
        Register(me, round % 2 == 0, false);
        TransLoading registry;
        // Held now, so the file on disk is what the last holder wrote.
        Json::Value onDisk;
        whole = ReadJsonFromFile(RegistryPath(), onDisk) && CountPid(onDisk, me) == 1;
        registry.RemoveTransPIDLock(me);
      }
      if (whole) Register(me, false, false);
      if (write(done.write, whole ? "x" : "!", 1) != 1) return 4;
      release.WaitForRelease();
      return whole ? 0 : 3;
    });
    ASSERT_GT(pid, 0);
    children.insert(pid);
  }
  release.CloseRead();
  EXPECT_EQ(std::string(kProcesses, 'x'), done.Collect(kProcesses, 120))
      << "'!': a child lost its entry or found it twice";

  Json::Value registry;
  ASSERT_TRUE(ReadRegistry(registry)) << "the registry must stay valid JSON";
  std::set<int> registered;
  for (const Json::Value& entry : registry) registered.insert(entry["PID"].asInt());
  EXPECT_EQ(static_cast<Json::ArrayIndex>(kProcesses), registry.size()) << registry;
  EXPECT_EQ(children, registered);

  release.CloseWrite();
  for (int pid : children) EXPECT_EQ(0, orvotest::WaitForChild(pid, 30)) << "child " << pid;
  { TransLoading emptied; }
  ASSERT_TRUE(ReadRegistry(registry));
  EXPECT_EQ(0u, registry.size()) << "every child has ended";
}

// Processes racing to start transcoders: each takes the registry, asks, and
// registers when admitted. No more may get in than the limits allow.
TEST(TransLoadingRace, AdmitsNoMoreThanTheLimit) {
  struct Row {
    const char* platform;
    int racers;
    bool alternateHardware;  // every other racer asks for hardware
    bool hardware;           // otherwise what every racer asks for
    int hardwareHeld;
    int software, hardwareAdmitted;
  } rows[] = {
      {"x86", 12, false, false, 0, 1, 0},
      {"monaco", 12, false, false, 0, 1, 0},  // the empty-registry exception, once
      {"evansport", 12, true, false, 0, 1, 1},
      {"braswell", 16, false, true, 90, 0, 10},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.platform);
    orvotest::MachineRoot root(Platform(row.platform));
    Register(getpid(), true, false, row.hardwareHeld);
    Gate start, results, release;
    std::vector<pid_t> racers;
    for (int i = 0; i < row.racers; ++i) {
      const bool hardware = row.alternateHardware ? i % 2 == 1 : row.hardware;
      racers.push_back(orvotest::StartChild([&] {
        start.WaitForRelease();
        char verdict = '-';
        {
          TransLoading registry;
          if (registry.TransEnable(hardware)) {
            registry.SaveTransPID(getpid(), hardware, false);
            verdict = hardware ? 'H' : 'S';
          }
        }
        if (write(results.write, &verdict, 1) != 1) return 1;
        release.WaitForRelease();
        return 0;
      }));
    }
    start.CloseWrite();
    release.CloseRead();
    const std::string verdicts = results.Collect(row.racers, 60);
    const auto software = std::count(verdicts.begin(), verdicts.end(), 'S');
    const auto hardware = std::count(verdicts.begin(), verdicts.end(), 'H');
    EXPECT_EQ(static_cast<size_t>(row.racers), verdicts.size()) << "missing verdicts";
    EXPECT_EQ(row.software, software);
    EXPECT_EQ(row.hardwareAdmitted, hardware);
    Json::Value registry;
    EXPECT_TRUE(ReadRegistry(registry) &&
                registry.size() ==
                    static_cast<Json::ArrayIndex>(row.hardwareHeld + software + hardware))
        << "the registry must hold exactly the admitted entries: " << registry;
    release.CloseWrite();
    for (pid_t racer : racers) EXPECT_EQ(0, orvotest::WaitForChild(racer, 30)) << "racer";
  }
}

}  // namespace
}  // namespace LibReelhall
