// What a home library holds, through every stream kind, as a client gets it:
// sessions made by VTE_Init from generated media with the sample profiles,
// every web request in a process of its own, the launchers in place of the
// NAS's transcoders, and the served bytes decoded with libavformat and
// libavcodec. Each source either plays in full or is refused at open with
// its code. The outcome is written to docs/media-matrix.md.
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/machine_root.h"
#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/mp4_fragment.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "toolkit/files.h"
#include "vte/http_live_stream.h"
#include "vte/http_stream.h"
#include "vte/smooth_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

using orvotest::Media;
using orvotest::Picture;
using orvotest::ProbedMedia;
using orvotest::ProbedStream;

enum Kind { kHls, kSmooth, kHttp, kWebm, kGstHls, kKinds };
// The stream types, and the profiles the reference web API opens them with.
const struct {
  const char *name, *type, *file, *profile;
} kKindRows[kKinds] = {
    {"HLS", "HLS", "hls.json", "hls_320x240_x264_vb300_aac_ab64"},
    {"Smooth Streaming", "SS", "smooth.json", "smoothstreaming_240p_x264_vb200_vf15_aac_ab40"},
    {"progressive HTTP", "HTTP", "http.json", "http_320x240_x264_vb256_mp3_ab64"},
    {"WebM", "WEBM", "webm.json", "webm_320x240_vp8_vb256_vorbis_ab64"},
    {"HLS on Braswell (GStreamer)", "HLS", "gstreamer.json", "gst_hls_320x240_h264_aac"}};
constexpr int kBoxWidth = 320, kBoxHeight = 240;  // the size of all profiles but Smooth's
constexpr int kSmoothFps = 15;
constexpr int kBaselineProfile = 66;  // H.264 profile_idc, constraint flags aside
// A transcoded picture of the bars keeps every bar within this many levels
// per channel of the source's.
constexpr int kBarLevels = 30;
// The prediction is generous by design; what is produced stays within it
// and above this share of it.
constexpr double kLeastShareOfPrediction = 0.85;
// A progressive stream lasts as long as its source, give or take a frame
// or two of a muxer's rounding.
constexpr double kDurationSlack = 0.2;
constexpr int kRequestSeconds = 90;
constexpr int kWorkers = 4;
constexpr char kPlays[] = "plays";
constexpr char kAudioRefused[] = "refused TransAudioNotSupported";
constexpr char kNotServed[] = "not served";

