// How much the in-process probe saves over starting ffprobe for the same
// answer. Every playback request probes its file once, so this is latency a
// viewer waits for. The target is the library at least 5x faster.
//
//   probe_bench [runs]     (default 15 runs of each, per file)
extern "C" {
#include <libavutil/log.h>
}

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/timing.h"
#include "metadata/video_metadata.h"
#include "tests/support/child.h"
#include "tests/support/test_media.h"

namespace {

using bench::Clock;
using bench::Median;

constexpr int kFfprobeTimeoutSeconds = 30;

// Milliseconds taken by `work`, or a negative value when it failed.
template <typename Work>
double TimeMs(Work work) {
  const Clock::time_point start = Clock::now();
  const bool ok = work();
  const std::chrono::duration<double, std::milli> spent = Clock::now() - start;
  return ok ? spent.count() : -1;
}

bool ProbeInProcess(const std::string& path) {
  Json::Value document(Json::objectValue);
  return LibOrvoVTE::VideoMetaData::ReadMetaDataFromFFMPEG(path, document);
}

bool ProbeWithFfprobe(const std::string& path) {
  return orvotest::RunQuietly({"ffprobe", "-v", "quiet", "-print_format", "json", "-show_format",
                               "-show_streams", path},
                              kFfprobeTimeoutSeconds) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = bench::CountArgument(argc, argv, 15, "probe_bench", "runs");
  if (runs < 0) return 2;
  // The attachment in tracks.mkv has no codec, which libavformat warns about.
  av_log_set_level(AV_LOG_ERROR);
  const std::vector<orvotest::Media> kinds = {
      orvotest::Media::kH264AacMp4,   orvotest::Media::kTracksMkv,
      orvotest::Media::kAc3DataTs,    orvotest::Media::kAudioOnlyMp3,
      orvotest::Media::kVideoOnlyAvi, orvotest::Media::kVp9VorbisWebm,
  };

  printf("%-20s %12s %12s %8s   (medians of %d runs)\n", "file", "library ms", "ffprobe ms",
         "ratio", runs);
  std::vector<double> allLibrary;
  std::vector<double> allFfprobe;
  double worstRatio = 0;
  for (orvotest::Media kind : kinds) {
    const std::string name = orvotest::MediaName(kind);
    const std::string path = orvotest::TestMedia(kind);
    if (path.empty()) {
      fprintf(stderr, "probe_bench: could not generate %s\n", name.c_str());
      return 1;
    }
    // One untimed run of each fills the page cache and loads the codecs.
    ProbeInProcess(path);
    ProbeWithFfprobe(path);
    std::vector<double> library;
    std::vector<double> ffprobe;
    // Interleaved, so a burst of load from elsewhere hits both sides.
    for (int run = 0; run < runs; ++run) {
      library.push_back(TimeMs([&] { return ProbeInProcess(path); }));
      ffprobe.push_back(TimeMs([&] { return ProbeWithFfprobe(path); }));
      if (library.back() < 0 || ffprobe.back() < 0) {
        fprintf(stderr, "probe_bench: probing %s failed\n", name.c_str());
        return 1;
      }
    }
    const double libraryMedian = Median(library);
    const double ffprobeMedian = Median(ffprobe);
    const double ratio = ffprobeMedian / libraryMedian;
    worstRatio = worstRatio == 0 ? ratio : std::min(worstRatio, ratio);
    printf("%-20s %12.2f %12.2f %7.1fx\n", name.c_str(), libraryMedian, ffprobeMedian, ratio);
    allLibrary.insert(allLibrary.end(), library.begin(), library.end());
    allFfprobe.insert(allFfprobe.end(), ffprobe.begin(), ffprobe.end());
  }
  const double libraryMedian = Median(allLibrary);
  const double ffprobeMedian = Median(allFfprobe);
  printf("%-20s %12.2f %12.2f %7.1fx   (worst file %.1fx; target 5.0x)\n", "overall",
         libraryMedian, ffprobeMedian, ffprobeMedian / libraryMedian, worstRatio);
  return 0;
}
