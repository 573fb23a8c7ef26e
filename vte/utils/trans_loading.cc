#include "vte/utils/trans_loading.h"

#include <sys/stat.h>

#include <exception>

#include "decisions/platform_utils.h"
#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "vte/utils/json_utils.h"

namespace LibReelhall {
namespace {

constexpr char kLogTag[] = "trans_loading";

constexpr char kPidKey[] = "PID";
constexpr char kHardwareKey[] = "hardware_transcode";
constexpr char kOfflineKey[] = "offline_conversion";
constexpr char kSessionKey[] = "session";

// Braswell's engine serves many sessions at once; elsewhere the engine, like
// the CPU, takes one transcoder.
constexpr uint32_t kBraswellHardwareLimit = 100;
// Monaco's CPU is too slow for a software transcoder next to anything else.
constexpr uint8_t kMonacoSoftwareLimit = 0;
constexpr uint8_t kSoftwareLimit = 1;
constexpr uint32_t kHardwareLimit = 1;

// Processes of every user lock and rewrite the registry.
constexpr mode_t kRegistryMode = 0777;

// Entries come from a file any process may have written: only an object
// with an integer pid counts as one.
bool PidOf(const Json::Value& entry, int& pid) {
  if (!entry.isObject()) return false;
  const Json::Value* value = entry.find(kPidKey, kPidKey + sizeof(kPidKey) - 1);
  if (value == nullptr || !value->isInt()) return false;
  pid = value->asInt();
  return true;
}

// A flag counts only when it is a real boolean: "true" as a string does not.
bool FlagIs(const Json::Value& entry, const char* key, size_t keyLength, bool wanted) {
  if (!entry.isObject()) return false;
  const Json::Value* value = entry.find(key, key + keyLength);
  return value != nullptr && value->isBool() && value->asBool() == wanted;
}

bool HardwareIs(const Json::Value& entry, bool wanted) {
  return FlagIs(entry, kHardwareKey, sizeof(kHardwareKey) - 1, wanted);
}

bool IsOffline(const Json::Value& entry) {
  return FlagIs(entry, kOfflineKey, sizeof(kOfflineKey) - 1, true);
}

bool IsName(const std::string& part) {
  return !part.empty() && part != "." && part != ".." &&
         part.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

// The session an entry holds its place for, "" when none. Only a plain
// "<type>/<id>" counts, so the existence test below stays in the temp root.
std::string SessionOf(const Json::Value& entry) {
  if (!entry.isObject()) return "";
  const Json::Value* value = entry.find(kSessionKey, kSessionKey + sizeof(kSessionKey) - 1);
  if (value == nullptr || !value->isString()) return "";
  const std::string session = value->asString();
  const size_t slash = session.find('/');
  if (slash == std::string::npos || !IsName(session.substr(0, slash)) ||
      !IsName(session.substr(slash + 1))) {
    return "";
  }
  return session;
}

bool SessionExists(const Json::Value& entry) {
  const std::string session = SessionOf(entry);
  struct stat info;
  return !session.empty() &&
         stat((librh::machine::Resolve(librh::machine::kTempRoot) + "/" + session).c_str(),
              &info) == 0;
}

bool SupportsHardware() {
  return librh::util::PlatformUtils::GetInst().IsSupportHWTranscode();
}

}  // namespace

TransLoading::TransLoading()
    : Lock(librh::machine::Resolve(librh::machine::kLoadRegistry)),
      entries_(Json::arrayValue),
      softwareLimit_(kSoftwareLimit),
      hardwareLimit_(0) {
  try {
    const librh::util::PlatformUtils& platform = librh::util::PlatformUtils::GetInst();
    if (platform.IsMonaco()) softwareLimit_ = kMonacoSoftwareLimit;
    if (platform.IsBraswell()) {
      hardwareLimit_ = kBraswellHardwareLimit;
    } else if (platform.IsSupportHWTranscode()) {
      hardwareLimit_ = kHardwareLimit;
    }
    if (!IsLockSucess()) {
      ORVO_LOG(LOG_ERR, "TransLoading lock file failed");
      return;
    }
    if (!ReadAndCheckAlive()) ORVO_LOG(LOG_ERR, "ReadAndCheckAlive failed");
  } catch (const std::exception&) {
    entries_ = Json::Value(Json::arrayValue);
  }
}

TransLoading::~TransLoading() {
  if (!IsLockSucess()) return;
  try {
    if (!WriteJsonToFile(path_, entries_)) {
      ORVO_LOG(LOG_ERR, "VTE - Failed to write json file [%s].", path_.c_str());
    }
  } catch (const std::exception&) {
    ORVO_LOG(LOG_ERR, "VTE - Failed to write json file [%s].", path_.c_str());
  }
  chmod(path_.c_str(), kRegistryMode);
}

bool TransLoading::HeldOrLog() const {
  if (IsLockSucess()) return true;
  ORVO_LOG(LOG_ERR, "TransEnable need to lock file");
  return false;
}

bool TransLoading::ReadAndCheckAlive() {
  try {
    entries_ = Json::Value(Json::arrayValue);
    struct stat info;
    if (stat(path_.c_str(), &info) != 0) return true;
    Json::Value stored;
    if (!ReadJsonFromFile(path_, stored)) return info.st_size == 0;
    // A registry of "null" is as good as empty; an object or a scalar is not
    // a registry at all, and what it held cannot be trusted.
    if (stored.isNull()) return true;
    if (!stored.isArray()) return false;
    for (const Json::Value& entry : stored) {
      int pid = 0;
      if (PidOf(entry, pid) && (OLIBCProcAlive(pid) || SessionExists(entry))) {
        entries_.append(entry);
      }
    }
    return true;
  } catch (const std::exception&) {
    entries_ = Json::Value(Json::arrayValue);
    return false;
  }
}

bool TransLoading::CheckTransEnable(bool hardware) const {
  try {
    const uint32_t limit = hardware ? hardwareLimit_ : softwareLimit_;
    uint32_t count = 0;
    for (const Json::Value& entry : entries_) {
      if (HardwareIs(entry, hardware)) ++count;
    }
    return count + 1 <= limit;
  } catch (const std::exception&) {
    return false;
  }
}

bool TransLoading::SoftwareTransEnable() const { return CheckTransEnable(false); }

bool TransLoading::HardwareTransEnable() const {
  try {
    return SupportsHardware() && CheckTransEnable(true);
  } catch (const std::exception&) {
    return false;
  }
}

bool TransLoading::TransEnable(bool hardware) {
  if (!HeldOrLog()) return false;
  try {
    if (hardware && !SupportsHardware()) return false;
    // Even where the limit is 0 (software on Monaco) a machine doing nothing
    // else may run one transcoder.
    if (entries_.empty()) return true;
    return hardware ? HardwareTransEnable() : SoftwareTransEnable();
  } catch (const std::exception&) {
    return false;
  }
}

bool TransLoading::SaveTransPID(int pid, bool hardware, bool offline) {
  if (!HeldOrLog()) return false;
  try {
    Json::Value entry(Json::objectValue);
    entry[kPidKey] = pid;
    entry[kHardwareKey] = hardware;
    entry[kOfflineKey] = offline;
    entries_.append(entry);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool TransLoading::RemoveTransPIDLock(int pid) {
  if (!HeldOrLog()) return false;
  try {
    Json::Value kept(Json::arrayValue);
    for (const Json::Value& entry : entries_) {
      int entryPid = 0;
      if (PidOf(entry, entryPid) && entryPid == pid) {
        // A session's place outlives each run of its transcoder.
        if (!SessionExists(entry)) continue;
        kept.append(entry);
        kept[kept.size() - 1][kPidKey] = 0;
        continue;
      }
      kept.append(entry);
    }
    entries_.swap(kept);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool TransLoading::AdmitSession(const std::string& session, bool hardware) {
  if (!HeldOrLog()) return false;
  try {
    for (const Json::Value& entry : entries_) {
      if (SessionOf(entry) == session) return true;
    }
    if (!TransEnable(hardware) || !SaveTransPID(0, hardware, false)) return false;
    entries_[entries_.size() - 1][kSessionKey] = session;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool TransLoading::TakeSessionEntry(const std::string& session, int pid) {
  if (!HeldOrLog()) return false;
  try {
    for (Json::Value& entry : entries_) {
      if (SessionOf(entry) != session) continue;
      entry[kPidKey] = pid;
      return true;
    }
    return false;
  } catch (const std::exception&) {
    return false;
  }
}

bool TransLoading::ReleaseSession(const std::string& session) {
  if (!HeldOrLog()) return false;
  try {
    Json::Value kept(Json::arrayValue);
    for (const Json::Value& entry : entries_) {
      if (SessionOf(entry) != session) kept.append(entry);
    }
    entries_.swap(kept);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool TransLoading::IsOffineConverting() const {
  if (!HeldOrLog()) return false;
  try {
    for (const Json::Value& entry : entries_) {
      if (IsOffline(entry)) return true;
    }
    return false;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace LibReelhall
