// The playlist and manifest writers on arbitrary URLs, ids and durations:
// whatever a client sends must render, or be refused, without a crash, and
// the escaping helpers must keep their promises.
#include <json/json.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "vte/hls_playlists.h"
#include "vte/hls_subtitle_playlists.h"
#include "vte/smooth_manifest.h"

namespace hls = LibOrvoVTE::hls;
namespace smooth = LibOrvoVTE::smooth;

namespace {

void CheckPercentEncoded(const std::string& text) {
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
}

void CheckXmlEscaped(const std::string& text) {
  const std::string escaped = smooth::EscapeXmlAttribute(text);
  if (escaped.find('<') != std::string::npos || escaped.find('"') != std::string::npos) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const unsigned int duration = input.ConsumeIntegralInRange<unsigned int>(0, 7200);
  const int segment = input.ConsumeIntegralInRange<int>(-2, 20);
  const std::string url = input.ConsumeRandomLengthString(256);
  const std::string id = input.ConsumeRandomLengthString(128);
  const std::string name = input.ConsumeRandomLengthString(64);

  CheckPercentEncoded(id);
  CheckXmlEscaped(url);

  if (segment > 0) {
    hls::VideoPlaylist(url, duration, segment);
    const std::string subtitleTemplate = hls::SubtitlePlaylistTemplate(url, duration, segment);
    hls::SubtitlePlaylist(subtitleTemplate, id);
  }
  hls::MasterPlaylist(url, {{id, name}, {name, name}, {id, ""}});
  const std::string playlistName = hls::SubtitlePlaylistName(id);
  if (playlistName.find('/') != std::string::npos) abort();

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
  return 0;
}
