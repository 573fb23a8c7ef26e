#include "nas/launchers/stock_build.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace launchers {

bool StockHasEncoder(const std::string& name) {
  return avcodec_find_encoder_by_name(name.c_str()) != nullptr;
}

SourceTraits InspectSource(const std::string& input) {
  SourceTraits traits;
  AVFormatContext* context = nullptr;
  av_log_set_level(AV_LOG_QUIET);
  if (avformat_open_input(&context, input.c_str(), nullptr, nullptr) != 0) return traits;
  if (avformat_find_stream_info(context, nullptr) >= 0) {
    const int video = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (video >= 0) {
      const AVColorTransferCharacteristic transfer = context->streams[video]->codecpar->color_trc;
      traits.highDynamicRange =
          transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
    }
    traits.hasAudio = av_find_best_stream(context, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0) >= 0;
  }
  avformat_close_input(&context);
  return traits;
}

}  // namespace launchers
