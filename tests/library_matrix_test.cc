// A home library through every stream kind with the sample profiles, every
// request in a process of its own, the served bytes decoded as a client
// does. Writes docs/media-matrix.md.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/playback.h"
#include "tests/support/stream_watch.h"
#include "toolkit/files.h"
#include "vte/http_live_stream.h"
#include "vte/http_stream.h"
#include "vte/smooth_stream.h"

namespace LibOrvoVTE {
namespace {

using orvotest::Media;
using orvotest::Picture;
using orvotest::ProbedMedia;
using orvotest::ProbedStream;

enum Kind { kHls, kSmooth, kHttp, kWebm, kGstHls, kKinds };
// Whether a kind's pictures keep the bars and BT.709 tags (Smooth clients
// decode with the manifest's tagless parameter sets; GStreamer's colours
// are its hardware's) and are announced turned for a portrait source.
const struct {
  const char *name, *type, *file, *profile, *codec;
  bool baseline, colours, turned;
} kKindRows[kKinds] = {
    {"HLS", "HLS", "hls.json", "hls_320x240_x264_vb300_aac_ab64", "h264", true, true, true},
    {"Smooth Streaming", "SS", "smooth.json", "smoothstreaming_240p_x264_vb200_vf15_aac_ab40",
     "h264", true, false, false},
    {"progressive HTTP", "HTTP", "http.json", "http_320x240_x264_vb256_mp3_ab64", "h264", false,
     true, false},
    {"WebM", "WEBM", "webm.json", "webm_320x240_vp8_vb256_vorbis_ab64", "vp8", false, true, true},
    {"HLS on Braswell (GStreamer)", "HLS", "gstreamer.json", "gst_hls_320x240_h264_aac", "h264",
     false, false, false}};
constexpr int kSmoothFps = 15;
constexpr int kBaselineProfile = 66;  // H.264 profile_idc, constraint flags aside
constexpr int kBarLevels = 30;        // how far a transcoded bar may drift
// The prediction is generous by design: the size stays within it and
// above this share of it.
constexpr double kLeastShareOfPrediction = 0.85;
constexpr double kDurationSlack = 0.2;  // a progressive muxer's rounding
constexpr int kWorkers = 4;
constexpr char kPlays[] = "plays";
constexpr char kNotServed[] = "not served";

struct Row {
  Media media;
  bool portrait;  // turned by 90 or 270 degrees
  bool bars;      // shows the SMPTE bars of Media::kBarsH264Mp4
  // Per kind: P plays, A is refused for its audio (no DTS or E-AC-3 unless
  // told to; progressive HTTP runs no audio check), N is not served (HLS
  // segments map an audio track; without one no transcoder starts).
  const char* expected;
};

const Row kRows[] = {
    {Media::kH264AacMp4, false, false, "PPPPP"},
    {Media::kBarsH264Mp4, false, true, "PPPPP"},
    {Media::kHdr10HevcMkv, false, true, "PPPPP"},
    {Media::kHlgHevcMp4, false, true, "PPPPP"},
    {Media::kH264444Ac3Mkv, false, false, "PPPPP"},
    {Media::kH264High10Eac3Mkv, false, false, "AAPAA"},
    {Media::kHevcFlacAssMkv, false, false, "PPPPP"},
    {Media::kVp9VorbisWebm, false, false, "PPPPP"},
    {Media::kAv1OpusWebm, false, false, "PPPPP"},
    {Media::kInterlacedMpeg2Ts, false, false, "PPPPP"},
    {Media::kAc3DataTs, false, false, "PPPPP"},
    {Media::kMpeg4Mp3Avi, false, false, "PPPPP"},
    {Media::kVideoOnlyAvi, false, false, "NPPPP"},
    {Media::kPhone90Mp4, true, false, "PPPPP"},
    {Media::kPhone270Mp4, true, false, "PPPPP"},
    {Media::kAnamorphicDtsMkv, false, false, "AAPAA"},
    {Media::kOddSizeMkv, false, false, "PPPPP"},
    {Media::kTracksMkv, false, false, "PPPPP"},
};
constexpr size_t kRowCount = sizeof(kRows) / sizeof(kRows[0]);

// What a client got from one cell.
struct Served {
  ProbedStream video;
  std::vector<Picture> pictures;       // the first
  int silent = 0;                      // pieces decoded without sound
  int width = 320, height = 240;       // the box of all profiles but Smooth's
  double seconds = 0, announced = 0;   // played, and announced in whole seconds
  long long bytes = 0, predicted = 0;  // progressive HTTP
};

// The middle of the SMPTE bars, as fractions of the picture: the seven 75 %
// bars of the top row, the black and white of the bottom one.
constexpr double kBars[][2] = {{0.18, 0.25}, {0.28, 0.25}, {0.39, 0.25},  {0.5, 0.25},  {0.6, 0.25},
                               {0.71, 0.25}, {0.82, 0.25}, {0.39, 0.875}, {0.94, 0.875}};

class LibraryMatrix : public ::testing::Test {
 protected:
  // "plays", "refused <code>", "not served", or "fails: <why>".
  std::string Play(const Row& source, const ProbedMedia& decoded, Kind kind,
                   const std::string& id) {
    const auto& row = kKindRows[kind];
    const std::string file = scratch_ + "/" + id;
    std::string verdict = orvotest::TextFromChild(
        [&] {
          orvotest::SendOutputTo(librh::machine::Resolve("/requests.log"));
          if (orvotest::CreateSession(source.media, row.type, row.file, row.profile, id) != id) {
            return std::string("fails: VTE_Init");
          }
          if (kind == kHttp) return Progressive<HttpStream>(id, file);
          if (kind == kWebm) return Progressive<WebMStream>(id, file);
          if (kind == kSmooth) return Adaptive<SmoothStream>(id, "ss");
          return Adaptive<HttpLiveStream>(id, "hls");
        },
        90);
    Served served;
    if (verdict.empty()) {
      verdict = kind == kSmooth                   ? PlaySmooth(id, &served)
                : kind == kHls || kind == kGstHls ? PlayHls(id, &served)
                                                  : PlayProgressive(file, &served);
    }
    if (kind == kSmooth) orvotest::RunInChild([&] { return SmoothStream(id).Close() ? 0 : 1; });
    if (kind == kHls || kind == kGstHls) {
      orvotest::RunInChild([&] { return HttpLiveStream(id).Close() ? 0 : 1; });
    }
    return verdict.empty() ? Check(source, decoded, kind, served) : verdict;
  }

