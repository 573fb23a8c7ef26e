// Real HLS playback for end-to-end tests: sessions opened and served by web
// requests each in a process of its own, and what a stream leaves behind.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "toolkit/answer_file.h"

namespace orvotest {

// One segment or fragment request of a Stream (HttpLiveStream,
// SmoothStream) in a process of its own, its transcoders' output going to
// the request log: the path served, "" when refused, "<...>" when it failed.
template <typename Stream>
std::string Fetch(const std::string& id, const std::string& name, int timeoutSeconds = 90) {
  return TextFromChild(
      [&] {
        SendOutputTo(librh::machine::Resolve("/requests.log"));
        Stream stream(id);
        return stream.Transcoding(name) ? stream.ReadFragment(name) : std::string();
      },
      timeoutSeconds);
}

class PlaybackTest : public ::testing::Test {
 protected:
  // A fresh x86 root with the launchers and the profiles Open names; this
  // process the subreaper of every monitor and transcoder.
  void SetUp() override;
  // Kills and reaps what a failed case left; shows the end of the request log.
  void TearDown() override;
  MachineRoot& Root() { return *root_; }
  // From here on, when this process is root, requests run as the web
  // server's user with root saved, as on the NAS.
  void ServeAsWebServerUser();

  // Creates and opens HLS session `id` with `profile` ("paced": ten times
  // real time, "slow": real time, "remux": video copied, "broken": exits at
  // once), asking for `space` bytes of volume (0: the default); "ok" or what
  // failed (the error code when Init refused).
  std::string Open(const std::string& id, const std::string& profile,
                   Media media = Media::kLongH264AacMp4, long long space = 0);
  struct Request;
  Request StartOpen(const std::string& id, const std::string& profile,
                    Media media = Media::kLongH264AacMp4, long long space = 0);
  // One segment request, as Fetch.
  std::string Segment(const std::string& id, int fragment, int timeoutSeconds = 90);
  // Starts that request; WaitForChild reaps it, 0 when it was served.
  pid_t StartSegment(const std::string& id, int fragment);
  bool Close(const std::string& id);

  // A web request: `body` runs in a child whose output, and its monitors'
  // and transcoders', goes to the request log; its text comes back through
  // an answer file, whatever those processes still hold.
  struct Request {
    pid_t pid = -1;
    std::shared_ptr<toolkit::AnswerFile> answer;
  };
  Request StartRequest(const std::function<std::string()>& body);
  // Waits at most `timeoutSeconds` (then kills); the text, or
  // "<request failed: N>".
  std::string FinishRequest(Request request, int timeoutSeconds = 90);

  std::string File(const std::string& id, const std::string& name) const;
  int MonitorPid(const std::string& id) const;

  // Empty when every child ends within `seconds` (reaped) and the registry
  // parses and holds only live pids; else what is wrong.
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
// sound; `videoStart` and `videoFrames` get its first video timestamp and
// its number of pictures.
bool CompleteSegment(const std::string& path, double* videoStart = nullptr,
                     long* videoFrames = nullptr);

}  // namespace orvotest