struct Row {
  Media media;
  bool portrait;  // turned by 90 or 270 degrees
  bool bars;      // shows the SMPTE bars of Media::kBarsH264Mp4
  // Per kind: P plays, A is refused for its audio ("TransAudioNotSupported":
  // these platforms decode no DTS or E-AC-3 unless told to, and progressive
  // HTTP runs no audio check), N is not served (HLS segments need an audio
  // track to map; without one no transcoder starts, and the first segment
  // request ends at once with nothing).
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

// What the client knows of a source, from decoding it.
struct Source {
  const Row* row = nullptr;
  std::string summary;
  bool hasAudio = false;
  double seconds = 0;  // of its video
};

// What a client got from one cell, for the checks all kinds share.
struct Served {
  ProbedStream video;
  Picture picture;
  std::string codec = "h264";
  int width = kBoxWidth, height = kBoxHeight;
  bool baseline = true;  // the profile asks for H.264 baseline
  // Smooth Streaming clients decode with the manifest's parameter sets,
  // which carry no colour tags, and the GStreamer platforms' colours are
  // their hardware's.
  bool colours = true;
  bool sound = false;
  double seconds = 0, least = 0, most = 0;  // played, and the bounds it must keep
  long long bytes = 0, predicted = 0;       // progressive HTTP
};

// The middle of SMPTE bars, as fractions of the picture's width and height:
// the grey sides and seven 75 % bars of the top row, then the 100 % cyan,
// the +I, the white and the 100 % blue of the second row, and the black,
// white and grey of the bottom row.
constexpr double kBars[][2] = {{0.06, 0.25},  {0.18, 0.25},  {0.28, 0.25},  {0.39, 0.25},
                               {0.5, 0.25},   {0.6, 0.25},   {0.71, 0.25},  {0.82, 0.25},
                               {0.94, 0.25},  {0.06, 0.625}, {0.18, 0.625}, {0.55, 0.625},
                               {0.94, 0.625}, {0.06, 0.875}, {0.39, 0.875}, {0.94, 0.875}};

bool Near(Picture::Rgb a, Picture::Rgb b, int levels) {
  return std::abs(a.r - b.r) <= levels && std::abs(a.g - b.g) <= levels &&
         std::abs(a.b - b.b) <= levels;
}

std::string Text(Picture::Rgb c) {
  return std::to_string(c.r) + "," + std::to_string(c.g) + "," + std::to_string(c.b);
}

Json::Value Params(Kind kind) {
  Json::Value params;
  params["url"] = "/api/stream";
  params["format"] = kind == kSmooth ? "ss" : "hls";
  return params;
}

template <typename Stream>
void CloseInChild(const std::string& id) {
  orvotest::RunInChild([&] { return Stream(id).Close() ? 0 : 1; });
}

// "plays", "refused <code>", "not served", or "fails: <why>".
class LibraryMatrix : public ::testing::Test {
 protected:
  std::string Play(const Source& source, Kind kind, const std::string& id) {
    Served served;
    std::string verdict;
    if (kind == kHls || kind == kGstHls) verdict = PlayHls(source, kind, id, &served);
    if (kind == kSmooth) verdict = PlaySmooth(source, id, &served);
    if (kind == kHttp) verdict = PlayProgressive<HttpStream>(source, kind, id, &served);
    if (kind == kWebm) verdict = PlayProgressive<WebMStream>(source, kind, id, &served);
    return verdict.empty() ? Check(source, served) : verdict;
  }

  std::string Check(const Source& source, const Served& served) const {
    const ProbedStream& video = served.video;
    if (video.frames <= 0) return "fails: no video";
    std::ostringstream wrong;
    if (video.codec != served.codec) wrong << video.codec << " video; ";
    if (video.width != served.width || video.height != served.height) {
      wrong << video.width << "x" << video.height << " for " << served.width << "x" << served.height
            << "; ";
    }
    if (video.pixelFormat != "yuv420p") wrong << video.pixelFormat << " pictures; ";
    if (served.baseline && (video.profile & 0xff) != kBaselineProfile) wrong << "not baseline; ";
    for (size_t bar = 0; source.row->bars && served.colours && bar < bars_.size(); ++bar) {
      const Picture::Rgb shown = served.picture.At(kBars[bar][0], kBars[bar][1]);
      if (!Near(shown, bars_[bar], kBarLevels)) {
        wrong << "the bar at " << kBars[bar][0] << "," << kBars[bar][1] << " shows " << Text(shown)
              << " for " << Text(bars_[bar]) << "; ";
      }
    }
    if (source.row->bars && served.colours &&
        (video.transfer != "bt709" || video.primaries != "bt709")) {
      wrong << "tagged " << video.primaries << "/" << video.transfer << "; ";
    }
    if (source.hasAudio && !served.sound) wrong << "no sound; ";
    if (served.seconds < served.least || served.seconds > served.most) {
      wrong << served.seconds << " s played, not " << served.least << " to " << served.most << "; ";
    }
    if (served.predicted > 0 && (served.bytes > served.predicted ||
                                 served.bytes < kLeastShareOfPrediction * served.predicted)) {
      wrong << served.bytes << " bytes for " << served.predicted << " predicted; ";
    }
    return wrong.str().empty() ? kPlays : "fails: " + wrong.str();
  }

