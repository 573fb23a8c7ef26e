// Which segment requests the running transcoder will serve and which need a
// new run, and waiting for a segment file to be complete.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "vte/http_live_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

constexpr char kSeekTimeFile[] = "seek_time";
constexpr char kRequestFragmentFile[] = "request_fragment_id";

// A run produces its first segments within seconds; a request inside this
// window of the run's start waits for them instead of restarting.
constexpr long kStartWindow = 4;
// How far a request may run ahead of the transcoder's last segment and still
// be waited for.
constexpr long kAheadWindow = 4;
// A remuxed MP4 source restarts on a jump longer than this, in segments.
constexpr long kRemuxJump = 7;
constexpr int kReadRounds = 60;

long ParseId(const std::string& text) { return strtol(text.c_str(), nullptr, 10); }

}  // namespace

std::string HttpLiveStream::GetSegmentTsPath(int fragment) const {
  char name[128];
  snprintf(name, sizeof(name), "%s-%05d.ts", "slice", fragment);
  return GetVTEFileFullPath(name);
}

bool HttpLiveStream::IsTransAndSegNeedToRestart(const std::string& fragmentId) const {
  if (streamId_.empty() || fragmentId.empty()) return false;
  const long requested = ParseId(fragmentId);
  const std::string started = ReadFile(GetVTEFileFullPath(kSeekTimeFile));
  if (!started.empty()) {
    const long start = ParseId(started);
    if (start <= requested && requested <= start + kStartWindow) return false;
  }
  if (VerifyFileExist(GetSegmentTsPath(static_cast<int>(requested)), 0)) return false;
  if (!IsFFmpegRun()) return true;
  const long reached = requested > kAheadWindow ? requested - kAheadWindow : 0;
  return !VerifyFileExist(GetSegmentTsPath(static_cast<int>(reached)), 0);
}

bool HttpLiveStream::IsHLSRemuxSeek(const std::string& fragmentId) const {
  if (streamId_.empty() || fragmentId.empty()) return false;
  const std::string recordPath = GetVTEFileFullPath(kRequestFragmentFile);
  const std::string previous = ReadFile(recordPath);
  SaveFile(recordPath, fragmentId);
  if (previous.empty() || !remux_) return false;
  // Other containers' sources are cut where the transcoder happens to be.
  if (metadata_.GetContainer().find("mp4") == std::string::npos) return false;
  const long before = ParseId(previous);
  const long now = ParseId(fragmentId);
  return before + kRemuxJump < now || now + kRemuxJump < before;
}

bool HttpLiveStream::VerifyFragmentIsReady(const std::string& fragmentId) const {
  if (streamId_.empty() || fragmentId.empty()) return false;
  const int fragment = static_cast<int>(ParseId(fragmentId));
  if (!VerifyFileExist(GetSegmentTsPath(fragment), 0)) return false;
  // The segmenter opens the next file only after closing this one.
  if (IsFFmpegRun()) return VerifyFileExist(GetSegmentTsPath(fragment + 1), 0);
  return true;
}

std::string HttpLiveStream::ReadFragment(const std::string& fragmentId) {
  if (streamId_.empty() || type_.empty() || profileArgs_.empty() || fragmentId.empty()) {
    return "";
  }
  for (int round = 1; round <= kReadRounds; ++round) {
    if (VerifyFragmentIsReady(fragmentId)) {
      return GetSegmentTsPath(static_cast<int>(ParseId(fragmentId)));
    }
    sleep(1);
    if (!CheckSequence() || round == kReadRounds) break;
  }
  return "";
}

}  // namespace LibOrvoVTE
