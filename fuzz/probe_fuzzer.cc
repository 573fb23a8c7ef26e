// The media probe on mutated media files: the probe opens files named by
// clients, so any byte sequence must give a document or a refusal.
extern "C" {
#include <libavutil/log.h>
}

#include <json/json.h>

#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_root.h"
#include "metadata/video_metadata.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvofuzz::MachineRoot();
  av_log_set_level(AV_LOG_QUIET);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = orvofuzz::MachineRoot() + "/probe.media";
  orvofuzz::WriteBytes(path, data, size);
  LibOrvoVTE::VideoMetaData metadata;
  if (!metadata.LoadFile(path)) return 0;
  // The accessors read the probe's document; what the probe wrote must be
  // readable by them whatever shape it took.
  Json::Value video, audio, subtitle;
  metadata.GetTrackInfo(video, audio);
  metadata.GetSubtitleTrackInfo(subtitle);
  metadata.GetVideo(0);
  metadata.GetContainer();
  metadata.GetDuration();
  metadata.GetVideoFramerate();
  metadata.GetVideoSampleAspectRatioDen();
  return 0;
}
