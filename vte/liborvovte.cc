#include "vte/liborvovte.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "decisions/platform_utils.h"
#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "platform/orvofs.h"
#include "platform/volume.h"
#include "vte/utils/md5.h"
#include "vte/utils/session_path.h"

namespace LibOrvoVTE {
namespace {

constexpr char kLogTag[] = "liborvovte";

// A profile whose arguments carry this bitstream filter copies the video.
constexpr char kRemuxMarker[] = "h264_mp4toannexb";
constexpr char kEvansportHardwareMarker[] = "h264_smd";
// GStreamer profiles are pipeline descriptions, whose elements "!" links.
constexpr char kGstreamerMarker[] = "!";

constexpr unsigned long long kRemuxHlsSpace = 2147483648ULL;
constexpr unsigned long long kDefaultSpace = 536870912ULL;

constexpr int kErrVolumeReadOnly = 0x2900;
constexpr int kErrNoVolume = 0x8300;
constexpr int kErrVolumeFull = 0xDD00;

std::string TypeDir(const std::string& type) {
  return librh::machine::Resolve(librh::machine::kTempRoot) + "/" + type;
}

bool Contains(const std::string& text, const char* word) {
  return text.find(word) != std::string::npos;
}

// A stream id names a directory under the temp root and reaches every path of
// the session, and it may come from a client: only a plain, printable name
// keeps the session's files inside the session directory.
bool IsSafeStreamId(const std::string& id) {
  if (id.find_first_not_of(" \t") == std::string::npos) return false;
  if (id == "." || id == ".." || id.find('/') != std::string::npos) return false;
  for (unsigned char c : id) {
    if (c < 0x20 || c == 0x7f) return false;
  }
  return true;
}

unsigned long long SpaceToAsk(const std::string& type, bool remux, unsigned long long needed) {
  if (type == "HLS" && remux) return needed != 0 ? needed : kRemuxHlsSpace;
  return kDefaultSpace;
}

}  // namespace

std::string VTEStream::VTE_Init(const std::string& path, const std::string& type,
                                const Json::Value& params, const std::string& profileFile,
                                const std::string& profileName, const std::string& device,
                                unsigned long long neededBytes) {
  if (path.empty() || type.empty() || profileFile.empty() || profileName.empty()) return "";
  try {
    std::string id;
    if (params.isObject() && params.isMember("stream_id") && params["stream_id"].isString()) {
      id = params["stream_id"].asString();
      if (!IsSafeStreamId(id)) {
        ORVO_LOG(LOG_ERR, "Bad parameter");
        return "";
      }
    } else {
      const std::string digest = LibReelhall::GetMD5(path);
      if (digest.empty()) return "";
      srand(static_cast<unsigned int>(time(nullptr)));
      char number[16];
      snprintf(number, sizeof(number), "%d", rand());
      id = digest + "_" + number;
    }
    if (!CreateTmpDir(id, type, profileFile, profileName, neededBytes)) {
      return kTransSpaceNotEnough;
    }
    if (!VTEMetaData::ParserMetaData(path, id, type, profileFile, profileName, device)) {
      ORVO_LOG(LOG_ERR, "VTEMetaData.ParserMetaData(%s, %s) failed", id.c_str(), type.c_str());
      return "";
    }
    return id;
  } catch (const std::exception&) {
    return "";
  }
}

VTEStream::VTEStream(const std::string& streamId, const std::string& type)
    : streamId_(IsSafeStreamId(streamId) ? streamId : ""),
      type_(type),
      remux_(false),
      hardware_(false),
      metadata_(streamId_, type),
      gstreamer_(false) {
  if (streamId_.empty() || streamId_ == kTransSpaceNotEnough) return;
  metadata_.LoadMetaData();
  profileArgs_ = metadata_.GetProfileValue();
  if (profileArgs_.empty()) return;

  remux_ = Contains(profileArgs_, kRemuxMarker);
  librh::util::PlatformUtils& platform = librh::util::PlatformUtils::GetInst();
  if (platform.IsEvansport()) {
    hardware_ = Contains(profileArgs_, kEvansportHardwareMarker);
  } else if (platform.IsSupportGstreamer() && Contains(profileArgs_, kGstreamerMarker)) {
    hardware_ = true;
    gstreamer_ = true;
  }
}

VTEStream::~VTEStream() = default;

unsigned int VTEStream::GetMetaVideoRotate() const { return metadata_.GetVideoRotate(); }

bool VTEStream::SetError(const std::string& code) {
  if (code.empty()) return false;
  error_ = code;
  return true;
}

bool VTEStream::CreateTmpDir(const std::string& streamId, const std::string& type,
                             const std::string& profileFile, const std::string& profileName,
                             unsigned long long neededBytes) {
  if (streamId.empty() || type.empty() || profileFile.empty() || profileName.empty()) {
    return false;
  }
  const std::string typeDir = TypeDir(type);
  if (!librh::critical::orvosdk::ORVOFSMkdirPReelhall(typeDir, 0777)) return false;

  const std::string sessionDir = SessionFilePath(type, streamId, "");
  if (type == "HTTP") return librh::critical::orvosdk::ORVOFSMkdirPReelhall(sessionDir, 0777);

  const unsigned long long space =
      SpaceToAsk(type, type == "HLS" && IsRemux(profileFile, profileName), neededBytes);
  std::string volumeDir;
  if (!GetTmpDir(space, type, streamId, volumeDir)) {
    ORVO_LOG(LOG_ERR, "There are not enough volume space for streaming %s. Need space [%llu bytes]",
             type.c_str(), space);
    return false;
  }
  // Whatever stands at the session path (a stale link, a file) gives way.
  unlink(sessionDir.c_str());
  return symlink(volumeDir.c_str(), sessionDir.c_str()) == 0;
}

bool GetTmpDir(unsigned long long neededBytes, const std::string& type,
               const std::string& streamId, std::string& outDir) {
  if (type.empty() || streamId.empty()) {
    ORVO_LOG(LOG_ERR, "Bad parameter");
    return false;
  }
  outDir.clear();
  VolumeInfo volume{};
  int status = -1;
  const int found = VolumeAvailGet(neededBytes, &volume, &status, 0);
  if (found == -1) {
    ORVO_LOG(LOG_ERR, "VolumeAvailGet() failed!! orvoerr=[0x%04X]", OLIBCErrGet());
    return false;
  }
  if (found == 0) {
    if (status & kVolumeStatusReadOnly) {
      OLIBCErrSet(kErrVolumeReadOnly);
    } else if (!(status & kVolumeStatusFound)) {
      OLIBCErrSet(kErrNoVolume);
    } else {
      OLIBCErrSet(kErrVolumeFull);
    }
    return false;
  }
  outDir = volume.mountPath + "/@tmp/Reelhall" + "/" + type + "/" + streamId;
  return librh::critical::orvosdk::ORVOFSMkdirPReelhall(outDir, 0777);
}

std::string VTEStream::GetVTEFileFullPath(const std::string& name) const {
  return SessionFilePath(type_, streamId_, name);
}

bool VTEStream::IsRemux(const std::string& profileFile, const std::string& profileName) {
  Json::Value profile(Json::objectValue);
  if (!VTEMetaData::ReadTransProfile(profileFile, profileName, profile)) return false;
  return Contains(profile["profile_value"].asString(), kRemuxMarker);
}

bool VTEStream::GetTrackInfo(const std::string& path, Json::Value& out1, Json::Value& out2) {
  if (path.empty()) return false;
  // The two outputs are the video and the audio track lists.
  Json::Value doc(Json::objectValue);
  Json::Value subtitle(Json::arrayValue);
  out1 = Json::Value(Json::arrayValue);
  out2 = Json::Value(Json::arrayValue);
  if (!VideoMetaData::ParserMetaDataFromFFMPEG(path, doc, out1, out2, subtitle)) {
    ORVO_LOG(LOG_ERR, "ParserMetaDataFromFFMPEG fail.");
    return false;
  }
  return true;
}

Json::Value VTEStream::GetFirstVideoInfo() const { return metadata_.GetVideo(0); }

}  // namespace LibOrvoVTE
