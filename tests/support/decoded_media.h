// What a client's decoder makes of a file: every frame of every audio and
// video stream decoded in this process with libavformat and libavcodec, a
// decoding error failing the whole file.
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
  int width = 0, height = 0, sampleRate = 0, channels = 0;
  std::string pixelFormat;  // of the decoded pictures ("yuv420p")
  int profile = -99;        // the codec's profile number, -99 when unknown
  std::string transfer;     // colour tags of the pictures, "" when unspecified
  std::string primaries;
};

struct ProbedMedia {
  std::string format;
  std::vector<ProbedStream> streams;
  // The first stream of `type`, or null.
  const ProbedStream* Stream(const std::string& type) const;
};

// One decoded 8-bit Y'CbCr picture, read back as a screen would show it.
struct Picture {
  std::shared_ptr<const AVFrame> frame;
  int width = 0, height = 0;
  struct Rgb {
    int r, g, b;
  };
  // The colour at `across` and `down`, fractions of the width and height,
  // averaged over a few pixels around it and converted with the BT.709
  // matrix of limited-range video; -1s without a picture.
  Rgb At(double across, double down) const;
};

// Decodes `path` (`format` forces the demuxer, "" lets libavformat guess)
// into `media`; `picture`, when given, gets the first video picture that is
// 8-bit Y'CbCr, and `every`, when given, every video picture in order. ""
// on success, else what went wrong.
std::string DecodeMedia(const std::string& path, ProbedMedia* media, const std::string& format = "",
                        Picture* picture = nullptr, std::vector<Picture>* every = nullptr);

// DecodeMedia for tests: false, with a gtest failure, when it fails.
bool ProbeMedia(const std::string& path, ProbedMedia* media, const std::string& format = "");

}  // namespace orvotest
