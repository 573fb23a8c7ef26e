#include "metadata/vtemetadata.h"

#include <cstdio>
#include <fstream>

#include "platform/log.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/session_path.h"

namespace LibOrvoVTE {
namespace {

constexpr char kLogTag[] = "vtemetadata";
constexpr char kMetaDataFile[] = "video_metadata";
constexpr size_t kMaxPath = 4095;

}  // namespace

VTEMetaData::VTEMetaData(const std::string& id, const std::string& type) : id_(id), type_(type) {}

VTEMetaData::~VTEMetaData() = default;

std::string VTEMetaData::GetDevice() const { return GetMemberString("device"); }

std::string VTEMetaData::GetProfileKey() const { return GetMemberString("profile_key"); }

std::string VTEMetaData::GetProfileValue() const { return GetMemberString("profile_value"); }

std::string VTEMetaData::MetaDataPath(const std::string& id, const std::string& type) {
  const std::string path = SessionFilePath(type, id, kMetaDataFile);
  // A path that does not fit the file system's limit names no session at all.
  return path.size() < kMaxPath ? path : "";
}

bool VTEMetaData::ReadTransProfile(const std::string& profileFile, const std::string& profileName,
                                   Json::Value& doc) {
  if (profileFile.empty() || profileName.empty()) return false;
  try {
    Json::Value profiles;
    if (!LibReelhall::ReadJsonFromFile(profileFile, profiles)) return false;
    if (!profiles.isObject() || !profiles.isMember(profileName)) return false;
    const Json::Value& value = profiles[profileName];
    if (!value.isConvertibleTo(Json::stringValue)) return false;
    doc["profile_key"] = profileName;
    doc["profile_value"] = value.asString();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool VTEMetaData::ParserMetaData(const std::string& path, const std::string& id,
                                 const std::string& type, const std::string& profileFile,
                                 const std::string& profileName, const std::string& device) {
  if (path.empty() || id.empty() || type.empty() || profileFile.empty() || profileName.empty()) {
    return false;
  }
  try {
    Json::Value doc(Json::objectValue);
    if (!ReadMetaDataFromFFMPEG(path, doc)) return false;
    if (!ReadTransProfile(profileFile, profileName, doc)) {
      librh::log::Write(LOG_ERR, kLogTag, 93, "Failed to copy transcoding profile [%s] in [%s]",
                        profileName.c_str(), profileFile.c_str());
      return false;
    }
    doc["device"] = device;
    const std::string file = MetaDataPath(id, type);
    return !file.empty() && LibReelhall::WriteJsonToFile(file, doc);
  } catch (const std::exception&) {
    return false;
  }
}

bool VTEMetaData::LoadMetaData() {
  if (id_.empty() || type_.empty()) return false;
  const std::string file = MetaDataPath(id_, type_);
  if (file.empty()) return false;
  std::ifstream in(file);
  if (!in) return false;
  try {
    document.clear();
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader reader;
#pragma GCC diagnostic pop
    if (!reader.parse(in, document, true)) {
      // What a failed parse left behind must not be read as the session.
      loaded = false;
      return false;
    }
    loaded = true;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace LibOrvoVTE