  // Creates the session and runs `open` on it in a request of its own;
  // "" or the cell's verdict.
  template <typename Stream, typename Open>
  static std::string OpenSession(const Source& source, Kind kind, const std::string& id,
                                 const Open& open) {
    return orvotest::TextFromChild(
        [&] {
          const auto& row = kKindRows[kind];
          if (orvotest::CreateSession(source.row->media, row.type, row.file, row.profile, id) !=
              id) {
            return std::string("fails: VTE_Init");
          }
          Stream stream(id);
          return open(stream);
        },
        kRequestSeconds);
  }

  template <typename Stream>
  static std::string Refusal(Stream& stream) {
    return "refused " + stream.GetErrorString();
  }

  // Announced durations are whole seconds, rounded down.
  static void Announced(double seconds, Served* served) {
    served->least = seconds - 0.5;
    served->most = seconds + 1;
  }

  std::string PlayHls(const Source& source, Kind kind, const std::string& id, Served* served) {
    std::string verdict = OpenSession<HttpLiveStream>(source, kind, id, [&](HttpLiveStream& s) {
      return s.Init(Params(kind), {}, "", "") ? "" : Refusal(s);
    });
    if (!verdict.empty()) return verdict;
    std::istringstream playlist(toolkit::ReadWholeFile(orvotest::SessionPath("HLS", id, id + ".m3u8")));
    double announced = 0, first = 0;
    int fragment = 0;
    bool sound = true;
    for (std::string line; verdict.empty() && std::getline(playlist, line);) {
      if (line.rfind("#EXTINF:", 0) != 0) continue;
      announced += atoi(line.c_str() + 8);
      const std::string number = std::to_string(fragment++);
      // A player asks again for a segment it did not get, as hls.js does: a
      // run that ended without it (a GStreamer run cuts at keyframes, so
      // its first segment may take in the next one) is restarted there.
      std::string path;
      for (int attempt = 0; attempt < 2 && (path.empty() || path[0] == '<'); ++attempt) {
        path = orvotest::TextFromChild(
            [&] {
              HttpLiveStream stream(id);
              return stream.Transcoding(number) ? stream.ReadFragment(number) : "";
            },
            kRequestSeconds);
      }
      ProbedMedia segment;
      const std::string error =
          path.empty() || path[0] == '<'
              ? "not served"
              : orvotest::DecodeMedia(path, &segment, "mpegts",
                                      number == "0" ? &served->picture : nullptr);
      if (!error.empty() || !segment.Stream("video")) {
        verdict = number == "0" && error == kNotServed
                      ? kNotServed
                      : "fails: segment " + number + " is not whole: " + error;
        break;
      }
      if (number == "0") {
        served->video = *segment.Stream("video");
        first = served->video.start;
      }
      const ProbedStream* audio = segment.Stream("audio");
      sound = sound && audio && audio->frames > 0;
      served->seconds = segment.Stream("video")->end - first;
    }
    served->sound = sound;
    CloseInChild<HttpLiveStream>(id);
    const bool gstreamer = kind == kGstHls;
    // The GStreamer profile names its picture size in caps, turned or not.
    if (source.row->portrait && !gstreamer) std::swap(served->width, served->height);
    served->baseline = served->colours = !gstreamer;
    Announced(announced, served);
    return verdict;
  }

