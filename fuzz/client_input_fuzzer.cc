// What a client's URL carries, as it comes: fragment ids, subtitle paths,
// and the ids, names and numbers the playlist and manifest writers render.
#include <json/json.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_root.h"
#include "subtitle/subtitle.h"
#include "vte/hls_playlists.h"
#include "vte/hls_subtitle_playlists.h"
#include "vte/http_live_stream.h"
#include "vte/smooth_manifest.h"
#include "vte/smooth_stream.h"

namespace hls = LibOrvoVTE::hls;
namespace smooth = LibOrvoVTE::smooth;

namespace {

void CheckFragmentId(const std::string& id) {
  static const LibOrvoVTE::SmoothStream stream("fuzzsession");
  static const LibOrvoVTE::HttpLiveStream hlsStream("fuzzsession");
  // The start seconds are products with the client's number: overflow shows here.
  hlsStream.CalculateSeekTime(id);
  stream.CalculateSeekTime(id);
  std::string time = "t", type = "y", quality = "q";
  // A refused id leaves the caller's values alone.
  if (!stream.ParseFragId(id, time, type, quality) && time + type + quality != "tyq") abort();
}

void CheckPathInfo(const std::string& path) {
  const Json::Value info = librh::subtitle::PathInfo(path);
  const std::string joined = info["dirname"].asString() + "/" + info["basename"].asString();
  if (path.find('/') != std::string::npos && joined != path) abort();
}

void CheckEscaping(const std::string& text) {
  const std::string encoded = hls::PercentEncode(text);
  for (size_t i = 0; i < encoded.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(encoded[i]);
    if (c == '%' && i + 2 < encoded.size() && isxdigit(encoded[i + 1]) &&
        isxdigit(encoded[i + 2])) {
      i += 2;
    } else if (!isalnum(c) && std::string("-_.~").find(c) == std::string::npos) {
      abort();
    }
  }
  if (smooth::EscapeXmlAttribute(text).find_first_of("<\"") != std::string::npos) abort();
  if (hls::SubtitlePlaylistName(text).find('/') != std::string::npos) abort();
}

void RenderWriters(FuzzedDataProvider& input) {
  const unsigned int duration = input.ConsumeIntegralInRange<unsigned int>(0, 7200);
  const int segment = input.ConsumeIntegralInRange<int>(1, 20);
  const std::string url = input.ConsumeRandomLengthString(256);
  const std::string id = input.ConsumeRandomLengthString(64);
  hls::VideoPlaylist(url, duration, segment);
  hls::SubtitlePlaylist(hls::SubtitlePlaylistTemplate(url, duration, segment), id);
  hls::MasterPlaylist(url, {{id, url}, {id, ""}});
  Json::Value params;
  params["url"] = params["id"] = params["subtitle_id"] = params["subtitle_codepage"] =
      params["language"] = id;
  hls::SubtitleURLTemplate(params);
  hls::ValidateLanguage(params, "x");
  smooth::QualityValues values;
  std::string width, height;
  const float ratio = input.ConsumeFloatingPoint<float>();
  smooth::AspectClass(ratio > 0 ? ratio : 1.0f);
  smooth::TransResolution(id, ratio, width, height);
  smooth::ProfileValues(id, input.ConsumeBool(), ratio, values);
  values.codecPrivateData = url;
  const float seconds = input.ConsumeFloatingPoint<float>();
  if (seconds > 0) smooth::RenderManifest(seconds, url, values);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckFragmentId(text);
  CheckPathInfo(text);
  CheckEscaping(text);
  FuzzedDataProvider input(data, size);
  RenderWriters(input);
  return 0;
}
