// A session's metadata: the probed document of its file, plus the client's
// transcoding profile and device, written once when the session is created
// and read back by every later request.
#pragma once

#include <json/json.h>

#include <string>

#include "metadata/video_metadata.h"

namespace LibOrvoVTE {

class VTEMetaData : public VideoMetaData {
 public:
  VTEMetaData(const std::string& id, const std::string& type);
  ~VTEMetaData();

  std::string GetDevice() const;
  std::string GetProfileKey() const;
  std::string GetProfileValue() const;

  // Copies profile `profileName` of the JSON profile file into `doc` as
  // "profile_key" and "profile_value".
  static bool ReadTransProfile(const std::string& profileFile, const std::string& profileName,
                               Json::Value& doc);
  // Probes `path`, adds the profile and the device, and writes the session's
  // "video_metadata" file. False when any step fails ("" device is allowed).
  static bool ParserMetaData(const std::string& path, const std::string& id,
                             const std::string& type, const std::string& profileFile,
                             const std::string& profileName, const std::string& device);
  // Reads the session's "video_metadata" into this object.
  bool LoadMetaData();

 private:
  // The session file's path, "" when id or type is empty.
  static std::string MetaDataPath(const std::string& id, const std::string& type);

  std::string id_;
  std::string type_;
};

}  // namespace LibOrvoVTE
