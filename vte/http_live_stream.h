// HTTP Live Streaming: one object per web request, bound to a session by its
// id. The opening request writes the playlists; every segment request runs
// Transcoding (start or restart the transcoder when the segment is out of
// its reach) and then ReadFragment (wait for the segment file).
//
// The transcoder runs under a detached monitor process recorded in the
// session's "monitor.pid"; all state shared between requests is in the
// session directory:
//   "slice-%05d.ts"         segments, numbered from the run's start segment
//   "seek_time"             the segment the current run started at
//   "request_fragment_id"   the previous request's segment (remux seeks)
//   "request_sequence"      the newest restarting request's token
//   "audio_format"          the client's audio format ("mp3", "aac", ...)
//   "segments.csv"          the segments the transcoder has finished
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "vte/adapt_stream.h"

namespace LibOrvoVTE {

// The monitor process's state (meaningful in a monitor only): the signal
// flag its handler sets, and its transcoder and segmenter children (0 when
// none).
extern volatile sig_atomic_t gHLSSignal;
extern pid_t gPidHLSTransBin;
extern pid_t gPidHLSSegBin;

class HttpLiveStream : public AdaptStream {
 public:
  explicit HttpLiveStream(const std::string& streamId);
  ~HttpLiveStream() override;

  // Opens the stream and writes its playlists. With a "subtitle_id" in
  // `subtitleParams` the stream id's playlist is a master playlist naming
  // "video.m3u8" and the subtitle renditions. `audioId` is the requested
  // audio track, `audioFormat` the client's audio format (kept in the
  // session). Removes the session on failure.
  bool Init(const Json::Value& params, const Json::Value& subtitleParams,
            const std::string& audioId, const std::string& audioFormat) override;
  // Keeps the segments' headers: ffmpeg then writes each segment as a file
  // a player can start with. Call before Transcoding.
  bool EnableHLSHeader();
  // Starts a new transcoder run at segment `fragmentId` unless the running
  // one will produce it soon. True when a run will produce it.
  bool Transcoding(const std::string& fragmentId) override;
  // The full path of segment `fragmentId` once complete; waits at most a
  // minute, and gives up after a round when a newer request restarted the
  // transcoder. "" on failure.
  std::string ReadFragment(const std::string& fragmentId) override;

  // The media time (seconds) at which segment `fragmentId` starts; -1 for
  // an id ParseFragment refuses.
  long CalculateSeekTime(const std::string& fragmentId) const;
  // The ffmpeg options of a run starting at `fragmentId`: the profile's,
  // with the audio and size fitted, and the segmenting options. Empty when
  // the stream has no profile or no video.
  std::vector<std::string> CalculateFFmpegArgument(const std::string& fragmentId) const;
  // The monitor's body: starts the transcoder (and on GStreamer platforms a
  // segmenter fed through a pipe) for a run at `fragmentId`, supervises it
  // until it ends, a signal arrives or no client accessed the stream for
  // 900 seconds, and then stops and reaps its children.
  void ExecuteMointer(const std::string& fragmentId);
  // Replaces the process with an ffmpeg that cuts the MPEG-TS read from
  // `readFd` into 5-second segments numbered from `startNumber`. Returns
  // (false) only when the exec failed.
  bool ExecuteSegmenter(int readFd, int startNumber);
  // Interrupts the monitor's children, kills a transcoder that does not
  // stop within a second, and reaps them.
  void WaitAllChild() const;
  static void MointerSignalHandler(int signalNumber);
  // Whether the requested audio track is AAC-LC, which HLS carries as is.
  bool IsAACLCAudioCodec() const;

  // Playlists. The generators write into the session directory and log
  // nothing; GetMainfest names the file to send for a playlist type
  // ("video", "subtitle", anything else: the stream's main playlist).
  bool GenVideoPlaylist(const Json::Value& params) const;
  bool GenIndexPlaylist(const Json::Value& params, const Json::Value& subtitleParams) const;
  std::string GetMainfest(const std::string& type, const std::string& subtitleArg);
  // Makes this request the newest one: a new token, kept and saved.
  // "" when the clock fails.
  std::string WriteSequence();
  // Whether no request newer than this one has restarted the transcoder.
  bool CheckSequence();

  // Segments and seeking.
  std::string GetSegmentTsPath(int fragment) const;
  // The segment number of a fragment id, as strtol reads it (text that is
  // no number is segment 0). False for an id with a control character (NUL
  // included), or a negative or absurdly large number.
  static bool ParseFragment(const std::string& fragmentId, int* fragment);
  // Whether the transcoder has finished the segment: it lists it with the
  // segment's full length (or up to the end of the video), and the file
  // holds whole packets.
  bool SegmentIsWhole(int fragment) const;
  // The same against the text of the transcoder's list.
  bool ListedWhole(const std::string& list, int fragment) const;
  // Removes, from `from` on, the first segment that is not whole and every
  // one after it: what a run wrote once it was killed or its volume full.
  void RemoveCutSegments(int from) const;
  // The segment the current run started at ("seek_time"), 0 when unknown.
  int RunStart() const;
  // RemoveCutSegments of the last run, when it has ended and no new one is
  // being started.
  void ClearCutSegments() const;
  bool IsTransAndSegNeedToRestart(const std::string& fragmentId) const;
  bool IsHLSRemuxSeek(const std::string& fragmentId) const;
  bool VerifyFragmentIsReady(const std::string& fragmentId) const;

  // Subtitles (defined in http_live_stream_subtitle.cc).
  std::string GetSubtitleURL(const Json::Value& subtitleParams) const;
  bool GenSubtitlePlaylistTpl(const Json::Value& subtitleParams) const;
  std::string GenSubtitlePlaylist(const std::string& subtitleId) const;
  std::vector<std::pair<std::string, std::string>> GetSubtitleMap(
      const std::string& subtitleId) const;
  std::vector<std::pair<std::string, std::string>> GetExternalSubtitle() const;
  std::vector<std::pair<std::string, std::string>> GetInternalSubtitle() const;
  std::string ValidateLanguage(const Json::Value& info, const std::string& defaultName) const;
  bool IsLanguageCode(const std::string& text) const;
  bool IsShooter(const std::string& text) const;

 protected:
  // Segment length in seconds: a remux can only cut at the source's
  // keyframes, so it gets longer segments.
  int SegmentLength() const;

  bool subtitle_ = false;
  bool hlsHeader_ = false;
  long seekTime_ = 0;
  std::string sequence_;
};

}  // namespace LibOrvoVTE