  std::string PlaySmooth(const Source& source, const std::string& id, Served* served) {
    std::string verdict = OpenSession<SmoothStream>(source, kSmooth, id, [&](SmoothStream& s) {
      return s.Init(Params(kSmooth), {}, "", "") ? "" : Refusal(s);
    });
    if (!verdict.empty()) return verdict;
    const std::string manifest = toolkit::ReadWholeFile(orvotest::SessionPath("SS", id, "manifest_predict"));
    const size_t audioIndex = manifest.find("Type=\"audio\"");
    const std::string video = "QualityLevels(" + orvotest::Attribute(manifest, "Bitrate") + ")";
    const std::string audio =
        "QualityLevels(" + orvotest::Attribute(manifest, "Bitrate", audioIndex) + ")";
    // Fragments in the manifest's order, as a client asks for them.
    std::string stream = orvotest::BytesFromHex(orvotest::Attribute(manifest, "CodecPrivateData"));
    long long time = 0;
    served->sound = true;
    for (size_t at = manifest.find("<c "); verdict.empty() && at < audioIndex;
         at = manifest.find("<c ", at + 1)) {
      const std::string start = std::to_string(time);
      for (const std::string& name :
           {video + "/Fragments(video=" + start + ")", audio + "/Fragments(audio=" + start + ")"}) {
        const std::string path = orvotest::TextFromChild(
            [&] {
              SmoothStream smooth(id);
              return smooth.Transcoding(name) ? smooth.ReadFragment(name) : "";
            },
            kRequestSeconds);
        const orvotest::Mp4Fragment fragment = orvotest::ReadMp4Fragment(path);
        if (!fragment.complete) {
          verdict = "fails: " + name + " is not a whole fragment";
          break;
        }
        if (name.find("(video=") != std::string::npos) stream += fragment.AnnexB();
      }
      time += std::stoll(orvotest::Attribute(manifest, "d", at));
    }
    CloseInChild<SmoothStream>(id);
    if (!verdict.empty()) return verdict;
    // Decoded with nothing but the manifest's codec data, as a client does.
    const std::string file = scratch_ + "/" + id + ".h264";
    std::ofstream(file, std::ios::binary) << stream;
    ProbedMedia media;
    const std::string error = orvotest::DecodeMedia(file, &media, "h264", &served->picture);
    if (!error.empty() || !media.Stream("video")) return "fails: " + error;
    served->video = *media.Stream("video");
    served->seconds = static_cast<double>(served->video.frames) / kSmoothFps;
    served->width = std::stoi(orvotest::Attribute(manifest, "MaxWidth"));
    served->height = std::stoi(orvotest::Attribute(manifest, "MaxHeight"));
    served->colours = false;
    Announced(std::stod(orvotest::Attribute(manifest, "Duration")) / 1e7, served);
    return "";
  }

  template <typename Stream>
  std::string PlayProgressive(const Source& source, Kind kind, const std::string& id,
                              Served* served) {
    const std::string file = scratch_ + "/" + id;
    const std::string transcoder = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
    std::string verdict = OpenSession<Stream>(source, kind, id, [&](Stream& stream) {
      if (!stream.Init("")) return Refusal(stream);
      if constexpr (std::is_same_v<Stream, HttpStream>) {
        std::ofstream(file + ".predicted") << stream.VTE_HTTP_PredictTransFileSize();
      }
      if (!stream.Transcoding(transcoder, 0)) return std::string("fails: Transcoding");
      std::ofstream out(file, std::ios::binary);
      char buffer[65536];
      for (int got; (got = stream.Read(buffer, sizeof(buffer))) > 0;) out.write(buffer, got);
      return stream.Close() ? "" : std::string("fails: Close");
    });
    if (!verdict.empty()) return verdict;
    served->bytes = static_cast<long long>(toolkit::ReadWholeFile(file).size());
    served->predicted = atoll(toolkit::ReadWholeFile(file + ".predicted").c_str());
    if (served->bytes == 0) return kNotServed;
    ProbedMedia media;
    const std::string error = orvotest::DecodeMedia(file, &media, "", &served->picture);
    if (!error.empty() || !media.Stream("video")) return "fails: " + error;
    served->video = *media.Stream("video");
    const ProbedStream* audio = media.Stream("audio");
    served->sound = audio && audio->frames > 0;
    served->seconds = served->video.end - served->video.start;
    served->least = source.seconds - kDurationSlack;
    served->most = source.seconds + kDurationSlack;
    served->baseline = false;
    if (kind == kWebm) {
      served->codec = "vp8";
      // Progressive HTTP is never announced turned.
      if (source.row->portrait) std::swap(served->width, served->height);
    }
    return "";
  }