  // One check per kind of fault a stream may show a client.
  std::string Check(const Row& source, const ProbedMedia& decoded, Kind kind, Served served) const {
    const auto& expected = kKindRows[kind];
    const ProbedStream& video = served.video;
    std::ostringstream wrong;
    if (video.codec != expected.codec) wrong << video.codec << " video; ";
    if (source.portrait && expected.turned) std::swap(served.width, served.height);
    if (video.width != served.width || video.height != served.height) {
      wrong << video.width << "x" << video.height << " for " << served.width << "x" << served.height
            << "; ";
    }
    if (video.pixelFormat != "yuv420p" || served.pictures.empty()) {
      wrong << video.pixelFormat << " pictures; ";
    }
    if (expected.baseline && (video.profile & 0xff) != kBaselineProfile) wrong << "not baseline; ";
    const bool bars = source.bars && expected.colours && !served.pictures.empty();
    for (size_t bar = 0; bars && bar < bars_.size(); ++bar) {
      const Picture::Rgb shown = served.pictures[0].At(kBars[bar][0], kBars[bar][1]);
      const Picture::Rgb& was = bars_[bar];
      if (std::max({std::abs(shown.r - was.r), std::abs(shown.g - was.g),
                    std::abs(shown.b - was.b)}) > kBarLevels) {
        wrong << "bar " << bar << " off; ";
      }
    }
    if (bars && (video.transfer != "bt709" || video.primaries != "bt709")) {
      wrong << "tagged " << video.primaries << "/" << video.transfer << "; ";
    }
    if (decoded.Stream("audio") && served.silent > 0) wrong << "no sound; ";
    const bool progressive = kind == kHttp || kind == kWebm;
    const ProbedStream& original = *decoded.Stream("video");
    const double seconds = original.end - original.start;
    const double least = progressive ? seconds - kDurationSlack : served.announced - 0.5;
    const double most = progressive ? seconds + kDurationSlack : served.announced + 1;
    if (served.seconds < least || served.seconds > most) {
      wrong << served.seconds << " s played, not " << least << " to " << most << "; ";
    }
    if (served.predicted > 0 && (served.bytes > served.predicted ||
                                 served.bytes < kLeastShareOfPrediction * served.predicted)) {
      wrong << served.bytes << " bytes for " << served.predicted << " predicted; ";
    }
    return wrong.str().empty() ? kPlays : "fails: " + wrong.str();
  }

