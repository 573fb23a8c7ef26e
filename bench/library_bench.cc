// Every source of the media matrix (what a home library holds), with the
// reference web API's profiles:
// - the progressive HTTP length predicted for the Content-Length against
//   what the library produces (the sample profile is tuned to land within
//   15 % below the prediction, never above);
// - how long the first HLS segment request takes through the library, and
//   how much that adds to stock ffmpeg writing the same segment from the
//   command line the launcher runs for it.
//
//   library_bench [runs]     (default 3 runs of each segment, medians)
#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/timing.h"
#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "nas/launchers/ffmpeg_translation.h"
#include "nas/launchers/stock_build.h"
#include "vte/http_live_stream.h"
#include "vte/http_stream.h"

namespace {

using bench::Clock;
using bench::Median;
using bench::MsSince;
using orvotest::Media;

constexpr char kHttpProfile[] = "http_320x240_x264_vb256_mp3_ab64";
constexpr char kHlsProfile[] = "hls_320x240_x264_vb300_aac_ab64";
constexpr int kTimeoutSeconds = 120;

// For a web request's process: its transcoders inherit its output, which
// would bury the report.
void Quiet() {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
  dup2(null, STDERR_FILENO);
  close(null);
}

// Sizes of one progressive HTTP playback through the library; 0 when the
// session could not be opened.
struct Sizes {
  unsigned long long predicted = 0, produced = 0;
};

Sizes Progressive(Media media, const std::string& id) {
  const std::string transcoder = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
  const std::string text = orvotest::TextFromChild(
      [&]() -> std::string {
        Quiet();
        if (orvotest::CreateSession(media, "HTTP", "http.json", kHttpProfile, id) != id) return "";
        LibOrvoVTE::HttpStream stream(id);
        if (!stream.Init("")) return "";
        const unsigned long long predicted = stream.VTE_HTTP_PredictTransFileSize();
        if (!stream.Transcoding(transcoder, 0)) return "";
        unsigned long long produced = 0;
        char buffer[65536];
        for (int got; (got = stream.Read(buffer, sizeof(buffer))) > 0;) produced += got;
        stream.Close();
        return std::to_string(predicted) + " " + std::to_string(produced);
      },
      kTimeoutSeconds);
  Sizes sizes;
  sscanf(text.c_str(), "%llu %llu", &sizes.predicted, &sizes.produced);
  return sizes;
}

bool OpenHls(Media media, const std::string& id) {
  return orvotest::RunInChild(
             [&] {
               Quiet();
               if (orvotest::CreateSession(media, "HLS", "hls.json", kHlsProfile, id) != id)
                 return 1;
               LibOrvoVTE::HttpLiveStream stream(id);
               Json::Value params;
               params["url"] = "/api/stream";
               params["format"] = "hls";
               return stream.Init(params, Json::Value(), "", "") ? 0 : 1;
             },
             kTimeoutSeconds) == 0;
}

// The first segment request of a fresh session, as the web API makes it:
// its duration in ms, -1 when nothing was served.
double FirstSegmentThroughLibrary(Media media, const std::string& id) {
  if (!OpenHls(media, id)) return -1;
  const std::string text = orvotest::TextFromChild(
      [&] {
        Quiet();
        LibOrvoVTE::HttpLiveStream stream(id);
        const Clock::time_point start = Clock::now();
        const bool served = stream.Transcoding("0") && !stream.ReadFragment("0").empty();
        return served ? std::to_string(MsSince(start)) : std::string("-1");
      },
      kTimeoutSeconds);
  orvotest::RunInChild([&] { return LibOrvoVTE::HttpLiveStream(id).Close() ? 0 : 1; });
  orvotest::ChildrenEnded(10);
  return text.empty() || text[0] == '<' ? -1 : atof(text.c_str());
}

// What the launcher runs for the first segment of `id`: the library's own
// command line, recorded by a stand-in, then translated. Empty, with the
// reason in `why`, when the library runs nothing.
std::vector<std::string> StockCommand(Media media, const std::string& id, const std::string& dir,
                                      std::string* why) {
  *why = "refused at open";
  if (!OpenHls(media, id)) return {};
  *why = "no transcoder started";
  int status = -1;
  const orvotest::Recording recording = orvotest::RecordStart(
      dir + "/record",
      [&] {
        LibOrvoVTE::HttpLiveStream stream(id);
        return stream.ExecuteTranscoding(0, false, stream.CalculateFFmpegArgument("0"),
                                         dir + "/slice-%05d.ts", orvotest::StandInProgram());
      },
      status);
  orvotest::RunInChild([&] { return LibOrvoVTE::HttpLiveStream(id).Close() ? 0 : 1; });
  launchers::FFmpegPlan plan;
  std::string error;
  if (status != 0 ||
      !launchers::PlanFFmpeg(recording.argv, ORVOVTE_STOCK_FFMPEG, launchers::StockHasEncoder,
                             launchers::InspectSource, &plan, &error)) {
    return {};
  }
  return plan.argv;
}

// Stock ffmpeg on `argv` until its first segment is complete (the next one
// begun, or the run over); ms, -1 when it never came.
double FirstSegmentByStock(const std::vector<std::string>& argv, const std::string& dir) {
  namespace fs = std::filesystem;
  const Clock::time_point start = Clock::now();
  const pid_t pid = orvotest::StartProgram(argv);
  double ms = -1;
  for (;;) {
    const bool ended = waitpid(pid, nullptr, WNOHANG) == pid;
    if (fs::exists(dir + "/slice-00001.ts") || (ended && fs::exists(dir + "/slice-00000.ts"))) {
      ms = MsSince(start);
      if (!ended) orvotest::WaitForChild(pid, 0);
      break;
    }
    if (ended || MsSince(start) > kTimeoutSeconds * 1000.0) {
      if (!ended) orvotest::WaitForChild(pid, 0);
      break;
    }
    usleep(5000);
  }
  for (const std::string name : {"/slice-00000.ts", "/slice-00001.ts", "/slice-00002.ts"}) {
    std::error_code ignored;
    fs::remove(dir + name, ignored);
  }
  return ms;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? atoi(argv[1]) : 3;
  if (argc > 2 || runs < 1) {
    fprintf(stderr, "usage: library_bench [runs]\n");
    return 2;
  }
  // Monitors and transcoders are detached: adopted here, and reaped.
  orvotest::BecomeSubreaper();
  orvotest::MachineRoot root;
  orvotest::InstallLaunchers(root);
  const std::string scratch = root.AddVolume(9);

  printf("%-22s %10s %10s %7s | %23s\n", "", "HTTP bytes", "", "", "first HLS segment, ms");
  printf("%-22s %10s %10s %7s | %7s %7s %7s\n", "source", "predicted", "produced", "share",
         "library", "stock", "added");
  int session = 0;
  bool clean = true;
  for (Media media : orvotest::LibraryMedia()) {
    const std::string name = orvotest::MediaName(media);
    if (orvotest::TestMedia(media).empty()) {
      fprintf(stderr, "library_bench: could not generate %s\n", name.c_str());
      return 1;
    }
    const Sizes sizes = Progressive(media, "http" + std::to_string(++session));
    std::string why;
    const std::vector<std::string> stock =
        StockCommand(media, "cmd" + std::to_string(++session), scratch, &why);
    std::vector<double> library, direct;
    for (int run = 0; run < runs && !stock.empty(); ++run) {
      const double through = FirstSegmentThroughLibrary(media, "hls" + std::to_string(++session));
      const double by = FirstSegmentByStock(stock, scratch);
      if (through < 0 || by < 0) break;
      library.push_back(through);
      direct.push_back(by);
    }
    clean = orvotest::ChildrenEnded(10) && clean;
    printf("%-22s %10llu %10llu %6.1f%% | ", name.c_str(), sizes.predicted, sizes.produced,
           sizes.predicted ? 100.0 * sizes.produced / sizes.predicted : 0.0);
    if (library.size() == static_cast<size_t>(runs)) {
      printf("%7.0f %7.0f %+7.0f\n", Median(library), Median(direct),
             Median(library) - Median(direct));
    } else {
      printf("%23s\n", stock.empty() ? why.c_str() : "not served");
    }
    fflush(stdout);
  }
  if (!clean) {
    fprintf(stderr, "library_bench: a process of a stream outlived it\n");
    return 1;
  }
  return 0;
}
