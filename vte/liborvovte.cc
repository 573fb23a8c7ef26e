#include "vte/liborvovte.h"

#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "decisions/platform_utils.h"
#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "platform/orvofs.h"
#include "platform/volume.h"
#include "vte/session_sweep.h"
#include "vte/session_tree.h"
#include "vte/utils/md5.h"
#include "vte/utils/session_path.h"
#include "vte/utils/vteutils.h"

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

// Session directories are reached by other users' processes.
constexpr mode_t kSessionMode = 0777;
// Ids drawn at random practically never meet an existing session; a few
// draws more cover the rare case.
constexpr int kIdDraws = 8;

using session::TypeDir;

bool Contains(const std::string& text, const char* word) {
  return text.find(word) != std::string::npos;
}

// A stream id names a directory under the temp root and reaches every path of
// the session, and it may come from a client: only a plain, printable name
// keeps the session's files inside the session directory.
bool IsSafeStreamId(const std::string& id) {
  if (id.find_first_not_of(" \t") == std::string::npos) return false;
  return id != "." && id != ".." && id.find('/') == std::string::npos &&
         !HasControlCharacter(id);
}

// A session another user planted, by a link or a directory of its own, is
// never read (its profile would become the transcoder's command line) nor
// written into.
bool IsUsableSession(const std::string& type, const std::string& id) {
  if (session::Usable(session::Inspect(type, id))) return true;
  ORVO_LOG(LOG_ERR, "Refused session [%s/%s]: not one the library made for this user", type.c_str(),
           id.c_str());
  return false;
}

unsigned long long SpaceToAsk(const std::string& type, bool remux, unsigned long long needed) {
  if (type == "HLS" && remux) return needed != 0 ? needed : kRemuxHlsSpace;
  return kDefaultSpace;
}

// The id of a session the library names itself: the file's MD5, "_" and a
// decimal number. The number comes from the kernel's random source, so that
// neither the file's path nor the time tells it and two opens of one file
// in the same second differ.
std::string DrawId(const std::string& path) {
  const std::string digest = LibReelhall::GetMD5(path);
  if (digest.empty()) return "";
  unsigned int number = 0;
  ssize_t got;
  do {
    got = getrandom(&number, sizeof(number), 0);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof(number))) return "";
  // The range of the rand() numbers ids have always carried.
  return digest + "_" + std::to_string(number & 0x7fffffffU);
}

// The session's directory on the volume chosen for `neededBytes`, without
// creating anything; on a shortage the platform error slot tells why.
bool PickVolumeDir(unsigned long long neededBytes, const std::string& type,
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
  outDir = session::VolumeTypeDir(volume.mountPath, type) + "/" + streamId;
  return true;
}

enum class Creation { kCreated, kTaken, kFailed };

// Creates session `id`. `fresh` (an id the library drew): kTaken when
// anything already stands at the session path or at its volume directory.
// Otherwise a session of the library's own is reused and a stale link
// replaced. The link comes before its volume directory, so that a volume
// directory no link points to is always one to sweep away.
Creation CreateSession(const std::string& id, const std::string& type,
                       const std::string& profileFile, const std::string& profileName,
                       unsigned long long neededBytes, bool fresh) {
  if (id.empty() || type.empty() || profileFile.empty() || profileName.empty()) {
    return Creation::kFailed;
  }
  const std::string typeDir = TypeDir(type);
  if (!session::MakeTypeDir(typeDir)) return Creation::kFailed;
  const std::string sessionDir = SessionFilePath(type, id, "");

  if (type == "HTTP") {
    if (mkdir(sessionDir.c_str(), kSessionMode) == 0) {
      return chmod(sessionDir.c_str(), kSessionMode) == 0 ? Creation::kCreated : Creation::kFailed;
    }
    if (errno != EEXIST) return Creation::kFailed;
    if (fresh) return Creation::kTaken;
    const session::Entry entry = session::Inspect(type, id);
    return entry.kind == session::Entry::kMade && session::Usable(entry) ? Creation::kCreated
                                                                           : Creation::kFailed;
  }

  const unsigned long long space =
      SpaceToAsk(type, type == "HLS" && VTEStream::IsRemux(profileFile, profileName), neededBytes);
  std::string volumeDir;
  if (!PickVolumeDir(space, type, id, volumeDir)) {
    ORVO_LOG(LOG_ERR, "There are not enough volume space for streaming %s. Need space [%llu bytes]",
             type.c_str(), space);
    return Creation::kFailed;
  }
  if (!session::MakeTypeDir(volumeDir.substr(0, volumeDir.rfind('/')))) return Creation::kFailed;
  if (!session::CreateLink(type, id, volumeDir, fresh)) {
    return fresh && errno == EEXIST ? Creation::kTaken : Creation::kFailed;
  }
  struct stat info;
  const bool leftOver = fresh && lstat(volumeDir.c_str(), &info) == 0;
  if (!leftOver && librh::critical::orvosdk::ORVOFSMkdirPReelhall(volumeDir, kSessionMode)) {
    return Creation::kCreated;
  }
  unlink(sessionDir.c_str());
  return leftOver ? Creation::kTaken : Creation::kFailed;
}

}  // namespace

