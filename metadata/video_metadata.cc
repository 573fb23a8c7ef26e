#include "metadata/video_metadata.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
}

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <string>

#include "platform/fileop.h"
#include "platform/log.h"
#include "platform/run_as.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

constexpr char kLogTag[] = "video_metadata";
// Operators match on this line number in the system log.
constexpr int kParserFailLine = 386;

// avformat_open_input leaves a null context behind on failure, so closing
// unconditionally is safe on every path.
class InputCloser {
 public:
  explicit InputCloser(AVFormatContext** context) : context_(context) {}
  ~InputCloser() { avformat_close_input(context_); }
  InputCloser(const InputCloser&) = delete;
  InputCloser& operator=(const InputCloser&) = delete;

 private:
  AVFormatContext** context_;
};

// av_dict_get without flags matches keys case-insensitively, which is what
// containers that upper-case their tags need.
std::string Tag(const AVStream* stream, const char* key) {
  const AVDictionaryEntry* entry = av_dict_get(stream->metadata, key, nullptr, 0);
  return entry && entry->value ? entry->value : "";
}

std::string ProfileName(const AVCodecParameters* codecpar) {
  const AVCodec* codec = avcodec_find_decoder(codecpar->codec_id);
  if (!codec) return "";
  const char* name = av_get_profile_name(codec, codecpar->profile);
  return name ? name : "";
}

std::string RawCodecName(AVCodecID id) {
  const AVCodecDescriptor* descriptor = avcodec_descriptor_get(id);
  return descriptor && descriptor->name ? descriptor->name : "";
}

// Demuxers used to publish the rotation as a "rotate" tag, formatted with
// "%g" from the display matrix, clockwise and folded into [0, 360). Newer
// ones keep only the matrix, so the same text is rebuilt from it; reading it
// back through strtol keeps the values callers already compare with (90,
// 180, 270) exactly as before.
int Rotation(const AVStream* stream) {
  const AVDictionaryEntry* tag = av_dict_get(stream->metadata, "rotate", nullptr, 0);
  if (tag && tag->value) return static_cast<int>(strtol(tag->value, nullptr, 10));

  size_t size = 0;
  const uint8_t* matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
  if (!matrix || size < 9 * sizeof(int32_t)) return 0;
  double degrees = -av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix));
  if (std::isnan(degrees)) return 0;
  if (degrees < 0) degrees += 360;
  char text[64] = {0};
  snprintf(text, sizeof(text), "%g", degrees);
  return static_cast<int>(strtol(text, nullptr, 10));
}

void SetSizeAndAspect(const AVStream* stream, Json::Value& track) {
  const AVCodecParameters* codecpar = stream->codecpar;
  unsigned int width = 0;
  unsigned int height = 0;
  AVRational aspect = {0, 0};
  if (codecpar->width >= 1) {
    width = static_cast<unsigned int>(codecpar->width);
    height = static_cast<unsigned int>(codecpar->height);
    // The bitstream's own aspect wins; a container-level one (Matroska
    // display size, MP4 'pasp') is the fallback.
    if (codecpar->sample_aspect_ratio.num >= 1) {
      aspect = codecpar->sample_aspect_ratio;
    } else if (stream->sample_aspect_ratio.num >= 1) {
      aspect = stream->sample_aspect_ratio;
    }
  }
  track["resolutionx"] = width;
  track["resolutiony"] = height;
  track["sample_aspect_ratio_num"] = static_cast<unsigned int>(aspect.num);
  track["sample_aspect_ratio_den"] = static_cast<unsigned int>(aspect.den);
}

}  // namespace

VideoMetaData::VideoMetaData() : loaded(false), document(Json::objectValue) {}

VideoMetaData::~VideoMetaData() = default;

bool VideoMetaData::LoadFile(const std::string& path) {
  if (path.empty()) return false;
  if (loaded && GetFilePath() == path) return true;

  document = Json::Value(Json::objectValue);
  loaded = false;
  if (!VerifyFileExist(path, 0)) return false;
  if (!ReadMetaDataFromFFMPEG(path, document)) return false;
  loaded = true;
  return true;
}

bool VideoMetaData::ReadMetaDataFromFFMPEG(const std::string& path, Json::Value& doc) {
  try {
    Json::Value video(Json::arrayValue);
    Json::Value audio(Json::arrayValue);
    Json::Value subtitle(Json::arrayValue);
    Json::Value trackInfo;
    if (path.empty()) return false;

    long long size = 0;
    if (!librh::critical::fileop::CheckFileAndGetSize(path, size)) return false;
    doc["path"] = path;
    doc["filesize"] = std::to_string(size);  // the "%lld" text

    if (!ParserMetaDataFromFFMPEG(path, doc, video, audio, subtitle)) {
      librh::log::Write(LOG_ERR, kLogTag, kParserFailLine, "ParserMetaDataFromFFMPEG fail.");
      return false;
    }
    trackInfo["video"] = video;
    trackInfo["audio"] = audio;
    trackInfo["subtitle"] = subtitle;
    doc["track_info"] = trackInfo;
    return true;
  } catch (const std::exception&) {
    // A caller's `doc` that is not an object makes jsoncpp throw.
    return false;
  }
}

