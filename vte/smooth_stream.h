// Smooth Streaming: the client first fetches a manifest that is predicted
// before anything is transcoded, then asks for fragments by their Smooth
// names, QualityLevels(<bit rate>)/Fragments(video=<time>) or (audio=<time>),
// times in 100-nanosecond units. The transcoder writes 5-second fragments
// under the session's "smooth" directory with exactly these names; a request
// far from what it has produced restarts it at the requested time.
//
// Session files: "manifest_predict" (the manifest), "seek_time" (the second
// the current run started at), "smooth/" (the fragments), "monitor.pid".
#pragma once

#include <json/json.h>

#include <csignal>
#include <string>
#include <vector>

#include "vte/adapt_stream.h"

namespace LibOrvoVTE {

// The monitor process's state (one per process): the flag its signal
// handler raises, and the pid of its transcoder child (0 when none).
extern volatile sig_atomic_t gSSSignal;
extern int gPidSSFFMPEG;

class SmoothStream : public AdaptStream {
 public:
  explicit SmoothStream(const std::string& streamId);
  ~SmoothStream() override;

  // Runs the open checks and predicts the manifest. `extra` and `text` are
  // not used. Any failure removes the session directory.
  bool Init(const Json::Value& params, const Json::Value& extra, const std::string& audioId,
            const std::string& text) override;
  // Called for each fragment request before ReadFragment: starts a
  // transcoder (under a detached monitor) when none has been started or the
  // request is far from what the running one produces. Audio requests never
  // restart it.
  bool Transcoding(const std::string& fragmentId) override;
  // Waits (at most 60 one-second polls) until the fragment is complete and
  // returns its full path; "" on a time-out or a bad id. Never returns a
  // path outside the session directory.
  std::string ReadFragment(const std::string& fragmentId) override;
  // The path of the predicted manifest; "" without id or type.
  std::string GetMainfest();

  // Splits "QualityLevels(q)/Fragments(video=t)" into its parts: `quality`
  // is the first part, `time` the number, `type` "video=" or "audio=". False
  // (outputs untouched) unless the id has exactly two parts; without either
  // marker, time and type keep what they held.
  bool ParseFragId(const std::string& fragmentId, std::string& time, std::string& type,
                   std::string& quality) const;
  // The request's time in whole seconds, also written to "seek_time".
  long CalculateSeekTime(const std::string& fragmentId) const;
  // Whether the request lies before the current run's start or more than
  // 50 seconds beyond its newest fragment (or nothing runs yet).
  bool IsNeedToSeek(const std::string& fragmentId) const;
  // Whether the fragment `fragmentsAhead` + 1 after the requested one has
  // been started (so the requested one is complete), or nothing more will
  // come because the transcoder has ended.
  bool VerifyFragmentIsReady(const std::string& fragmentId, unsigned int fragmentsAhead) const;
  // The transcoder options: the profile with its "-s" height key replaced
  // by the predicted size, then the fragment options.
  std::vector<std::string> CalculateFFmpegArgument() const;
  // The monitor's body: starts the transcoder child and supervises it until
  // it ends, the session idles for 900 seconds, or a signal arrives.
  void ExecuteMointer(const std::string& fragmentId);
  // Interrupts the transcoder child and reaps it.
  static void WaitAllChild();
  static void MointerSignalHandler(int);

  // Manifest prediction.
  // Writes "manifest_predict"; false when the URL, the duration or the
  // profile cannot be predicted for.
  bool Predict_Manifest(const Json::Value& params) const;
  // The picture size for a profile height key ("240" ... "1080") and the
  // source's aspect class; `size` is "<width>x<height>".
  bool GetTransResolution(const std::string& heightKey, std::string& width, std::string& height,
                          std::string& size) const;
  // The manifest's values for the session's profile, for the hardware
  // encoder and for the software encoder respectively.
  bool ParseHWTransParameter(std::string& width, std::string& height, std::string& bitrate,
                             std::string& audioBitrate, std::string& samplingRate,
                             std::string& codecPrivateData) const;
  bool ParseTransParameter(std::string& width, std::string& height, std::string& bitrate,
                           std::string& audioBitrate, std::string& samplingRate,
                           std::string& codecPrivateData) const;

 protected:
  std::string profileKey;
  // The current run's start in seconds.
  long seekTime;
};

}  // namespace LibOrvoVTE
