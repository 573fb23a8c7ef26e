// What a client's decoder makes of served media: every frame of every audio
// and video stream decoded in this process with libavformat and libavcodec,
// a decoding error failing the whole file.
#pragma once

#include <memory>
#include <string>
#include <vector>

struct AVFrame;

namespace orvotest {

struct ProbedStream {
  std::string type;  // "video", "audio"
  std::string codec;
  double start = -1;  // seconds: the stream's first timestamp
  double end = -1;    // seconds: where its last frame ends
  long frames = -1;   // frames decoded
  int width = 0, height = 0, channels = 0;
  std::string pixelFormat;  // of the decoded pictures ("yuv420p")
  int profile = -99;        // the codec's profile number, -99 when unknown
  std::string transfer;     // colour tags of the pictures, "" when unspecified
  std::string primaries;
};

struct ProbedMedia {
  std::vector<ProbedStream> streams;
  // The first stream of `type`, or null.
  const ProbedStream* Stream(const std::string& type) const;
};

// One decoded yuv420p picture.
struct Picture {
  std::shared_ptr<const AVFrame> frame;
  int width = 0, height = 0;
  struct Rgb {
    int r, g, b;
  };
  // The colour a screen shows at `across` and `down` (fractions of the
  // picture): BT.709, limited range.
  Rgb At(double across, double down) const;
  int Luma(int x, int y) const;
};

// Decodes `path` (`format` forces the demuxer, "" lets libavformat guess)
// into `media`; `pictures`, when given, gets the first `most` yuv420p
// pictures in order. "" on success, else what went wrong.
std::string DecodeMedia(const std::string& path, ProbedMedia* media, const std::string& format = "",
                        std::vector<Picture>* pictures = nullptr, size_t most = 1);

// DecodeMedia for tests: false, with a gtest failure, when it fails.
bool ProbeMedia(const std::string& path, ProbedMedia* media, const std::string& format = "");

// The value of the first `name="..."` at or after `from` in a Smooth
// Streaming manifest; "" when there is none.
std::string Attribute(const std::string& xml, const std::string& name, size_t from = 0);

// The bytes of a hex text such as a manifest's CodecPrivateData.
std::string BytesFromHex(const std::string& hex);

// The start times of a Smooth manifest's video chunks, summed from their
// durations as a client does; and the request for the fragment of `type`
// ("video", "audio") at `time`.
std::vector<long long> ChunkTimes(const std::string& manifest);
std::string FragmentName(const std::string& manifest, const std::string& type, long long time);

// The samples (the mdat payload) of the Smooth fragment file at `path`;
// "" unless it is whole (a moof box, then an mdat box, filling it).
std::string FragmentSamples(const std::string& path);

// Writes to `path` Smooth video fragments as a client feeds its decoder,
// with nothing but the manifest's codec data: their samples behind Annex B
// start codes, after the manifest's parameter sets. "" or what is wrong.
std::string WriteSmoothVideo(const std::string& manifest, const std::vector<std::string>& fragments,
                             const std::string& path);

}  // namespace orvotest