bool VideoMetaData::ParserMetaDataFromFFMPEG(const std::string& path, Json::Value& doc,
                                             Json::Value& video, Json::Value& audio,
                                             Json::Value& subtitle) {
  // Media files may belong to any user of the system.
  std::function<bool()> action = [&]() {
    return ParseMetaDataFromFFMPEG_Impl(path, doc, video, audio, subtitle);
  };
  return librh::DoActionAsRoot("ParseMetaDataFromFFMPEG", action);
}

bool ParseMetaDataFromFFMPEG_Impl(const std::string& path, Json::Value& doc, Json::Value& video,
                                  Json::Value& audio, Json::Value& subtitle) {
  if (path.empty()) return false;

  AVFormatContext* context = nullptr;
  if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return false;
  InputCloser closer(&context);
  if (avformat_find_stream_info(context, nullptr) < 0) return false;

  try {
    // Whole seconds by signed division, then kept in 32 bits: an unknown
    // (AV_NOPTS_VALUE) time wraps the same way it always has.
    doc["duration"] = static_cast<unsigned int>(context->duration / 1000000);
    if (!context->iformat || !context->iformat->name) return false;
    doc["container_type"] = context->iformat->name;
    doc["start_time"] = static_cast<unsigned int>(context->start_time / 1000000);
    doc["bitrate"] = static_cast<int>(context->bit_rate);

    int id = 0;
    for (unsigned int index = 0; index < context->nb_streams; ++index) {
      const AVStream* stream = context->streams[index];
      Json::Value track;
      Json::Value* kind = nullptr;
      switch (stream->codecpar->codec_type) {
        case AVMEDIA_TYPE_AUDIO:
          track = ParseAudioCodec(stream);
          kind = &audio;
          break;
        case AVMEDIA_TYPE_VIDEO:
          track = ParseVideoCodec(stream);
          kind = &video;
          break;
        case AVMEDIA_TYPE_SUBTITLE:
          track = ParseSubtitleCodec(stream);
          kind = &subtitle;
          break;
        default:
          // Data and attachment streams are not addressable by clients, so
          // they take no id.
          continue;
      }
      track["id"] = std::to_string(id);
      track["track"] = std::to_string(static_cast<unsigned int>(stream->index));
      kind->append(track);
      ++id;
    }
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

Json::Value ParseVideoCodec(const AVStream* stream) {
  const AVCodecParameters* codecpar = stream->codecpar;
  Json::Value track(Json::objectValue);
  track["codec"] = GetCodecName(codecpar->codec_id);
  track["codec_raw"] = RawCodecName(codecpar->codec_id);
  char tag[AV_FOURCC_MAX_STRING_SIZE] = {0};
  track["codec_tag"] = av_fourcc_make_string(tag, codecpar->codec_tag);
  track["profile"] = ProfileName(codecpar);
  track["level"] = codecpar->level < 0 ? 0 : codecpar->level;

  const AVRational rate = stream->avg_frame_rate;
  if (rate.num != 0 && rate.den != 0) {
    // Single precision on purpose: clients compare against the value this
    // has always produced (23.976024627685547 for 24000/1001).
    const float quotient = static_cast<float>(rate.num) / static_cast<float>(rate.den);
    track["framerate"] = static_cast<double>(quotient);
  }
  track["language"] = Tag(stream, "language");
  track["rotate"] = Rotation(stream);
  SetSizeAndAspect(stream, track);
  return track;
}

Json::Value ParseAudioCodec(const AVStream* stream) {
  const AVCodecParameters* codecpar = stream->codecpar;
  Json::Value track(Json::objectValue);
  track["streamid"] = stream->id;
  track["codec"] = GetCodecName(codecpar->codec_id);
  track["codec_raw"] = RawCodecName(codecpar->codec_id);
  track["profile"] = ProfileName(codecpar);
  track["channel"] = codecpar->ch_layout.nb_channels;
  char layout[1024] = {0};
  av_channel_layout_describe(&codecpar->ch_layout, layout, sizeof(layout));
  track["channel_layout"] = layout;
  track["sample_rate"] = codecpar->sample_rate;
  track["is_default"] = (stream->disposition & AV_DISPOSITION_DEFAULT) != 0;
  track["language"] = Tag(stream, "language");
  return track;
}

Json::Value ParseSubtitleCodec(const AVStream* stream) {
  Json::Value track(Json::objectValue);
  track["codec"] = GetCodecName(stream->codecpar->codec_id);
  track["language"] = Tag(stream, "language");
  track["title"] = Tag(stream, "title");
  return track;
}

}  // namespace LibOrvoVTE
