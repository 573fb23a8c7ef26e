// What a viewer waits for in HLS playback of an HD stream: the first
// segment after opening, and a segment far ahead of the running transcoder
// after a seek. Each is compared with stock ffmpeg producing the same
// segment from the same position with the same options (the command line
// the library's transcoder ran, its output moved), timed until the next
// segment exists, which is when the library serves one. The difference is
// what the library adds: its process start-up, the restart, the monitor,
// and the fragment wait's one-second rounds (about half a second on
// average). The aim is at most 0.7 s added for each.
//
//   hls_bench [runs]     (default 5 runs of each)
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "bench/timing.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "vte/http_live_stream.h"

namespace {

using bench::Clock;
using bench::Median;
using bench::MsSince;
using LibOrvoVTE::HttpLiveStream;

constexpr char kProfile[] = "hls_hd720_x264_vb2048_aac_ab128";
// A long HD source as viewers have them: a keyframe every two seconds.
constexpr int kSourceSeconds = 360;
constexpr char kSourceSize[] = "1280x720";
constexpr int kSegmentSeconds = 5;
// 300 s: far beyond what the first run reaches before the seek.
constexpr int kFarSegment = 60;
constexpr int kTimeoutSeconds = 90;
constexpr int kGenerateSeconds = 900;
const std::string kSegmentPattern = "/slice-%05d.ts";

// The source, generated into `dir`; "" on failure.
std::string GenerateSource(const std::string& dir) {
  const std::string path = dir + "/source-720p.mp4";
  const std::string length = std::to_string(kSourceSeconds);
  const int status = orvotest::RunQuietly(
      {"ffmpeg", "-nostdin", "-y", "-f", "lavfi", "-i",
       std::string("testsrc2=size=") + kSourceSize + ":rate=25:duration=" + length, "-f", "lavfi",
       "-i", "sine=frequency=440:sample_rate=48000:duration=" + length, "-c:v", "libx264",
       "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-g", "50", "-b:v", "4M", "-c:a", "aac",
       "-b:a", "128k", "-ac", "2", path},
      kGenerateSeconds);
  return status == 0 ? path : "";
}

// A web request in a process of its own; its exit status. Its output goes
// to /dev/null, and so does that of the monitor it may fork.
int Request(const std::function<bool()>& body) {
  return orvotest::RunInChild(
      [&] {
        const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(devNull, STDOUT_FILENO);
        dup2(devNull, STDERR_FILENO);
        return body() ? 0 : 1;
      },
      kTimeoutSeconds);
}

std::string SegmentName(const std::string& dir, int segment) {
  char name[32];
  snprintf(name, sizeof(name), "/slice-%05d.ts", segment);
  return dir + name;
}

// The command line of the transcoder the library runs for the stream: the
// stock ffmpeg with the options the launcher translated. Empty when none
// runs.
std::vector<std::string> RunningTranscoder() {
  const std::vector<int> pids = orvotest::RegistryPids();
  if (pids.size() != 1) return {};
  std::ifstream in("/proc/" + std::to_string(pids[0]) + "/cmdline");
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::string> words;
  for (size_t start = 0; start < text.size();) {
    const size_t end = text.find('\0', start);
    words.push_back(text.substr(start, end - start));
    start = end == std::string::npos ? text.size() : end + 1;
  }
  return words;
}

// Milliseconds until the library's transcoder command, run directly with
// what it writes into the session (the segments, their list) written into
// `dir` instead, has finished `segment` (the next one exists); -1 on
// failure.
double StockSegmentMs(std::vector<std::string> command, const std::string& dir, int segment) {
  const auto output = std::find_if(command.begin(), command.end(), [](const std::string& word) {
    return word.size() > kSegmentPattern.size() &&
           word.compare(word.size() - kSegmentPattern.size(), std::string::npos,
                        kSegmentPattern) == 0;
  });
  if (output == command.end()) return -1;
  const std::string session = output->substr(0, output->size() - kSegmentPattern.size());
  for (std::string& word : command) {
    if (word.compare(0, session.size(), session) == 0) word = dir + word.substr(session.size());
  }
  std::filesystem::create_directories(dir);
  const Clock::time_point start = Clock::now();
  const pid_t pid = orvotest::StartProgram(command);
  if (pid < 0) return -1;
  const std::string next = SegmentName(dir, segment + 1);
  const bool done = orvotest::WaitUntil([&] { return orvotest::Exists(next); }, kTimeoutSeconds * 1000);
  const double spent = MsSince(start);
  kill(pid, SIGKILL);
  orvotest::WaitForChild(pid, 5);
  std::filesystem::remove_all(dir);
  return done ? spent : -1;
}

// When the steps of one segment request happened, in ms from a start.
struct Timeline {
  double restarted = -1;  // Transcoding returned
  double done = -1;       // the segment was done: the next one existed
  double served = -1;     // ReadFragment returned its path
};

// One segment request in a process of its own (its output, and that of the
// monitor it may fork, on /dev/null), watched from here.
Timeline Serve(const std::string& id, int segment, Clock::time_point start,
               const std::string& marks) {
  Timeline timeline;
  const pid_t pid = orvotest::StartChild([&] {
    const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(devNull, STDOUT_FILENO);
    dup2(devNull, STDERR_FILENO);
    HttpLiveStream stream(id);
    const std::string fragment = std::to_string(segment);
    if (!stream.Transcoding(fragment)) return 1;
    std::ofstream(marks) << MsSince(start);
    return stream.ReadFragment(fragment).empty() ? 1 : 0;
  });
  if (pid < 0) return timeline;
  const std::string next = SegmentName(orvotest::SessionPath("HLS", id), segment + 1);
  for (;;) {
    if (timeline.done < 0 && access(next.c_str(), F_OK) == 0) timeline.done = MsSince(start);
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      if (WIFEXITED(status) && WEXITSTATUS(status) == 0) timeline.served = MsSince(start);
      break;
    }
    if (MsSince(start) > kTimeoutSeconds * 1000.0) {
      orvotest::WaitForChild(pid, 0);
      break;
    }
    usleep(5000);
  }
  std::ifstream(marks) >> timeline.restarted;
  std::filesystem::remove(marks);
  return timeline;
}

