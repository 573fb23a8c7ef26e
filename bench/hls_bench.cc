// What a viewer waits for in HLS playback: the first segment after opening
// a stream, and a segment far ahead after a seek. Each is compared with
// stock ffmpeg producing the same segment directly, so the difference is
// what the library adds (process start-up, the monitor, the polling). The
// aim is no more than about one polling interval (1 s).
//
//   hls_bench [runs]     (default 5 runs of each)
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench/timing.h"
#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "vte/http_live_stream.h"

namespace {

using bench::Clock;
using bench::Median;
using bench::MsSince;
using LibOrvoVTE::HttpLiveStream;

constexpr char kProfile[] = "hls_320x240_x264_vb300_aac_ab64";
// The same encode as the profile, for the stock ffmpeg: the audio is AAC-LC
// and is copied, as the library does for HLS.
const std::vector<std::string> kStockEncode = {
    "-vcodec", "libx264", "-preset", "veryfast", "-profile:v", "baseline", "-s", "320x240",
    "-b:v",    "300k",    "-maxrate", "300k",    "-bufsize",    "600k",     "-acodec", "copy",
    "-map",    "0:v:0",   "-map",     "0:a:0",   "-force_key_frames", "expr:gte(t,n_forced*5)",
    "-f",      "segment", "-segment_time", "5", "-segment_format", "mpegts"};
constexpr int kSegmentSeconds = 5;
constexpr int kFarSegment = 15;
constexpr int kTimeoutSeconds = 90;

// Reaps whatever ended among the processes this one adopted.
void ReapAdopted() {
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
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

// Milliseconds until stock ffmpeg, started at `segment`, has finished it
// (the next one exists, the library's own criterion); -1 on failure.
double StockSegmentMs(const std::string& media, const std::string& dir, int segment) {
  std::filesystem::create_directories(dir);
  std::vector<std::string> argv = {"/usr/bin/ffmpeg", "-nostdin", "-y",
                                   "-ss", std::to_string(segment * kSegmentSeconds), "-i",
                                   media};
  argv.insert(argv.end(), kStockEncode.begin(), kStockEncode.end());
  argv.insert(argv.end(), {"-segment_start_number", std::to_string(segment), "-initial_offset",
                           std::to_string(segment * kSegmentSeconds), dir + "/slice-%05d.ts"});
  const Clock::time_point start = Clock::now();
  const pid_t pid = orvotest::StartProgram(argv);
  if (pid < 0) return -1;
  const bool done = orvotest::WaitForPath(SegmentName(dir, segment + 1), kTimeoutSeconds * 1000);
  const double spent = MsSince(start);
  kill(pid, SIGKILL);
  orvotest::WaitForChild(pid, 5);
  return done ? spent : -1;
}

struct LibraryTimes {
  double firstSegment = -1;
  double farSegment = -1;
};

LibraryTimes LibraryRun(const std::string& media, const std::string& profiles, int run) {
  LibraryTimes times;
  Json::Value params;
  params["stream_id"] = "bench-" + std::to_string(run);
  Json::Value streamParams;
  streamParams["url"] = "/api/stream";
  streamParams["format"] = "hls";

  const Clock::time_point start = Clock::now();
  const std::string id =
      LibOrvoVTE::VTEStream::VTE_Init(media, "HLS", params, profiles, kProfile, "browser", 0);
  if (id.empty() || id == LibOrvoVTE::kTransSpaceNotEnough) return times;
  const int opened = Request([&] { return HttpLiveStream(id).Init(streamParams, {}, "", ""); });
  const auto serve = [&id](int segment) {
    return Request([&] {
      HttpLiveStream stream(id);
      const std::string fragment = std::to_string(segment);
      return stream.Transcoding(fragment) && !stream.ReadFragment(fragment).empty();
    });
  };
  if (opened == 0 && serve(0) == 0) times.firstSegment = MsSince(start);

  const Clock::time_point seek = Clock::now();
  if (times.firstSegment >= 0 && serve(kFarSegment) == 0) times.farSegment = MsSince(seek);

  Request([&] { return HttpLiveStream(id).Close(); });
  for (int tenths = 0; tenths < 50; ++tenths) {
    ReapAdopted();
    usleep(100000);
  }
  return times;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = bench::CountArgument(argc, argv, 5, "hls_bench", "runs");
  if (runs < 0) return 2;
  // The monitors are detached; adopting them lets the bench reap them.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  orvotest::MachineRoot root;
  orvotest::InstallLaunchers(root);
  const std::string media = orvotest::TestMedia(orvotest::Media::kLongH264AacMp4);
  const std::string profiles = std::string(ORVOVTE_SAMPLE_PROFILES) + "/hls.json";
  if (media.empty()) return 1;

  std::vector<double> libFirst, libFar, stockFirst, stockFar;
  for (int run = 0; run < runs; ++run) {
    const LibraryTimes times = LibraryRun(media, profiles, run);
    const std::string stockDir = root.Path() + "/stock-" + std::to_string(run);
    const double first = StockSegmentMs(media, stockDir + "/first", 0);
    const double far = StockSegmentMs(media, stockDir + "/far", kFarSegment);
    if (times.firstSegment < 0 || times.farSegment < 0 || first < 0 || far < 0) {
      fprintf(stderr, "hls_bench: run %d failed (library %.0f/%.0f ms, ffmpeg %.0f/%.0f ms)\n",
              run, times.firstSegment, times.farSegment, first, far);
      return 1;
    }
    libFirst.push_back(times.firstSegment);
    libFar.push_back(times.farSegment);
    stockFirst.push_back(first);
    stockFar.push_back(far);
  }

  printf("HLS, %s on %s, median of %d runs\n", kProfile,
         orvotest::MediaName(orvotest::Media::kLongH264AacMp4).c_str(), runs);
  printf("%-34s %10s %10s %10s\n", "", "library", "ffmpeg", "added");
  const struct {
    const char* what;
    double library;
    double stock;
  } rows[] = {
      {"first segment (VTE_Init to ready)", Median(libFirst), Median(stockFirst)},
      {"seek to segment 15", Median(libFar), Median(stockFar)},
  };
  for (const auto& row : rows) {
    printf("%-34s %8.0f ms %7.0f ms %7.0f ms\n", row.what, row.library, row.stock,
           row.library - row.stock);
  }
  return 0;
}
