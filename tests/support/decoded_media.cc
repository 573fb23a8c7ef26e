#include "tests/support/decoded_media.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
}

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>

#include "toolkit/files.h"

namespace orvotest {
namespace {

// Half the side of the square of pixels a colour is averaged over.
constexpr int kSampleRadius = 2;

// Owns what a libav function of the form free(T**) releases.
template <typename T, void (*Free)(T**)>
struct Freer {
  void operator()(T* owned) const { Free(&owned); }
};
using FrameFreer = Freer<AVFrame, av_frame_free>;

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof(text));
  return text;
}

size_t BigEndian(const std::string& bytes, size_t at) {
  size_t value = 0;
  for (size_t i = at; i < at + 4 && i < bytes.size(); ++i) {
    value = value << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return value;
}

bool EightBitYuv(int format) {
  const AVPixFmtDescriptor* layout = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
  return layout != nullptr && layout->nb_components == 3 && layout->comp[0].depth == 8 &&
         (layout->flags & AV_PIX_FMT_FLAG_PLANAR) && !(layout->flags & AV_PIX_FMT_FLAG_RGB);
}

// A decoder for one stream of the file, and what it has seen so far.
struct Track {
  std::unique_ptr<AVCodecContext, Freer<AVCodecContext, avcodec_free_context>> codec;
  ProbedStream* seen = nullptr;
  AVRational timeBase{0, 1};
};

// Sends `packet` (null: the end) and takes every frame the decoder has
// ready. "" or the error.
std::string Decode(Track& track, const AVPacket* packet, AVFrame* frame,
                   std::vector<Picture>* pictures, size_t most) {
  int status = avcodec_send_packet(track.codec.get(), packet);
  while (status >= 0 || (status == AVERROR_EOF && packet == nullptr)) {
    status = avcodec_receive_frame(track.codec.get(), frame);
    if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) return "";
    if (status < 0) break;
    ProbedStream& seen = *track.seen;
    ++seen.frames;
    if (frame->best_effort_timestamp != AV_NOPTS_VALUE) {
      const int64_t end = frame->best_effort_timestamp + std::max<int64_t>(frame->pkt_duration, 0);
      seen.end = std::max(seen.end, end * av_q2d(track.timeBase));
    }
    if (seen.type == "video") {
      seen.pixelFormat = av_get_pix_fmt_name(static_cast<AVPixelFormat>(frame->format));
      seen.width = frame->width;
      seen.height = frame->height;
      if (frame->color_trc != AVCOL_TRC_UNSPECIFIED) {
        seen.transfer = av_color_transfer_name(frame->color_trc);
      }
      if (frame->color_primaries != AVCOL_PRI_UNSPECIFIED) {
        seen.primaries = av_color_primaries_name(frame->color_primaries);
      }
      if (pictures != nullptr && pictures->size() < most && EightBitYuv(frame->format)) {
        pictures->push_back({std::shared_ptr<const AVFrame>(av_frame_clone(frame), FrameFreer()),
                             frame->width, frame->height});
      }
    }
    av_frame_unref(frame);
  }
  return track.seen->type + " does not decode: " + AvError(status);
}

}  // namespace

const ProbedStream* ProbedMedia::Stream(const std::string& type) const {
  for (const ProbedStream& stream : streams) {
    if (stream.type == type) return &stream;
  }
  return nullptr;
}

int Picture::Luma(int x, int y) const { return frame->data[0][y * frame->linesize[0] + x]; }

Picture::Rgb Picture::At(double across, double down) const {
  const AVPixFmtDescriptor* layout = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame->format));
  const int centreX = static_cast<int>(across * width), centreY = static_cast<int>(down * height);
  double sums[3] = {0, 0, 0};
  int count = 0;
  for (int y = centreY - kSampleRadius; y <= centreY + kSampleRadius; ++y) {
    for (int x = centreX - kSampleRadius; x <= centreX + kSampleRadius; ++x, ++count) {
      const int px = std::clamp(x, 0, width - 1), py = std::clamp(y, 0, height - 1);
      for (int plane = 0; plane < 3; ++plane) {
        const int shiftX = plane ? layout->log2_chroma_w : 0;
        const int shiftY = plane ? layout->log2_chroma_h : 0;
        sums[plane] += frame->data[plane][(py >> shiftY) * frame->linesize[plane] + (px >> shiftX)];
      }
    }
  }
  const double luma = (sums[0] / count - 16) / 219;
  const double cb = (sums[1] / count - 128) / 224;
  const double cr = (sums[2] / count - 128) / 224;
  const auto level = [](double value) {
    return std::clamp(static_cast<int>(value * 255 + 0.5), 0, 255);
  };
  return {level(luma + 1.5748 * cr), level(luma - 0.1873 * cb - 0.4681 * cr),
          level(luma + 1.8556 * cb)};
}

