#include "tests/support/playback.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/stream_watch.h"
#include "vte/http_live_stream.h"
#include "vte/utils/json_utils.h"

namespace orvotest {

namespace {

constexpr char kProfiles[] = R"({
  "paced": "-vcodec libx264 -preset ultrafast -s 160x120 -b:v 200k -vf realtime=speed=10 -acodec libfdk_aac -ab 64k",
  "remux": "-vcodec copy -bsf:v h264_mp4toannexb -acodec libfdk_aac -ab 64k",
  "broken": "-vcodec no_such_encoder -acodec libfdk_aac"
})";

// The transcoders' chatter goes here rather than into the test's output.
void Quiet() {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null < 0) return;
  dup2(null, STDOUT_FILENO);
  dup2(null, STDERR_FILENO);
  close(null);
}

}  // namespace

std::vector<pid_t> ChildrenOf(pid_t parent) {
  std::vector<pid_t> children;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return children;
  while (const dirent* entry = readdir(proc)) {
    const pid_t pid = atoi(entry->d_name);
    if (pid <= 0) continue;
    std::ifstream in("/proc/" + std::string(entry->d_name) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(in)), {});
    const size_t end = stat.rfind(')');
    char state = 0;
    int ppid = 0;
    if (end != std::string::npos && sscanf(stat.c_str() + end + 1, " %c %d", &state, &ppid) == 2 &&
        ppid == parent && state != 'Z') {
      children.push_back(pid);
    }
  }
  closedir(proc);
  return children;
}

bool CompleteSegment(const std::string& path) {
  ProbedMedia media;
  if (path.empty() || !ProbeMedia(path, &media, "mpegts")) return false;
  const ProbedStream* video = media.Stream("video");
  const ProbedStream* audio = media.Stream("audio");
  return video != nullptr && video->frames > 0 && audio != nullptr && audio->frames > 0;
}

void PlaybackTest::SetUp() {
  ASSERT_TRUE(BecomeSubreaper());
  root_ = std::make_unique<MachineRoot>();
  root_->AddVolume(1);
  InstallLaunchers(*root_);
  profiles_ = root_->Path() + "/profiles.json";
  std::ofstream(profiles_) << kProfiles;
}

void PlaybackTest::TearDown() {
  for (int round = 0; round < 3; ++round) {
    for (pid_t pid : ChildrenOf(getpid())) kill(pid, SIGKILL);
    ChildrenEnded(2);
  }
  root_.reset();
}

std::string PlaybackTest::Open(const std::string& id, const std::string& profile, Media media) {
  const std::string source = TestMedia(media);
  const std::string profiles = profiles_;
  return TextFromChild(
      [&] {
        Quiet();
        Json::Value options(Json::objectValue);
        options["stream_id"] = id;
        const std::string made = LibOrvoVTE::VTEStream::VTE_Init(source, "HLS", options, profiles,
                                                                 profile, "browser", 0);
        if (made != id) return "VTE_Init gave \"" + made + "\"";
        LibOrvoVTE::HttpLiveStream stream(id);
        Json::Value params;
        params["url"] = "/api/stream";
        params["format"] = "hls";
        if (!stream.Init(params, Json::Value(), "", "")) return stream.GetErrorString();
        return std::string("ok");
      },
      60);
}

std::string PlaybackTest::Segment(const std::string& id, int fragment, int timeoutSeconds) {
  return TextFromChild(
      [&] {
        Quiet();
        LibOrvoVTE::HttpLiveStream stream(id);
        const std::string number = std::to_string(fragment);
        if (!stream.Transcoding(number)) return std::string();
        return stream.ReadFragment(number);
      },
      timeoutSeconds);
}

pid_t PlaybackTest::StartSegment(const std::string& id, int fragment) {
  return StartChild([id, fragment] {
    Quiet();
    LibOrvoVTE::HttpLiveStream stream(id);
    const std::string number = std::to_string(fragment);
    return stream.Transcoding(number) && !stream.ReadFragment(number).empty() ? 0 : 1;
  });
}

bool PlaybackTest::Close(const std::string& id) {
  return RunInChild([&] { return LibOrvoVTE::HttpLiveStream(id).Close() ? 0 : 1; }) == 0;
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
