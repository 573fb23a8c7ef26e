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

// Owns what a libav function of the form free(T**) releases.
template <typename T, void (*Free)(T**)>
struct Freer {
  void operator()(T* owned) const { Free(&owned); }
};
using FrameFreer = Freer<AVFrame, av_frame_free>;
using Decoder = std::unique_ptr<AVCodecContext, Freer<AVCodecContext, avcodec_free_context>>;

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

// Sends `packet` (null: the end) and takes every frame the decoder has
// ready into `seen`. "" or the error.
std::string Decode(AVCodecContext* decoder, ProbedStream& seen, const AVPacket* packet,
                   AVFrame* frame, std::vector<Picture>* pictures, size_t most) {
  int status = avcodec_send_packet(decoder, packet);
  while (status >= 0 || (status == AVERROR_EOF && packet == nullptr)) {
    status = avcodec_receive_frame(decoder, frame);
    if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) return "";
    if (status < 0) break;
    ++seen.frames;
    if (frame->best_effort_timestamp != AV_NOPTS_VALUE) {
      const int64_t end = frame->best_effort_timestamp + std::max<int64_t>(frame->pkt_duration, 0);
      seen.end = std::max(seen.end, end * av_q2d(decoder->pkt_timebase));
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
      if (pictures && pictures->size() < most && frame->format == AV_PIX_FMT_YUV420P) {
        pictures->push_back({std::shared_ptr<const AVFrame>(av_frame_clone(frame), FrameFreer()),
                             frame->width, frame->height});
      }
    }
    av_frame_unref(frame);
  }
  return seen.type + " does not decode: " + AvError(status);
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
  const int x = static_cast<int>(across * width), y = static_cast<int>(down * height);
  const double luma = (Luma(x, y) - 16) / 219.0;
  const double cb = (frame->data[1][y / 2 * frame->linesize[1] + x / 2] - 128) / 224.0;
  const double cr = (frame->data[2][y / 2 * frame->linesize[2] + x / 2] - 128) / 224.0;
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
  media->streams.resize(input->nb_streams);
  std::vector<Decoder> decoders(input->nb_streams);
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
    const AVCodec* codec = avcodec_find_decoder(parameters.codec_id);
    Decoder& decoder = decoders[i];
    decoder.reset(avcodec_alloc_context3(codec));
    if (codec == nullptr || avcodec_parameters_to_context(decoder.get(), &parameters) < 0) {
      return "no decoder for " + seen.codec;
    }
    decoder->err_recognition = AV_EF_EXPLODE;
    decoder->thread_count = 1;
    decoder->pkt_timebase = stream.time_base;
    if ((status = avcodec_open2(decoder.get(), codec, nullptr)) < 0) {
      return "cannot open the " + seen.codec + " decoder: " + AvError(status);
    }
    seen.frames = 0;
  }

  std::unique_ptr<AVPacket, Freer<AVPacket, av_packet_free>> packet(av_packet_alloc());
  std::unique_ptr<AVFrame, FrameFreer> frame(av_frame_alloc());
  std::string error;
  while (error.empty() && (status = av_read_frame(input.get(), packet.get())) >= 0) {
    const int i = packet->stream_index;
    if (decoders[i]) {
      error =
          Decode(decoders[i].get(), media->streams[i], packet.get(), frame.get(), pictures, most);
    }
    av_packet_unref(packet.get());
  }
  if (error.empty() && status != AVERROR_EOF) error = "reading failed: " + AvError(status);
  for (size_t i = 0; i < decoders.size(); ++i) {
    if (!error.empty() || !decoders[i]) continue;
    error = Decode(decoders[i].get(), media->streams[i], nullptr, frame.get(), pictures, most);
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

std::vector<long long> ChunkTimes(const std::string& manifest) {
  std::vector<long long> times = {0};
  for (size_t at = manifest.find("<c "); at < manifest.find("Type=\"audio\"");
       at = manifest.find("<c ", at + 1)) {
    times.push_back(times.back() + std::stoll(Attribute(manifest, "d", at)));
  }
  times.pop_back();
  return times;
}

std::string FragmentName(const std::string& manifest, const std::string& type, long long time) {
  const std::string bitrate = Attribute(manifest, "Bitrate", manifest.find("Type=\"" + type));
  return "QualityLevels(" + bitrate + ")/Fragments(" + type + "=" + std::to_string(time) + ")";
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

std::string WriteSmoothVideo(const std::string& manifest, const std::vector<std::string>& fragments,
                             const std::string& path) {
  std::string stream = BytesFromHex(Attribute(manifest, "CodecPrivateData"));
  for (const std::string& fragment : fragments) {
    const std::string data = FragmentSamples(fragment);
    if (data.empty()) return fragment + " is not a whole fragment";
    // Its samples are NAL units behind 4-byte lengths.
    for (size_t at = 0; at + 4 <= data.size(); at += 4 + BigEndian(data, at)) {
      stream += std::string("\0\0\0\1", 4) + data.substr(at + 4, BigEndian(data, at));
    }
  }
  std::ofstream(path, std::ios::binary | std::ios::trunc) << stream;
  return "";
}

}  // namespace orvotest
