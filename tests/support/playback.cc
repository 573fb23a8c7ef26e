#include "tests/support/playback.h"

#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <iostream>
#include <sstream>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/stream_watch.h"
#include "toolkit/files.h"
#include "vte/http_live_stream.h"
#include "vte/utils/json_utils.h"

namespace orvotest {

namespace {

constexpr char kProfiles[] = R"({
  "paced": "-vcodec libx264 -preset ultrafast -s 160x120 -b:v 200k -vf realtime=speed=10 -acodec libfdk_aac -ab 64k",
  "slow": "-vcodec libx264 -preset ultrafast -s 160x120 -b:v 200k -vf realtime=speed=1 -acodec libfdk_aac -ab 64k",
  "remux": "-vcodec copy -bsf:v h264_mp4toannexb -acodec libfdk_aac -ab 64k",
  "broken": "-vcodec no_such_encoder -acodec libfdk_aac"
})";

std::string ServeSegment(const std::string& id, int fragment) {
  LibOrvoVTE::HttpLiveStream stream(id);
  const std::string number = std::to_string(fragment);
  return stream.Transcoding(number) ? stream.ReadFragment(number) : "";
}

}  // namespace

bool CompleteSegment(const std::string& path, double* videoStart, long* videoFrames) {
  ProbedMedia media;
  if (path.empty() || !ProbeMedia(path, &media, "mpegts")) return false;
  const ProbedStream* video = media.Stream("video");
  const ProbedStream* audio = media.Stream("audio");
  if (!video || video->frames <= 0 || !audio || audio->frames <= 0) return false;
  if (videoStart) *videoStart = video->start;
  if (videoFrames) *videoFrames = video->frames;
  return true;
}

void PlaybackTest::SetUp() {
  ASSERT_TRUE(BecomeSubreaper());
  root_ = std::make_unique<MachineRoot>();
  InstallLaunchers(*root_);
  profiles_ = root_->Path() + "/profiles.json";
  std::ofstream(profiles_) << kProfiles;
  requestLog_ = root_->Path() + "/requests.log";
}

void PlaybackTest::ServeAsWebServerUser() {
  if (geteuid() != 0) return;
  asWebServerUser_ = true;
  for (const char* path : {"", librh::machine::kTempRoot, "/run", "/volume1"}) {
    chmod(root_->At(path).c_str(), 01777);
  }
}

void PlaybackTest::TearDown() {
  // A killed monitor's transcoder is adopted only once the monitor is gone.
  for (int round = 0; round < 3; ++round) ChildrenEnded(0);
  if (HasFailure()) {
    const std::string log = toolkit::ReadWholeFile(requestLog_);
    std::cerr << log.substr(log.size() > 4000 ? log.size() - 4000 : 0);
  }
  root_.reset();
}

PlaybackTest::Request PlaybackTest::StartRequest(const std::function<std::string()>& body) {
  Request request;
  request.answer = std::make_shared<toolkit::AnswerFile>(root_->Path());
  const toolkit::AnswerFile& answer = *request.answer;
  const std::string log = requestLog_;
  const bool asWebServerUser = asWebServerUser_;
  request.pid = StartChild([&] {
    // The transcoders inherit the request's output: their chatter goes to
    // the request log rather than into the test's output.
    SendOutputTo(log);
    if (asWebServerUser && !BecomeWebServerUser()) return 1;
    return answer.Write(body()) ? 0 : 1;
  });
  return request;
}

std::string PlaybackTest::FinishRequest(Request request, int timeoutSeconds) {
  const int status = WaitForChild(request.pid, timeoutSeconds);
  return status == 0 ? request.answer->Read() : "<request failed: " + std::to_string(status) + ">";
}

std::string PlaybackTest::Open(const std::string& id, const std::string& profile, Media media,
                               long long space) {
  return FinishRequest(StartOpen(id, profile, media, space), 60);
}

PlaybackTest::Request PlaybackTest::StartOpen(const std::string& id, const std::string& profile,
                                              Media media, long long space) {
  const std::string source = TestMedia(media);
  const std::string profiles = profiles_;
  return StartRequest([&] {
    Json::Value options(Json::objectValue);
    options["stream_id"] = id;
    const std::string made = LibOrvoVTE::VTEStream::VTE_Init(source, "HLS", options, profiles,
                                                             profile, "browser", space);
    if (made != id) return "VTE_Init gave \"" + made + "\"";
    LibOrvoVTE::HttpLiveStream stream(id);
    Json::Value params;
    params["url"] = "/api/stream";
    params["format"] = "hls";
    if (!stream.Init(params, Json::Value(), "", "")) return stream.GetErrorString();
    return std::string("ok");
  });
}

std::string PlaybackTest::Segment(const std::string& id, int fragment, int timeoutSeconds) {
  return FinishRequest(StartRequest([&] { return ServeSegment(id, fragment); }), timeoutSeconds);
}

pid_t PlaybackTest::StartSegment(const std::string& id, int fragment) {
  return StartRequest([id, fragment] {
           if (ServeSegment(id, fragment).empty()) _exit(1);
           return std::string();
         })
      .pid;
}

bool PlaybackTest::Close(const std::string& id) {
  return RunInChild([&] {
           if (asWebServerUser_ && !BecomeWebServerUser()) return 1;
           return LibOrvoVTE::HttpLiveStream(id).Close() ? 0 : 1;
         }) == 0;
}

std::string PlaybackTest::File(const std::string& id, const std::string& name) const {
  return SessionPath("HLS", id, name);
}

int PlaybackTest::MonitorPid(const std::string& id) const {
  return OLIBCReadPidFile(File(id, "monitor.pid").c_str());
}

std::string PlaybackTest::Leftovers(int seconds) {
  std::ostringstream wrong;
  if (!ChildrenEnded(seconds)) wrong << "processes were left (killed now); ";
  Json::Value registry;
  const std::string path = librh::machine::Resolve(librh::machine::kLoadRegistry);
  if (Exists(path) && (!LibReelhall::ReadJsonFromFile(path, registry) ||
                       !(registry.isArray() || registry.isNull()))) {
    wrong << "the registry does not parse; ";
  }
  for (int pid : RegistryPids()) {
    if (!OLIBCProcAlive(pid)) wrong << "the registry holds dead pid " << pid << "; ";
  }
  return wrong.str();
}

bool PlaybackTest::LaterStreamWorks(const std::string& id) {
  if (Open(id, "paced", Media::kH264AacMp4) != "ok") return false;
  const bool served = CompleteSegment(Segment(id, 0));
  return Close(id) && served;
}

}  // namespace orvotest