std::string VTEStream::VTE_Init(const std::string& path, const std::string& type,
                                const Json::Value& params, const std::string& profileFile,
                                const std::string& profileName, const std::string& device,
                                unsigned long long neededBytes) {
  if (path.empty() || type.empty() || profileFile.empty() || profileName.empty()) return "";
  try {
    // Each new session is the occasion to clear away the abandoned ones.
    SweepSessions(kAbandonedSeconds);
    const bool named =
        params.isObject() && params.isMember("stream_id") && params["stream_id"].isString();
    std::string id;
    Creation made = Creation::kTaken;
    if (named) {
      id = params["stream_id"].asString();
      if (!IsSafeStreamId(id)) {
        ORVO_LOG(LOG_ERR, "Bad parameter");
        return "";
      }
      made = CreateSession(id, type, profileFile, profileName, neededBytes, false);
    }
    for (int draw = 0; !named && made == Creation::kTaken && draw < kIdDraws; ++draw) {
      id = DrawId(path);
      if (id.empty()) return "";
      made = CreateSession(id, type, profileFile, profileName, neededBytes, true);
    }
    if (made != Creation::kCreated) return kTransSpaceNotEnough;
    if (!VTEMetaData::ParserMetaData(path, id, type, profileFile, profileName, device)) {
      ORVO_LOG(LOG_ERR, "VTEMetaData.ParserMetaData(%s, %s) failed", id.c_str(), type.c_str());
      // Nobody will use or close a session whose id was never handed out.
      session::Remove(type, id);
      return "";
    }
    return id;
  } catch (const std::exception&) {
    return "";
  }
}

// A stream of a session that is not the library's has no id, as for an id
// that is no name: it reaches no file at all.
VTEStream::VTEStream(const std::string& streamId, const std::string& type)
    : streamId_(IsSafeStreamId(streamId) && IsUsableSession(type, streamId) ? streamId : ""),
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
  return CreateSession(streamId, type, profileFile, profileName, neededBytes, false) ==
         Creation::kCreated;
}

bool GetTmpDir(unsigned long long neededBytes, const std::string& type,
               const std::string& streamId, std::string& outDir) {
  return PickVolumeDir(neededBytes, type, streamId, outDir) &&
         session::MakeTypeDir(outDir.substr(0, outDir.rfind('/'))) &&
         librh::critical::orvosdk::ORVOFSMkdirPReelhall(outDir, kSessionMode);
}

std::string VTEStream::GetVTEFileFullPath(const std::string& name) const {
  if (type_.empty() || streamId_.empty()) return "";
  // Asked again on every use: the session may have been closed since, and
  // something else planted under its name.
  const session::Entry entry = session::Inspect(type_, streamId_);
  if (!session::Usable(entry) || (entry.kind == session::Entry::kMissing && !name.empty())) {
    return "";
  }
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
