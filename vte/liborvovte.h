// The stream session: what one playback of one file keeps on disk so that
// every later request, in whatever process, finds it again by its id.
//
// Session directory: <temp root>/<type>/<stream id>. For "HTTP" it is a plain
// directory; for every other type a symbolic link to <volume>/@tmp/Reelhall/
// <type>/<stream id> on a data volume with room, so segments never fill the
// system partition.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "metadata/vtemetadata.h"

namespace LibOrvoVTE {

// Error codes a stream reports (GetErrorString). Clients match on these
// texts, misspellings included.
// Also returned by VTE_Init in place of an id when no volume has the space.
inline constexpr char kTransSpaceNotEnough[] = "TransSapceNotEnough";
inline constexpr char kErrAudioNotSupported[] = "TransAudioNotSupported";
inline constexpr char kErrVideoNotSupported[] = "TransVideoNotSupported";
inline constexpr char kErrVideoNotHardwareSupported[] = "TransVideoNotHardwareSupported";
inline constexpr char kErrVideoResolution[] = "TransVideoOutOfResolutionCapability";
inline constexpr char kErrVideoProfile[] = "TransVideoOutOfProfileCapability";
inline constexpr char kErrVideoFramerate[] = "TransVideoOutOfFramerateCapability";
inline constexpr char kErrOfflineConverting[] = "TransEnableOfflineConverting";
inline constexpr char kErrTransEnable[] = "TransEnable";

class VTEStream {
 public:
  // Creates a session for `path` and returns its id; kTransSpaceNotEnough
  // when no volume has the space; "" on any other failure, including a
  // "stream_id" in `params` that is not a plain name.
  static std::string VTE_Init(const std::string& path, const std::string& type,
                              const Json::Value& params, const std::string& profileFile,
                              const std::string& profileName, const std::string& device,
                              unsigned long long neededBytes);

  virtual unsigned int GetMetaVideoRotate() const;
  virtual ~VTEStream();

  std::string GetStreamID() const { return streamId_; }
  std::string GetErrorString() const { return error_; }
  // Keeps `code` for the caller to report; false and no change for "".
  bool SetError(const std::string& code);

  // Creates the session directory for `type` (a link to a volume for every
  // type but "HTTP").
  static bool CreateTmpDir(const std::string& streamId, const std::string& type,
                           const std::string& profileFile, const std::string& profileName,
                           unsigned long long neededBytes);
  // The session directory, or the file `name` in it; "" without id or type.
  std::string GetVTEFileFullPath(const std::string& name) const;
  // Whether profile `profileName` of the profile file copies the video.
  static bool IsRemux(const std::string& profileFile, const std::string& profileName);
  // Probes `path` for its video (out1) and audio (out2) track lists.
  static bool GetTrackInfo(const std::string& path, Json::Value& out1, Json::Value& out2);
  Json::Value GetFirstVideoInfo() const;

  // The checks every stream kind makes before it starts a transcoder: the
  // session exists, its audio and video can be handled here, and the machine
  // admits one more transcoder. The first failure leaves its error code
  // (some failures leave none) and yields false. Saves "audio_id" when
  // `audioId` is not empty.
  bool InitStreamCommon(const std::string& audioId, bool stopOfflineConversion);
  // Whether the load registry admits this stream's transcoder; may ask the
  // offline conversion service to yield when `stopOfflineConversion`.
  bool CheckTransLoading(bool stopOfflineConversion);

  // Turns the calling (already forked) process into the ffmpeg transcoder of
  // this session, registered in the load registry unless it only remuxes.
  // Returns only on failure (false).
  bool ExecuteTranscoding(long seekSeconds, bool copyTimestamps,
                          const std::vector<std::string>& arguments, const std::string& output,
                          const std::string& program);
  // The same with a GStreamer pipeline built from the session's profile;
  // `sink` is the pipeline's tail.
  bool ExecuteGstreamerTranscoding(long seekSeconds, const std::vector<std::string>& sink,
                                   const std::string& program, bool shiftTimestamps);
  // Records `pid` (when > 0) as the session's monitor under "filelock",
  // sending SIGTERM to the one recorded before and, when `waitForOld`,
  // waiting up to five seconds for it to end.
  bool SaveMonitorPid(int pid, bool waitForOld) const;
  // Whether the recorded monitor is alive.
  bool IsFFmpegRun() const;
  // Stops the monitor and removes the session's volume directory and link.
  bool CloseStreamCommon();
  bool RemoveTransDir();

  // Option lists with the audio encoder forced to `format` ("copy", "mp3",
  // "aac"), and with the "-s" size fitted to the source.
  std::vector<std::string> ForceFFmpegAudioFormat(const std::vector<std::string>& options,
                                                  const std::string& format);
  std::vector<std::string> ForceFFmpegVideoSize(const std::vector<std::string>& options,
                                                bool noAspect) const;
  // The audio track id the client asked for ("" when none was saved).
  std::string GetRequestAudioID() const;
  bool IsSourceAudioCodec(const std::string& codec) const;

 protected:
  // Reattaches to the session `streamId` of `type`: loads its metadata and
  // derives the remux, hardware and GStreamer flags from its profile. An id
  // that is not a plain name (a "/", "." or "..", blank, control characters)
  // leaves the stream with an empty id, so it reaches no file at all.
  VTEStream(const std::string& streamId, const std::string& type);
  VTEStream(const VTEStream&) = delete;
  VTEStream& operator=(const VTEStream&) = delete;

  std::string streamId_;
  std::string type_;
  std::string error_;
  std::string profileArgs_;
  bool remux_;
  bool hardware_;
  VTEMetaData metadata_;
  bool gstreamer_;
};

// Finds a data volume with `neededBytes` free and creates the session's
// directory on it, returned in `outDir`. On a shortage the platform error
// slot tells why (0x2900 read-only volume, 0x8300 no volume, 0xDD00 full).
bool GetTmpDir(unsigned long long neededBytes, const std::string& type,
               const std::string& streamId, std::string& outDir);

}  // namespace LibOrvoVTE
