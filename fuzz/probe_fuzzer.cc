// The media probe opens files named by clients: any bytes must give a
// document or a refusal, and its accessors must read whatever it wrote.
extern "C" {
#include <libavutil/log.h>
}

#include <json/json.h>

#include "fuzz/fuzz_root.h"
#include "metadata/video_metadata.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  av_log_set_level(AV_LOG_QUIET);
  const std::string path = orvofuzz::MachineRoot() + "/probe.media";
  orvofuzz::WriteBytes(path, std::string(reinterpret_cast<const char*>(data), size));
  LibOrvoVTE::VideoMetaData metadata;
  if (!metadata.LoadFile(path)) return 0;
  // One accessor of each kind of member.
  Json::Value video, audio;
  metadata.GetTrackInfo(video, audio);
  metadata.GetContainer();
  metadata.GetDuration();
  metadata.GetVideoFramerate();
  metadata.GetVideoSampleAspectRatioDen();
  return 0;
}