std::string DecodeMedia(const std::string& path, ProbedMedia* media, const std::string& format,
                        std::vector<Picture>* pictures, size_t most) {
  *media = ProbedMedia();
  const AVInputFormat* forced = format.empty() ? nullptr : av_find_input_format(format.c_str());
  AVFormatContext* opened = nullptr;
  int status = avformat_open_input(&opened, path.c_str(), forced, nullptr);
  if (status < 0) return "cannot open " + path + ": " + AvError(status);
  std::unique_ptr<AVFormatContext, Freer<AVFormatContext, avformat_close_input>> input(opened);
  input->error_recognition = AV_EF_EXPLODE;
  if ((status = avformat_find_stream_info(input.get(), nullptr)) < 0) {
    return "no stream information in " + path + ": " + AvError(status);
  }
  media->format = input->iformat->name;
  media->streams.resize(input->nb_streams);
  std::vector<Track> tracks(input->nb_streams);
  for (unsigned int i = 0; i < input->nb_streams; ++i) {
    const AVStream& stream = *input->streams[i];
    const AVCodecParameters& parameters = *stream.codecpar;
    ProbedStream& seen = media->streams[i];
    const char* type = av_get_media_type_string(parameters.codec_type);
    seen.type = type ? type : "";
    seen.codec = avcodec_get_name(parameters.codec_id);
    seen.width = parameters.width;
    seen.height = parameters.height;
    seen.channels = parameters.ch_layout.nb_channels;
    seen.profile = parameters.profile;
    if (stream.start_time != AV_NOPTS_VALUE) {
      seen.start = stream.start_time * av_q2d(stream.time_base);
    }
    if (seen.type != "video" && seen.type != "audio") continue;
    const AVCodec* decoder = avcodec_find_decoder(parameters.codec_id);
    Track& track = tracks[i];
    track.codec.reset(avcodec_alloc_context3(decoder));
    if (decoder == nullptr || avcodec_parameters_to_context(track.codec.get(), &parameters) < 0) {
      return "no decoder for " + seen.codec;
    }
    track.codec->err_recognition = AV_EF_EXPLODE;
    track.codec->thread_count = 1;
    track.codec->pkt_timebase = stream.time_base;
    if ((status = avcodec_open2(track.codec.get(), decoder, nullptr)) < 0) {
      return "cannot open the " + seen.codec + " decoder: " + AvError(status);
    }
    track.seen = &seen;
    track.timeBase = stream.time_base;
    seen.frames = 0;
  }

  std::unique_ptr<AVPacket, Freer<AVPacket, av_packet_free>> packet(av_packet_alloc());
  std::unique_ptr<AVFrame, FrameFreer> frame(av_frame_alloc());
  std::string error;
  while (error.empty() && (status = av_read_frame(input.get(), packet.get())) >= 0) {
    Track& track = tracks[packet->stream_index];
    if (track.codec) error = Decode(track, packet.get(), frame.get(), pictures, most);
    av_packet_unref(packet.get());
  }
  if (error.empty() && status != AVERROR_EOF) error = "reading failed: " + AvError(status);
  for (Track& track : tracks) {
    if (error.empty() && track.codec) error = Decode(track, nullptr, frame.get(), pictures, most);
  }
  return error;
}

bool ProbeMedia(const std::string& path, ProbedMedia* media, const std::string& format) {
  av_log_set_level(AV_LOG_ERROR);
  const std::string error = DecodeMedia(path, media, format);
  EXPECT_EQ(error, "") << path;
  return error.empty();
}

std::string Attribute(const std::string& xml, const std::string& name, size_t from) {
  const size_t start = xml.find(" " + name + "=\"", from);
  if (start == std::string::npos) return "";
  const size_t value = start + name.size() + 3;
  return xml.substr(value, xml.find('"', value) - value);
}

std::string FragmentSamples(const std::string& path) {
  const std::string bytes = toolkit::ReadWholeFile(path);
  const size_t moof = BigEndian(bytes, 0);
  const bool whole = bytes.size() >= 16 && bytes.compare(4, 4, "moof") == 0 && moof >= 8 &&
                     moof + 8 <= bytes.size() && bytes.compare(moof + 4, 4, "mdat") == 0 &&
                     moof + BigEndian(bytes, moof) == bytes.size();
  return whole ? bytes.substr(moof + 8) : "";
}

std::string BytesFromHex(const std::string& hex) {
  std::string bytes;
  for (size_t at = 0; at + 1 < hex.size(); at += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16)));
  }
  return bytes;
}

std::string DecodeSmoothVideo(const std::string& manifest,
                              const std::vector<std::string>& fragments, const std::string& scratch,
                              ProbedMedia* media, std::vector<Picture>* pictures, size_t most) {
  std::string stream = BytesFromHex(Attribute(manifest, "CodecPrivateData"));
  for (const std::string& path : fragments) {
    const std::string data = FragmentSamples(path);
    if (data.empty()) return path + " is not a whole fragment";
    // Its samples are NAL units behind 4-byte lengths.
    for (size_t at = 0; at + 4 <= data.size(); at += 4 + BigEndian(data, at)) {
      stream += std::string("\0\0\0\1", 4) + data.substr(at + 4, BigEndian(data, at));
    }
  }
  std::ofstream(scratch, std::ios::binary | std::ios::trunc) << stream;
  return DecodeMedia(scratch, media, "h264", pictures, most);
}

}  // namespace orvotest
