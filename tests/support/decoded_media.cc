#include "tests/support/decoded_media.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
}

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace orvotest {
namespace {

// Half the side of the square of pixels a colour is averaged over.
constexpr int kSampleRadius = 2;

// Owns what a libav function of the form free(T**) releases.
template <typename T, void (*Free)(T**)>
struct Freer {
  void operator()(T* owned) const { Free(&owned); }
};
using FormatCloser = Freer<AVFormatContext, avformat_close_input>;
using CodecCloser = Freer<AVCodecContext, avcodec_free_context>;
using PacketFreer = Freer<AVPacket, av_packet_free>;
using FrameFreer = Freer<AVFrame, av_frame_free>;

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof(text));
  return text;
}

bool EightBitYuv(int format) {
  const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
  return descriptor != nullptr && descriptor->nb_components == 3 &&
         descriptor->comp[0].depth == 8 && (descriptor->flags & AV_PIX_FMT_FLAG_PLANAR) &&
         !(descriptor->flags & AV_PIX_FMT_FLAG_RGB);
}

// A decoder for one stream of the file, and what it has seen so far.
struct Track {
  int index = -1;
  std::unique_ptr<AVCodecContext, CodecCloser> codec;
  ProbedStream* seen = nullptr;
  AVRational timeBase{0, 1};
};

// Sends `packet` (null: the end) and takes every frame the decoder has
// ready. "" or the error.
std::string Decode(Track& track, const AVPacket* packet, AVFrame* frame, Picture* picture,
                   std::vector<Picture>* every) {
  int status = avcodec_send_packet(track.codec.get(), packet);
  for (; status >= 0 || (status == AVERROR_EOF && packet == nullptr);) {
    status = avcodec_receive_frame(track.codec.get(), frame);
    if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) return "";
    if (status < 0) break;
    ProbedStream& seen = *track.seen;
    ++seen.frames;
    const int64_t pts = frame->best_effort_timestamp;
    if (pts != AV_NOPTS_VALUE) {
      const double end = (pts + std::max<int64_t>(frame->pkt_duration, 0)) * av_q2d(track.timeBase);
      seen.end = std::max(seen.end, end);
    }
    if (seen.type == "video") {
      if (const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(frame->format))) {
        seen.pixelFormat = name;
      }
      seen.width = frame->width;
      seen.height = frame->height;
      if (frame->color_trc != AVCOL_TRC_UNSPECIFIED) {
        seen.transfer = av_color_transfer_name(frame->color_trc);
      }
      if (frame->color_primaries != AVCOL_PRI_UNSPECIFIED) {
        seen.primaries = av_color_primaries_name(frame->color_primaries);
      }
      if (picture != nullptr && !picture->frame && EightBitYuv(frame->format)) {
        picture->frame.reset(av_frame_clone(frame), FrameFreer());
        picture->width = frame->width;
        picture->height = frame->height;
      }
      if (every != nullptr) {
        every->push_back({std::shared_ptr<const AVFrame>(av_frame_clone(frame), FrameFreer()),
                          frame->width, frame->height});
      }
    }
    av_frame_unref(frame);
  }
  return track.seen->type + " stream " + std::to_string(track.index) +
         " does not decode: " + AvError(status);
}

}  // namespace

const ProbedStream* ProbedMedia::Stream(const std::string& type) const {
  for (const ProbedStream& stream : streams) {
    if (stream.type == type) return &stream;
  }
  return nullptr;
}

Picture::Rgb Picture::At(double across, double down) const {
  if (!frame) return {-1, -1, -1};
  const AVPixFmtDescriptor* layout = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame->format));
  const int centreX = std::clamp(static_cast<int>(across * width), 0, width - 1);
  const int centreY = std::clamp(static_cast<int>(down * height), 0, height - 1);
  double sums[3] = {0, 0, 0};
  int count = 0;
  for (int y = centreY - kSampleRadius; y <= centreY + kSampleRadius; ++y) {
    for (int x = centreX - kSampleRadius; x <= centreX + kSampleRadius; ++x, ++count) {
      const int px = std::clamp(x, 0, width - 1), py = std::clamp(y, 0, height - 1);
      for (int plane = 0; plane < 3; ++plane) {
        const int shiftX = plane ? layout->log2_chroma_w : 0,
                  shiftY = plane ? layout->log2_chroma_h : 0;
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
                        Picture* picture, std::vector<Picture>* every) {
  *media = ProbedMedia();
  const AVInputFormat* forced = nullptr;
  if (!format.empty() && (forced = av_find_input_format(format.c_str())) == nullptr) {
    return "no demuxer " + format;
  }
  AVFormatContext* opened = nullptr;
  int status = avformat_open_input(&opened, path.c_str(), forced, nullptr);
  if (status < 0) return "cannot open " + path + ": " + AvError(status);
  std::unique_ptr<AVFormatContext, FormatCloser> input(opened);
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
    seen.sampleRate = parameters.sample_rate;
    seen.channels = parameters.ch_layout.nb_channels;
    seen.profile = parameters.profile;
    if (stream.start_time != AV_NOPTS_VALUE)
      seen.start = stream.start_time * av_q2d(stream.time_base);
    if (seen.type != "video" && seen.type != "audio") continue;
    const AVCodec* decoder = avcodec_find_decoder(parameters.codec_id);
    if (decoder == nullptr) return "no decoder for " + seen.codec;
    Track& track = tracks[i];
    track.codec.reset(avcodec_alloc_context3(decoder));
    if (!track.codec || avcodec_parameters_to_context(track.codec.get(), &parameters) < 0) {
      return "cannot set up the " + seen.codec + " decoder";
    }
    track.codec->err_recognition = AV_EF_EXPLODE;
    track.codec->thread_count = 1;
    track.codec->pkt_timebase = stream.time_base;
    if ((status = avcodec_open2(track.codec.get(), decoder, nullptr)) < 0) {
      return "cannot open the " + seen.codec + " decoder: " + AvError(status);
    }
    track.index = static_cast<int>(i);
    track.seen = &seen;
    track.timeBase = stream.time_base;
    seen.frames = 0;
  }

  std::unique_ptr<AVPacket, PacketFreer> packet(av_packet_alloc());
  std::unique_ptr<AVFrame, FrameFreer> frame(av_frame_alloc());
  while ((status = av_read_frame(input.get(), packet.get())) >= 0) {
    Track& track = tracks[packet->stream_index];
    const std::string error = track.codec ? Decode(track, packet.get(), frame.get(), picture, every) : "";
    av_packet_unref(packet.get());
    if (!error.empty()) return error;
  }
  if (status != AVERROR_EOF) return "reading " + path + " failed: " + AvError(status);
  for (Track& track : tracks) {
    const std::string error = track.codec ? Decode(track, nullptr, frame.get(), picture, every) : "";
    if (!error.empty()) return error;
  }
  return "";
}

bool ProbeMedia(const std::string& path, ProbedMedia* media, const std::string& format) {
  av_log_set_level(AV_LOG_ERROR);
  const std::string error = DecodeMedia(path, media, format);
  if (error.empty()) return true;
  ADD_FAILURE() << error;
  return false;
}

}  // namespace orvotest
