// Which segment requests the running transcoder will serve and which need a
// new run, and waiting for a segment file to be complete.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "platform/fixed_waits.h"
#include "platform/log.h"
#include "platform/volume.h"
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
constexpr char kLogTag[] = "hls_segments";
// A segment is a run of whole transport-stream packets.
constexpr off_t kPacketBytes = 188;

long ParseId(const std::string& text) { return strtol(text.c_str(), nullptr, 10); }

}  // namespace

bool HttpLiveStream::SegmentIsWhole(int fragment) const {
  struct stat info;
  if (stat(GetSegmentTsPath(fragment).c_str(), &info) != 0) return false;
  // A write cut short by a full volume leaves an empty file or a torn
  // packet; either would reach the client as a broken segment.
  return info.st_size > 0 && info.st_size % kPacketBytes == 0;
}

void HttpLiveStream::RemoveCutSegments(int from) const {
  int fragment = from;
  while (SegmentIsWhole(fragment)) ++fragment;
  // Past the first cut one nothing was written whole either.
  while (unlink(GetSegmentTsPath(fragment).c_str()) == 0) ++fragment;
}

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
  if (IsFFmpegRun() && !VerifyFileExist(GetSegmentTsPath(fragment + 1), 0)) return false;
  // Only a full volume cuts segments short; until the monitor has cleared
  // them away they must not be served.
  return SegmentIsWhole(fragment) || !VolumeFull(GetVTEFileFullPath(""));
}

std::string HttpLiveStream::ReadFragment(const std::string& fragmentId) {
  if (streamId_.empty() || type_.empty() || profileArgs_.empty() || fragmentId.empty()) {
    return "";
  }
  const std::string segment = GetSegmentTsPath(static_cast<int>(ParseId(fragmentId)));
  for (int round = 1; round <= kReadRounds; ++round) {
    if (VerifyFragmentIsReady(fragmentId)) return segment;
    // Nothing more is coming when the run that would write it stops for
    // want of room, and no new one starts.
    if (VolumeFull(GetVTEFileFullPath(""))) {
      ORVO_LOG(LOG_ERR, "ReadFragment: no space left for file[%s]", fragmentId.c_str());
      break;
    }
    // The run ended, or died, without it, and none is on its way.
    if (IsStartAbandoned(segment)) {
      ORVO_LOG(LOG_ERR, "ReadFragment: no run left to write file[%s]", fragmentId.c_str());
      break;
    }
    librh::waits::Sleep(1);
    if (!CheckSequence() || round == kReadRounds) break;
  }
  return "";
}

}  // namespace LibOrvoVTE
