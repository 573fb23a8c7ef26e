// Which segment requests the running transcoder will serve and which need a
// new run, and waiting for a segment file to be complete.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "platform/fixed_waits.h"
#include "platform/log.h"
#include "platform/volume.h"
#include "platform/whole_file.h"
#include "vte/hls_playlists.h"
#include "vte/http_live_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

constexpr char kSeekTimeFile[] = "seek_time";
constexpr char kRequestFragmentFile[] = "request_fragment_id";
// The transcoder's own account of the segments it finished, one line
// "<segment file>,<start>,<end>" (seconds) each, written as each one is
// closed (docs/launchers.md).
constexpr char kSegmentListFile[] = "segments.csv";

// A run produces its first segments within seconds; a request inside this
// window of the run's start waits for them instead of restarting.
constexpr int kStartWindow = 4;
// How far a request may run ahead of the transcoder's last segment and still
// be waited for.
constexpr int kAheadWindow = 4;
// A remuxed MP4 source restarts on a jump longer than this, in segments.
constexpr int kRemuxJump = 7;
constexpr int kReadRounds = 60;
constexpr char kLogTag[] = "hls_segments";
// A segment is a run of whole transport-stream packets.
constexpr off_t kPacketBytes = 188;
// The segmenter cuts at the first packet at or after each boundary, so a
// finished segment lasts its length give or take a frame; one cut short by
// a kill or a full volume ends anywhere before.
constexpr double kLengthSlack = 0.25;
// Fragment numbers beyond this would overflow the arithmetic on them (the
// start second, the next segment, a remux jump); no video is that long.
constexpr long kLastFragment = INT_MAX / hls::kRemuxSegmentSeconds - kRemuxJump - 1;

// The length the transcoder listed for segment file `name` (its last line
// for it), or -1 when it did not list it.
double ListedLength(const std::string& list, const std::string& name) {
  const std::string head = name + ",";
  size_t at = std::string::npos;
  for (size_t line = 0; line < list.size();) {
    if (list.compare(line, head.size(), head) == 0) at = line + head.size();
    const size_t next = list.find('\n', line);
    if (next == std::string::npos) break;
    line = next + 1;
  }
  if (at == std::string::npos || list.find('\n', at) == std::string::npos) return -1;
  double start = 0;
  double end = 0;
  if (sscanf(list.c_str() + at, "%lf,%lf", &start, &end) != 2 || end < start) return -1;
  return end - start;
}

}  // namespace

bool HttpLiveStream::ParseFragment(const std::string& fragmentId, int* fragment) {
  if (HasControlCharacter(fragmentId)) return false;
  const long number = strtol(fragmentId.c_str(), nullptr, 10);
  if (number < 0 || number > kLastFragment) return false;
  *fragment = static_cast<int>(number);
  return true;
}

bool HttpLiveStream::SegmentIsWhole(int fragment) const {
  std::string list;
  return librh::ReadWholeFile(GetVTEFileFullPath(kSegmentListFile), &list) && ListedWhole(list, fragment);
}

bool HttpLiveStream::ListedWhole(const std::string& list, int fragment) const {
  struct stat info;
  const std::string path = GetSegmentTsPath(fragment);
  // A write cut short by a full volume leaves an empty file or a torn packet.
  if (stat(path.c_str(), &info) != 0 || info.st_size == 0 || info.st_size % kPacketBytes != 0) {
    return false;
  }
  const double length = ListedLength(list, path.substr(path.rfind('/') + 1));
  // The last segment of the video ends with it.
  const long remaining = static_cast<long>(metadata_.GetDuration()) -
                         static_cast<long>(fragment) * SegmentLength();
  const double expected = remaining < SegmentLength() ? remaining : SegmentLength();
  return length >= 0 && length >= expected - kLengthSlack;
}

