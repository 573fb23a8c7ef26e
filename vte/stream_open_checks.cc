// The checks a stream makes when it is opened, before any transcoder runs.
#include <signal.h>

#include <exception>

#include "decisions/argument_helper.h"
#include "decisions/platform_utils.h"
#include "platform/fixed_waits.h"
#include "platform/log.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "vte/liborvovte.h"
#include "vte/utils/trans_loading.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

constexpr char kLogTag[] = "liborvovte";

// Clients match on these texts; they are part of the web API.

constexpr char kAudioIdFile[] = "audio_id";

// The conversion service is given about half a minute to let go of the
// transcoder; the client waits on this request meanwhile.
constexpr int kYieldPolls = 30;

const char* VideoErrorCode(unsigned int result) {
  switch (result) {
    case kHWTranscodeCodecUnsupported:
      return kErrVideoNotHardwareSupported;
    case kHWTranscodeOutOfResolution:
      return kErrVideoResolution;
    case kHWTranscodeOutOfProfile:
      return kErrVideoProfile;
    case kHWTranscodeOutOfFramerate:
      return kErrVideoFramerate;
    default:
      return kErrVideoNotSupported;
  }
}

// The registry lock is held only for the question, never across a sleep.
bool OfflineConverting() {
  LibReelhall::TransLoading registry;
  return registry.IsOffineConverting();
}

// SIGUSR1 asks the conversion service to pause; it answers by dropping its
// entries from the registry.
void AskConversionToYield() {
  const std::string pidFile = librh::machine::Resolve(librh::machine::kConversionPidFile);
  const int pid = OLIBCReadPidFile(pidFile.c_str());
  if (pid > 0) kill(pid, SIGUSR1);
}

void WaitForConversionToYield() {
  for (int poll = 0; poll < kYieldPolls; ++poll) {
    if (!OfflineConverting()) return;
    librh::waits::Sleep(1);
  }
}

}  // namespace

bool VTEStream::InitStreamCommon(const std::string& audioId, bool stopOfflineConversion) {
  try {
    ArgumentHelper helper(metadata_);
    if (streamId_ == kTransSpaceNotEnough) {
      SetError(kTransSpaceNotEnough);
      return false;
    }
    if (streamId_.empty() || type_.empty() || profileArgs_.empty()) return false;

    const std::string dir = GetVTEFileFullPath("");
    if (!VerifyFileExist(dir, 0)) {
      ORVO_LOG(LOG_ERR, "Can't file tmp file [%s]", dir.c_str());
      return false;
    }
    if (!helper.ZeroAudioTrack() && !helper.AbleToDecodeAudio(audioId)) {
      SetError(kErrAudioNotSupported);
      return false;
    }
    // Copying the video needs no transcoder, so a remux neither asks the
    // engine nor counts against the machine's limit.
    if (!remux_) {
      const unsigned int video = helper.AbleToTranscodeTheVideo(hardware_);
      if (video != kHWTranscodeOK) {
        SetError(VideoErrorCode(video));
        return false;
      }
      if (!CheckTransLoading(stopOfflineConversion)) return false;
    }
    if (audioId.empty()) return true;

    const std::string file = GetVTEFileFullPath(kAudioIdFile);
    if (!SaveFile(file, audioId)) {
      ORVO_LOG(LOG_ERR, "Failed to save audio ID [%s] in [%s]", audioId.c_str(), file.c_str());
      return false;
    }
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool VTEStream::CheckTransLoading(bool stopOfflineConversion) {
  try {
    // Braswell's engine has room for conversions and streams side by side.
    const bool braswell = librh::util::PlatformUtils::GetInst().IsBraswell();
    if (!braswell && stopOfflineConversion && OfflineConverting()) {
      AskConversionToYield();
      // Whether or not the service let go in time, the limit decides below.
      WaitForConversionToYield();
    }
    LibReelhall::TransLoading registry;
    if (!braswell && !stopOfflineConversion && registry.IsOffineConverting()) {
      SetError(kErrOfflineConverting);
      return false;
    }
    // An adaptive stream opens in one request and transcodes in later ones:
    // its place is taken now, so that the streams admitted here are the ones
    // that play, and those beyond the limit are refused here.
    const bool admitted = type_ == "HLS" || type_ == "SS"
                              ? registry.AdmitSession(type_ + "/" + streamId_, hardware_)
                              : registry.TransEnable(hardware_);
    if (!admitted) {
      SetError(kErrTransEnable);
      return false;
    }
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace LibOrvoVTE