  std::vector<Picture::Rgb> bars_;  // the source's colours at kBars
  std::string scratch_;             // where a worker keeps what it was served
};

std::string Summary(const ProbedMedia& media) {
  std::string text = media.format.substr(0, media.format.find(','));
  for (const ProbedStream& it : media.streams) {
    if (it.type == "attachment") continue;
    text += ", " + it.codec;
    if (it.type == "audio") text += " " + std::to_string(it.channels) + " ch";
    if (it.type != "video") continue;
    text += " " + std::to_string(it.width) + "x" + std::to_string(it.height) + " " +
            it.pixelFormat + (it.transfer.empty() ? "" : " " + it.transfer);
  }
  return text;
}

// docs/media-matrix.md: one row per source, one column per kind.
void WriteTable(const std::vector<Source>& sources, const std::vector<std::string>& verdicts) {
  std::ofstream doc(std::string(ORVOVTE_DOCS_DIR) + "/media-matrix.md");
  doc << "# What plays\n\nWritten by `tests/library_matrix_test.cc`. \"plays\": served whole, "
         "decoded at the profile's\nsize, 8-bit 4:2:0, for the duration announced, with sound if "
         "the source has some,\nthe bars within "
      << kBarLevels << " levels (not on GStreamer), progressive HTTP at 85-100 % of its\n"
      << "prediction. \"not served\": the first segment request ended at once, without data.\n\n"
      << "| source | what it holds |";
  std::string rule = "|---|---|";
  for (const auto& kind : kKindRows) {
    doc << " " << kind.name << " (`" << kind.profile << "`) |";
    rule += "---|";
  }
  doc << "\n" << rule << "\n";
  for (size_t row = 0; row < sources.size(); ++row) {
    doc << "| " << orvotest::MediaName(sources[row].row->media) << " | " << sources[row].summary;
    for (int kind = 0; kind < kKinds; ++kind) doc << " | " << verdicts[row * kKinds + kind];
    doc << " |\n";
  }
}

TEST_F(LibraryMatrix, EverySourceThroughEveryKind) {
  ProbedMedia media;
  Picture reference;
  ASSERT_EQ(
      "", orvotest::DecodeMedia(orvotest::TestMedia(Media::kBarsH264Mp4), &media, "", &reference));
  for (const auto& bar : kBars) bars_.push_back(reference.At(bar[0], bar[1]));
  ASSERT_EQ(kRowCount, orvotest::LibraryMedia().size());
  std::vector<Source> sources(kRowCount);
  for (size_t row = 0; row < kRowCount; ++row) {
    ASSERT_EQ(orvotest::LibraryMedia()[row], kRows[row].media) << "row " << row;
    const std::string path = orvotest::TestMedia(kRows[row].media);
    ASSERT_EQ("", orvotest::DecodeMedia(path, &media)) << path;
    sources[row] = {&kRows[row], Summary(media), media.Stream("audio") != nullptr,
                    media.Stream("video")->end - media.Stream("video")->start};
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
        const std::string verdict = Play(sources[cell / kKinds], kind, id);
        // Whatever a stream left running ends with its cell.
        orvotest::ChildrenEnded(15);
        std::ofstream(results.At("/" + id)) << verdict;
      }
      return 0;
    }));
  }
  for (pid_t worker : workers) EXPECT_EQ(0, orvotest::WaitForChild(worker, 900));

  std::vector<std::string> verdicts;
  for (size_t cell = 0; cell < kRowCount * kKinds; ++cell) {
    const std::string verdict = toolkit::ReadWholeFile(results.At("/cell" + std::to_string(cell)));
    const Row& row = kRows[cell / kKinds];
    const char letter = row.expected[cell % kKinds];
    EXPECT_EQ(letter == 'P'   ? kPlays
              : letter == 'A' ? kAudioRefused
                              : kNotServed,
              verdict)
        << orvotest::MediaName(row.media) << " through " << kKindRows[cell % kKinds].name;
    verdicts.push_back(verdict.empty() ? "no verdict" : verdict);
  }
  WriteTable(sources, verdicts);
}

}  // namespace
}  // namespace LibOrvoVTE