  // In the request that created the session: "" or the cell's verdict.
  template <typename Stream>
  static std::string Adaptive(const std::string& id, const char* format) {
    Json::Value params;
    params["url"] = "/api/stream";
    params["format"] = format;
    Stream stream(id);
    return stream.Init(params, {}, "", "") ? "" : "refused " + stream.GetErrorString();
  }

  // The whole stream read into `file`, as the web API relays it.
  template <typename Stream>
  static std::string Progressive(const std::string& id, const std::string& file) {
    Stream stream(id);
    if (!stream.Init("")) return "refused " + stream.GetErrorString();
    if constexpr (std::is_same_v<Stream, HttpStream>) {
      std::ofstream(file + ".predicted") << stream.VTE_HTTP_PredictTransFileSize();
    }
    const std::string transcoder = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
    if (!stream.Transcoding(transcoder, 0)) return "fails: Transcoding";
    std::ofstream out(file, std::ios::binary);
    char buffer[65536];
    for (int got; (got = stream.Read(buffer, sizeof(buffer))) > 0;) out.write(buffer, got);
    return stream.Close() ? "" : "fails: Close";
  }

  // Decodes `path` into `served`, keeping its first picture when `first`.
  static std::string Decode(const std::string& path, const char* format, Served* served,
                            bool first) {
    ProbedMedia media;
    const std::string error =
        orvotest::DecodeMedia(path, &media, format, first ? &served->pictures : nullptr);
    if (!error.empty() || !media.Stream("video")) return "fails: " + error;
    served->video = *media.Stream("video");
    const ProbedStream* audio = media.Stream("audio");
    served->silent += !audio || audio->frames <= 0;
    return "";
  }

  static std::string PlayHls(const std::string& id, Served* served) {
    std::istringstream playlist(
        toolkit::ReadWholeFile(orvotest::SessionPath("HLS", id, id + ".m3u8")));
    double first = 0;
    int fragment = 0;
    for (std::string line; std::getline(playlist, line);) {
      if (line.rfind("#EXTINF:", 0) != 0) continue;
      served->announced += atoi(line.c_str() + 8);
      const std::string number = std::to_string(fragment++);
      // A player asks again for a segment it did not get, as hls.js does: a
      // run that ended without it (a GStreamer run cuts at keyframes, so
      // its first segment may take in the next one) is restarted there.
      std::string path = orvotest::Fetch<HttpLiveStream>(id, number);
      if (path.empty() || path[0] == '<') path = orvotest::Fetch<HttpLiveStream>(id, number);
      if (path.empty() || path[0] == '<') {
        return number == "0" ? kNotServed : "fails: segment " + number + " not served";
      }
      const std::string error = Decode(path, "mpegts", served, number == "0");
      if (!error.empty()) return "fails: segment " + number + ": " + error;
      if (number == "0") first = served->video.start;
      served->seconds = served->video.end - first;
    }
    return "";
  }

  // Every fragment in the manifest's order, as a client asks for them.
  std::string PlaySmooth(const std::string& id, Served* served) const {
    const std::string manifest =
        toolkit::ReadWholeFile(orvotest::SessionPath("SS", id, "manifest_predict"));
    std::vector<std::string> fragments;
    for (const long long time : orvotest::ChunkTimes(manifest)) {
      fragments.push_back(
          orvotest::Fetch<SmoothStream>(id, orvotest::FragmentName(manifest, "video", time)));
      const std::string audio = orvotest::FragmentName(manifest, "audio", time);
      if (orvotest::FragmentSamples(orvotest::Fetch<SmoothStream>(id, audio)).empty()) {
        return "fails: " + audio + " is not whole";
      }
    }
    const std::string scratch = scratch_ + "/" + id + ".h264";
    std::string error = orvotest::WriteSmoothVideo(manifest, fragments, scratch);
    if (error.empty()) error = Decode(scratch, "h264", served, true);
    served->silent = 0;  // its audio fragments are whole
    served->seconds = static_cast<double>(served->video.frames) / kSmoothFps;
    served->width = std::stoi(orvotest::Attribute(manifest, "MaxWidth"));
    served->height = std::stoi(orvotest::Attribute(manifest, "MaxHeight"));
    served->announced = std::stod(orvotest::Attribute(manifest, "Duration")) / 1e7;
    return error;
  }

