// Progressive HTTP playback, for one profile: how the length announced
// before transcoding (VTE_HTTP_PredictTransFileSize, the Content-Length)
// compares with what is produced, and how long a player waits for the first
// byte through the library compared with stock ffmpeg writing the same
// output directly. The difference is what the library adds: its process
// start-up, the double fork, the launcher.
//
//   http_stream_bench [runs]     (default 5 runs of each)
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bench/timing.h"
#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "toolkit/child_process.h"
#include "vte/http_stream.h"

namespace {

using bench::Clock;
using bench::Median;
using bench::MsSince;

// Stock encoder names, so that the library's launcher and the direct run
// get the very same options.
constexpr char kProfile[] = "http_320x240_x264_vb256_aac_ab64";
constexpr char kProfileValue[] =
    "-vcodec libx264 -preset veryfast -s 320x240 -b:v 256k -maxrate 256k -bufsize 512k "
    "-acodec aac -ab 64k -ar 44100 -ac 2 -f mpegts";
constexpr int kTimeoutSeconds = 120;

struct Run {
  double firstByteMs = -1;  // from the start of the transcoder
  double requestMs = -1;    // from session creation (what the player waits)
  unsigned long long bytes = 0;
  unsigned long long predicted = 0;
};

// One playback through the library, in a process of its own as a web request
// would be: "<first byte ms> <request ms> <bytes> <predicted>".
Run ThroughLibrary(const std::string& source, const std::string& profileFile, int number) {
  const std::string text = orvotest::TextFromChild(
      [&] {
        const Clock::time_point request = Clock::now();
        Json::Value params(Json::objectValue);
        params["stream_id"] = "bench" + std::to_string(number);
        const std::string id = LibOrvoVTE::VTEStream::VTE_Init(source, "HTTP", params, profileFile,
                                                               kProfile, "browser", 0);
        LibOrvoVTE::HttpStream stream(id);
        if (id.empty() || !stream.Init("")) return std::string();
        const unsigned long long predicted = stream.VTE_HTTP_PredictTransFileSize();
        const Clock::time_point start = Clock::now();
        const std::string ffmpeg = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
        if (!stream.Transcoding(ffmpeg, 0)) return std::string();
        char buffer[65536];
        double firstByte = -1;
        double wait = -1;
        unsigned long long bytes = 0;
        for (int got; (got = stream.Read(buffer, sizeof(buffer))) > 0; bytes += got) {
          if (firstByte < 0) {
            firstByte = MsSince(start);
            wait = MsSince(request);
          }
        }
        stream.Close();
        std::ostringstream result;
        result << firstByte << " " << wait << " " << bytes << " " << predicted;
        return result.str();
      },
      kTimeoutSeconds);
  Run run;
  std::istringstream(text) >> run.firstByteMs >> run.requestMs >> run.bytes >> run.predicted;
  return run;
}

// The same output from the stock ffmpeg, started directly.
Run Directly(const std::vector<std::string>& argv) {
  Run run;
  toolkit::Wiring quiet;
  quiet.err = toolkit::kDevNull;
  const Clock::time_point start = Clock::now();
  const int status = toolkit::RunProgram(
      argv, std::chrono::seconds(kTimeoutSeconds),
      [&run, start](const char*, size_t size) {
        if (run.firstByteMs < 0) run.firstByteMs = MsSince(start);
        run.bytes += size;
      },
      quiet);
  if (status != 0) run.firstByteMs = -1;
  return run;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = bench::CountArgument(argc, argv, 5, "http_stream_bench", "runs");
  if (runs < 0) return 2;
  // The transcoders are detached grandchildren: adopted here, and reaped.
  orvotest::BecomeSubreaper();
  orvotest::MachineRoot root;
  orvotest::InstallLaunchers(root);
  const std::string profileFile = root.Path() + "/profiles.json";
  {
    Json::Value profiles(Json::objectValue);
    profiles[kProfile] = kProfileValue;
    std::ofstream(profileFile) << profiles;
  }
  const std::string source = orvotest::TestMedia(orvotest::Media::kLongH264Mp3Mkv);
  if (source.empty()) {
    fprintf(stderr, "http_stream_bench: could not generate the source\n");
    return 1;
  }

  // The library's output options for this source, for the direct run.
  std::vector<std::string> direct = {"ffmpeg", "-nostdin", "-v", "error", "-ss", "0", "-copyts",
                                     "-i", source};
  {
    Json::Value params(Json::objectValue);
    params["stream_id"] = "options";
    const std::string id = LibOrvoVTE::VTEStream::VTE_Init(source, "HTTP", params, profileFile,
                                                           kProfile, "browser", 0);
    LibOrvoVTE::HttpStream stream(id);
    const std::vector<std::string> options = stream.CalculateFFmpegArgument();
    stream.Close();
    if (options.empty()) {
      fprintf(stderr, "http_stream_bench: no ffmpeg options for %s\n", kProfile);
      return 1;
    }
    direct.insert(direct.end(), options.begin(), options.end());
    direct.push_back("pipe:1");
  }

  std::vector<double> libraryFirst, libraryRequest, stockFirst;
  Run library;
  Run stock;
  // Interleaved, so a burst of load from elsewhere hits both sides.
  for (int run = 0; run < runs; ++run) {
    library = ThroughLibrary(source, profileFile, run);
    stock = Directly(direct);
    if (library.firstByteMs < 0 || stock.firstByteMs < 0) {
      fprintf(stderr, "http_stream_bench: run %d failed (library %.0f ms, stock %.0f ms)\n", run,
              library.firstByteMs, stock.firstByteMs);
      orvotest::ChildrenEnded(10);
      return 1;
    }
    libraryFirst.push_back(library.firstByteMs);
    libraryRequest.push_back(library.requestMs);
    stockFirst.push_back(stock.firstByteMs);
  }
  const bool clean = orvotest::ChildrenEnded(10);

  printf("profile %s, source %s (40 s)\n", kProfile,
         orvotest::MediaName(orvotest::Media::kLongH264Mp3Mkv).c_str());
  printf("size: predicted %llu bytes, produced %llu through the library, %llu by stock ffmpeg"
         " (prediction %+.1f%%)\n",
         library.predicted, library.bytes, stock.bytes,
         100.0 * (static_cast<double>(library.predicted) - library.bytes) / library.bytes);
  printf("first byte (medians of %d runs): library %.0f ms from Transcoding, %.0f ms from"
         " session creation; stock ffmpeg %.0f ms; library adds %.0f ms\n",
         runs, Median(libraryFirst), Median(libraryRequest), Median(stockFirst),
         Median(libraryFirst) - Median(stockFirst));
  if (!clean) {
    fprintf(stderr, "http_stream_bench: a transcoder outlived its stream\n");
    return 1;
  }
  return 0;
}