struct Run {
  Timeline first;  // from VTE_Init on
  Timeline far;    // from the seek's request on
  std::vector<std::string> firstCommand;
  std::vector<std::string> farCommand;
};

Run LibraryRun(const std::string& media, const std::string& profiles, const std::string& marks,
               int number) {
  Run run;
  Json::Value params;
  params["stream_id"] = "bench-" + std::to_string(number);
  Json::Value streamParams;
  streamParams["url"] = "/api/stream";
  streamParams["format"] = "hls";

  const Clock::time_point start = Clock::now();
  const std::string id =
      LibOrvoVTE::VTEStream::VTE_Init(media, "HLS", params, profiles, kProfile, "browser", 0);
  if (id.empty() || id == LibOrvoVTE::kTransSpaceNotEnough) return run;
  if (Request([&] { return HttpLiveStream(id).Init(streamParams, {}, "", ""); }) == 0) {
    run.first = Serve(id, 0, start, marks);
  }
  if (run.first.served >= 0) {
    run.firstCommand = RunningTranscoder();
    run.far = Serve(id, kFarSegment, Clock::now(), marks);
    if (run.far.served >= 0) run.farCommand = RunningTranscoder();
  }
  Request([&] { return HttpLiveStream(id).Close(); });
  // Nothing of the run may weigh on the stock runs that follow.
  orvotest::ChildrenEnded(20);
  return run;
}

std::string LoadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = bench::CountArgument(argc, argv, 5, "hls_bench", "runs");
  if (runs < 0) return 2;
  // The monitors are detached; adopting them lets the bench reap them.
  orvotest::BecomeSubreaper();
  orvotest::MachineRoot root;
  orvotest::InstallLaunchers(root);
  const std::string profiles = std::string(ORVOVTE_SAMPLE_PROFILES) + "/hls.json";
  fprintf(stderr, "hls_bench: generating a %d s %s source...\n", kSourceSeconds, kSourceSize);
  const std::string media = GenerateSource(root.Path());
  if (media.empty()) {
    fprintf(stderr, "hls_bench: cannot generate the source\n");
    return 1;
  }
  const std::string loadBefore = LoadAverage();

  std::vector<Timeline> first, far;
  std::vector<double> stockFirst, stockFar;
  for (int number = 0; number < runs; ++number) {
    const Run run = LibraryRun(media, profiles, root.Path() + "/marks", number);
    const std::string stockDir = root.Path() + "/stock";
    const double stockFirstMs = StockSegmentMs(run.firstCommand, stockDir, 0);
    const double stockFarMs = StockSegmentMs(run.farCommand, stockDir, kFarSegment);
    if (run.first.served < 0 || run.far.served < 0 || stockFirstMs < 0 || stockFarMs < 0) {
      fprintf(stderr, "hls_bench: run %d failed (library %.0f/%.0f ms, ffmpeg %.0f/%.0f ms)\n",
              number, run.first.served, run.far.served, stockFirstMs, stockFarMs);
      return 1;
    }
    fprintf(stderr,
            "run %d: first %.0f (done %.0f) vs %.0f ms; seek %.0f (restarted %.0f, done %.0f) vs "
            "%.0f ms\n",
            number, run.first.served, run.first.done, stockFirstMs, run.far.served,
            run.far.restarted, run.far.done, stockFarMs);
    first.push_back(run.first);
    far.push_back(run.far);
    stockFirst.push_back(stockFirstMs);
    stockFar.push_back(stockFarMs);
  }

  printf("HLS, %s on a %d s %s H.264/AAC source, median of %d runs\n", kProfile, kSourceSeconds,
         kSourceSize, runs);
  printf("load average (1, 5, 15 min): %s before, %s after\n", loadBefore.c_str(),
         LoadAverage().c_str());
  printf("%-40s %10s %10s %10s\n", "", "library", "ffmpeg", "added");
  const auto median = [](const std::vector<Timeline>& timelines, double Timeline::*step) {
    std::vector<double> values;
    for (const Timeline& timeline : timelines) values.push_back(timeline.*step);
    return Median(values);
  };
  const auto row = [](const std::string& what, double library, double stock) {
    printf("%-40s %8.0f ms %7.0f ms %7.0f ms\n", what.c_str(), library, stock, library - stock);
  };
  row("first segment served (open to served)", median(first, &Timeline::served),
      Median(stockFirst));
  row("  done (the next one exists)", median(first, &Timeline::done), Median(stockFirst));
  row("seek to segment " + std::to_string(kFarSegment) + " (" +
          std::to_string(kFarSegment * kSegmentSeconds) + " s) served",
      median(far, &Timeline::served), Median(stockFar));
  row("  done (the next one exists)", median(far, &Timeline::done), Median(stockFar));
  printf("%-40s %8.0f ms\n", "  restarted (Transcoding returned)", median(far, &Timeline::restarted));
  printf("served minus done: the fragment wait's one-second rounds\n");
  return 0;
}