void HttpLiveStream::RemoveCutSegments(int from) const {
  std::string list;
  librh::ReadWholeFile(GetVTEFileFullPath(kSegmentListFile), &list);
  int fragment = from;
  while (ListedWhole(list, fragment)) ++fragment;
  // Past the first cut one nothing was written whole either.
  while (unlink(GetSegmentTsPath(fragment).c_str()) == 0) ++fragment;
}

int HttpLiveStream::RunStart() const {
  int start = 0;
  const std::string text = ReadFile(GetVTEFileFullPath(kSeekTimeFile));
  return ParseFragment(text, &start) ? start : 0;
}

std::string HttpLiveStream::GetSegmentTsPath(int fragment) const {
  char name[128];
  snprintf(name, sizeof(name), "%s-%05d.ts", "slice", fragment);
  return GetVTEFileFullPath(name);
}

bool HttpLiveStream::IsTransAndSegNeedToRestart(const std::string& fragmentId) const {
  int requested = 0;
  if (streamId_.empty() || fragmentId.empty() || !ParseFragment(fragmentId, &requested)) {
    return false;
  }
  const std::string started = ReadFile(GetVTEFileFullPath(kSeekTimeFile));
  if (!started.empty()) {
    const int start = RunStart();
    if (start <= requested && requested <= start + kStartWindow) return false;
  }
  if (VerifyFileExist(GetSegmentTsPath(requested), 0)) return false;
  if (!IsFFmpegRun()) return true;
  const int reached = requested > kAheadWindow ? requested - kAheadWindow : 0;
  return !VerifyFileExist(GetSegmentTsPath(reached), 0);
}

bool HttpLiveStream::IsHLSRemuxSeek(const std::string& fragmentId) const {
  int now = 0;
  if (streamId_.empty() || fragmentId.empty() || !ParseFragment(fragmentId, &now)) return false;
  const std::string recordPath = GetVTEFileFullPath(kRequestFragmentFile);
  const std::string previous = ReadFile(recordPath);
  SaveFile(recordPath, fragmentId);
  if (previous.empty() || !remux_) return false;
  // Other containers' sources are cut where the transcoder happens to be.
  if (metadata_.GetContainer().find("mp4") == std::string::npos) return false;
  int before = 0;
  if (!ParseFragment(previous, &before)) return false;
  return before + kRemuxJump < now || now + kRemuxJump < before;
}

bool HttpLiveStream::VerifyFragmentIsReady(const std::string& fragmentId) const {
  int fragment = 0;
  if (streamId_.empty() || fragmentId.empty() || !ParseFragment(fragmentId, &fragment)) {
    return false;
  }
  // Complete only once the transcoder has listed it whole; its size says
  // nothing (a run stopped by a signal closes its last segment cleanly).
  return SegmentIsWhole(fragment);
}

std::string HttpLiveStream::ReadFragment(const std::string& fragmentId) {
  int fragment = 0;
  if (streamId_.empty() || type_.empty() || profileArgs_.empty() || fragmentId.empty() ||
      !ParseFragment(fragmentId, &fragment)) {
    return "";
  }
  const std::string segment = GetSegmentTsPath(fragment);
  for (int round = 1; round <= kReadRounds; ++round) {
    if (VerifyFragmentIsReady(fragmentId)) return segment;
    if (IsClosed()) break;
    // Nothing more is coming when the run that would write it stops for
    // want of room, and no new one starts.
    if (VolumeFull(GetVTEFileFullPath(""))) {
      ORVO_LOG(LOG_ERR, "ReadFragment: no space left for file[%s]", fragmentId.c_str());
      break;
    }
    // The run ended, or died, without it, and none is on its way.
    if (IsStartLockFree() && !IsFFmpegRun() && !VerifyFragmentIsReady(fragmentId)) {
      ORVO_LOG(LOG_ERR, "ReadFragment: no run left to write file[%s]", fragmentId.c_str());
      break;
    }
    librh::waits::Sleep(1);
    if (!CheckSequence() || round == kReadRounds) break;
  }
  return "";
}

}  // namespace LibOrvoVTE
