// What a client's URL carries, as it comes: fragment ids, subtitle paths,
// and the ids, names and numbers the playlist and manifest writers render.
// Whatever it is must render, or be refused, without a crash, and the
// escaping helpers must keep their promises.
#include <json/json.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
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
  std::string time = "t", type = "y", quality = "q";
  if (!stream.ParseFragId(id, time, type, quality)) {
    // A refused id leaves the caller's values alone.
    if (time != "t" || type != "y" || quality != "q") abort();
    return;
  }
  if (id.find(quality) == std::string::npos) abort();
  if (type != "y" && (time.find(')') != std::string::npos ||
                      id.find(type + time + ")") == std::string::npos)) {
    abort();
  }
  stream.CalculateSeekTime(id);
}

void CheckPathInfo(const std::string& path) {
  const Json::Value info = librh::subtitle::PathInfo(path);
  for (const char* key : {"dirname", "basename", "extension", "language", "filename"}) {
    if (!info[key].isString()) abort();
  }
  const std::string dirname = info["dirname"].asString();
  const std::string basename = info["basename"].asString();
  if (path.rfind('/') == std::string::npos) {
    if (dirname != path || basename != path) abort();
  } else if (dirname + "/" + basename != path || basename.find('/') != std::string::npos) {
    abort();
  }
}

void CheckEscaping(const std::string& text) {
  const std::string encoded = hls::PercentEncode(text);
  for (size_t i = 0; i < encoded.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(encoded[i]);
    if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') continue;
    if (c != '%' || i + 2 >= encoded.size() || !isxdigit(encoded[i + 1]) ||
        !isxdigit(encoded[i + 2])) {
      abort();
    }
    i += 2;
  }
  const std::string escaped = smooth::EscapeXmlAttribute(text);
  if (escaped.find('<') != std::string::npos || escaped.find('"') != std::string::npos) abort();
  if (hls::SubtitlePlaylistName(text).find('/') != std::string::npos) abort();
}

void RenderWriters(FuzzedDataProvider& input) {
  const unsigned int duration = input.ConsumeIntegralInRange<unsigned int>(0, 7200);
  const int segment = input.ConsumeIntegralInRange<int>(-2, 20);
  const std::string url = input.ConsumeRandomLengthString(256);
  const std::string id = input.ConsumeRandomLengthString(128);
  const std::string name = input.ConsumeRandomLengthString(64);
  if (segment > 0) {
    hls::VideoPlaylist(url, duration, segment);
    hls::SubtitlePlaylist(hls::SubtitlePlaylistTemplate(url, duration, segment), id);
  }
  hls::MasterPlaylist(url, {{id, name}, {name, name}, {id, ""}});
  Json::Value params;
  params["url"] = url;
  params["id"] = id;
  params["subtitle_id"] = name;
  params["subtitle_codepage"] = name;
  params["version"] = static_cast<Json::Int>(segment);
  hls::SubtitleURLTemplate(params);
  Json::Value info;
  info["language"] = name;
  hls::ValidateLanguage(info, "x");

  smooth::QualityValues values;
  std::string width, height;
  const float ratio = input.ConsumeFloatingPoint<float>();
  smooth::AspectClass(ratio > 0 ? ratio : 1.0f);
  smooth::TransResolution(name, ratio, width, height);
  smooth::ProfileValues(name, input.ConsumeBool(), ratio, values);
  values.codecPrivateData = input.ConsumeRandomLengthString(64);
  const float seconds = input.ConsumeFloatingPoint<float>();
  if (seconds > 0) smooth::RenderManifest(seconds, url, values);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvofuzz::MachineRoot();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckFragmentId(text);
  CheckPathInfo(text);
  CheckEscaping(text);
  FuzzedDataProvider input(data, size);
  RenderWriters(input);
  return 0;
}
