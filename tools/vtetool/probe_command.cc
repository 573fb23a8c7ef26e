#include <json/json.h>

#include <iostream>

#include "metadata/video_metadata.h"
#include "tools/vtetool/command.h"
#include "tools/vtetool/output.h"
#include "vte/utils/vteutils.h"

namespace vtetool {
namespace {

int Probe(const Arguments& arguments) {
  const std::string& path = arguments[0];
  if (!LibOrvoVTE::VerifyFileExist(path, 0)) {
    std::cerr << "vtetool: probe: " << path << ": no such file" << std::endl;
    return kFailed;
  }
  Json::Value document(Json::objectValue);
  if (!LibOrvoVTE::VideoMetaData::ReadMetaDataFromFFMPEG(path, document)) {
    std::cerr << "vtetool: probe: " << path
              << ": not a regular file, or not media that libavformat can analyse" << std::endl;
    return kFailed;
  }
  PrintJson(document);
  return kOk;
}

const CommandRegistration kProbe(
    {"probe", "<file>", "print the metadata document of a media file", 1, 1, Probe});

}  // namespace
}  // namespace vtetool
