// Real HLS playback for end-to-end tests: a machine root with the
// launchers, sessions opened and served by web requests each in a process
// of its own, and the checks that nothing of a stream outlives it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "toolkit/answer_file.h"

namespace orvotest {

class PlaybackTest : public ::testing::Test {
 protected:
  // A fresh x86 root with the launchers and the profiles below; this
  // process becomes the subreaper of every monitor and transcoder.
  void SetUp() override;
  // Kills and reaps whatever a failed case left; shows the end of the
  // request log when the case failed.
  void TearDown() override;
  MachineRoot& Root() { return *root_; }
  // From here on, when this process is root, requests (and the segment
  // readers a test starts) run as the web server's user with root saved,
  // as on the NAS; the places where the library makes sessions let them.
  void ServeAsWebServerUser();

  // Profiles: "paced" (transcode, paced at ten times real time, so a run
  // is still going while the test acts on it), "slow" (the same at real
  // time, for a run that must outlast a whole case), "remux" (video copied),
  // "broken" (a transcoder that exits at once), "gst" (a GStreamer pipeline,
  // for a root that plays a GStreamer platform).
  // Creates and opens HLS session `id`, asking for `space` bytes of volume
  // (0: the library's default); "ok" or what failed (the stream's error
  // code when Init refused).
  std::string Open(const std::string& id, const std::string& profile,
                   Media media = Media::kLongH264AacMp4, long long space = 0);
  struct Request;
  // Starts that request without waiting; FinishRequest gives its answer.
  Request StartOpen(const std::string& id, const std::string& profile,
                    Media media = Media::kLongH264AacMp4, long long space = 0);
  // One segment request (Transcoding, then ReadFragment): the path served,
  // "" when refused, "<...>" when the request failed.
  std::string Segment(const std::string& id, int fragment, int timeoutSeconds = 90);
  // Starts that request without waiting; WaitForChild reaps it, 0 when
  // it was served.
  pid_t StartSegment(const std::string& id, int fragment);
  bool Close(const std::string& id);

  // A web request: `body` runs in a child process whose output, and that of
  // the monitors and transcoders it starts, goes to the request log. Its
  // text comes back through an answer file once the request has ended,
  // whatever the processes it started still hold.
  struct Request {
    pid_t pid = -1;
    std::shared_ptr<toolkit::AnswerFile> answer;
  };
  Request StartRequest(const std::function<std::string()>& body);
  // Waits at most `timeoutSeconds` (then kills); the text, or
  // "<request failed: N>" when the child did not end with 0.
  std::string FinishRequest(Request request, int timeoutSeconds = 90);

  std::string File(const std::string& id, const std::string& name) const;
  int MonitorPid(const std::string& id) const;

  // Empty when every child of this process ends within `seconds` (reaped),
  // the registry parses and holds only live pids; else what is wrong.
  std::string Leftovers(int seconds = 10);
  // Whether a new stream opens and serves its first segment completely.
  bool LaterStreamWorks(const std::string& id);

 private:
  std::unique_ptr<MachineRoot> root_;
  std::string profiles_;
  std::string requestLog_;
  bool asWebServerUser_ = false;
};

// Whether `path` is a whole MPEG-TS segment with decodable picture and
// sound; `videoStart` and `videoFrames`, when given, get its first video
// timestamp and its number of pictures.
bool CompleteSegment(const std::string& path, double* videoStart = nullptr,
                     long* videoFrames = nullptr);

}  // namespace orvotest
