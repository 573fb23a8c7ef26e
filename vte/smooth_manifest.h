// The pure part of Smooth Streaming manifest prediction: the profile tables
// and the manifest text. Internal to vte/.
#pragma once

#include <string>

namespace LibOrvoVTE {
namespace smooth {

// What the manifest announces for one profile.
struct QualityValues {
  std::string width;
  std::string height;
  std::string bitrate;
  std::string audioBitrate;
  std::string samplingRate;
  std::string codecPrivateData;
};

// "1.33", "1.77" or "2.35" for a display aspect ratio > 0.
std::string AspectClass(float ratio);

// The picture size for a height key and a ratio; false, logged, for an
// unknown key, false for a ratio <= 0.
bool TransResolution(const std::string& heightKey, float ratio, std::string& width,
                     std::string& height);

// The values of the predictable profile `profileKey` for the hardware or the
// software encoder; false, logged, for a profile not in that encoder's list.
bool ProfileValues(const std::string& profileKey, bool hardware, float ratio,
                   QualityValues& values);

// The manifest for a source of `durationSeconds` (> 0) whose fragments are
// requested under `url`; "" when a line would not fit its 4096-byte line
// (a cut URL would send clients elsewhere), and for a duration beyond a
// month, which only a broken or hostile file claims.
std::string RenderManifest(float durationSeconds, const std::string& url,
                           const QualityValues& values);

// `text` made safe inside a double-quoted XML attribute (XML 1.0, section
// 2.3 AttValue): '<' and '"' and a bare '&' are escaped; references already
// written ("&amp;", "&#38;") are kept.
std::string EscapeXmlAttribute(const std::string& text);

}  // namespace smooth
}  // namespace LibOrvoVTE