  static std::string PlayProgressive(const std::string& file, Served* served) {
    served->bytes = static_cast<long long>(toolkit::ReadWholeFile(file).size());
    served->predicted = atoll(toolkit::ReadWholeFile(file + ".predicted").c_str());
    if (served->bytes == 0) return kNotServed;
    const std::string error = Decode(file, "", served, true);
    served->seconds = served->video.end - served->video.start;
    return error;
  }

  std::vector<Picture::Rgb> bars_;  // the source's colours at kBars
  std::string scratch_;             // where a worker keeps what it was served
};

TEST_F(LibraryMatrix, EverySourceThroughEveryKind) {
  std::vector<ProbedMedia> sources(kRowCount);
  ProbedMedia bars;
  std::vector<Picture> reference;
  ASSERT_EQ("",
            orvotest::DecodeMedia(orvotest::TestMedia(Media::kBarsH264Mp4), &bars, "", &reference));
  ASSERT_EQ(reference.size(), 1u);
  for (const auto& bar : kBars) bars_.push_back(reference[0].At(bar[0], bar[1]));
  ASSERT_EQ(kRowCount, orvotest::LibraryMedia().size());
  for (size_t row = 0; row < kRowCount; ++row) {
    ASSERT_EQ(orvotest::LibraryMedia()[row], kRows[row].media) << "row " << row;
    const std::string path = orvotest::TestMedia(kRows[row].media);
    ASSERT_EQ("", orvotest::DecodeMedia(path, &sources[row])) << path;
  }
  orvotest::TestMedia(Media::kBesideSrt);

  // Each worker plays its share of the cells in a machine of its own: the
  // platform allows one software transcoder at a time.
  orvotest::MachineRoot results;
  std::vector<pid_t> workers;
  for (int worker = 0; worker < kWorkers; ++worker) {
    workers.push_back(orvotest::StartChild([&, worker] {
      if (!orvotest::BecomeSubreaper()) return 1;
      const orvotest::MachineRoot machine;  // removed before the worker exits
      orvotest::InstallLaunchers(machine);
      scratch_ = machine.AddVolume(9);
      for (size_t cell = worker; cell < kRowCount * kKinds; cell += kWorkers) {
        const Kind kind = static_cast<Kind>(cell % kKinds);
        orvotest::PlatformFiles platform;
        if (kind == kGstHls) platform.name = "braswell";
        machine.Play(platform);
        const std::string id = "cell" + std::to_string(cell);
        const std::string verdict = Play(kRows[cell / kKinds], sources[cell / kKinds], kind, id);
        // Whatever a stream left running ends with its cell.
        orvotest::ChildrenEnded(15);
        std::ofstream(results.At("/" + id)) << verdict;
      }
      return 0;
    }));
  }
  for (pid_t worker : workers) EXPECT_EQ(0, orvotest::WaitForChild(worker, 900));

  std::ofstream doc(std::string(ORVOVTE_DOCS_DIR) + "/media-matrix.md");
  doc << "# What plays\n\nWritten by `tests/library_matrix_test.cc`. \"plays\": served whole, "
         "decoded at the\nprofile's size, 8-bit 4:2:0, for the duration announced, with sound if "
         "the source\nhas some, the bars within " +
             std::to_string(kBarLevels) +
             " levels (not on GStreamer), progressive HTTP at 85-100 %\nof its prediction. "
             "\"not served\": the first segment request got no data.\n\n| source |";
  for (const auto& kind : kKindRows) doc << " " << kind.name << " (`" << kind.profile << "`) |";
  doc << "\n|---|---|---|---|---|---";
  for (size_t cell = 0; cell < kRowCount * kKinds; ++cell) {
    const std::string verdict = toolkit::ReadWholeFile(results.At("/cell" + std::to_string(cell)));
    const Row& row = kRows[cell / kKinds];
    const char letter = row.expected[cell % kKinds];
    EXPECT_EQ(letter == 'P'   ? kPlays
              : letter == 'A' ? "refused TransAudioNotSupported"
                              : kNotServed,
              verdict)
        << orvotest::MediaName(row.media) << " through " << kKindRows[cell % kKinds].name;
    if (cell % kKinds == 0) doc << " |\n| " << orvotest::MediaName(row.media);
    doc << " | " << (verdict.empty() ? "no verdict" : verdict);
  }
  doc << " |\n";
}

}  // namespace
}  // namespace LibOrvoVTE
