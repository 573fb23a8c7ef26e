// Smooth Streaming manifest prediction. A client needs the whole manifest,
// every chunk with its duration and the H.264 parameter sets, before the
// first fragment exists; the transcoder is later driven with fixed sizes and
// encoder settings so that what it produces matches the prediction.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>

#include "platform/log.h"
#include "vte/smooth_manifest.h"
#include "vte/smooth_stream.h"

namespace LibOrvoVTE {
namespace {

// Prediction belongs to the Smooth stream; operators match its lines on
// that tag, not on this file's name.
constexpr char kLogTag[] = "smooth_stream";

constexpr char kManifestFile[] = "manifest_predict";
constexpr char kSamplingRate[] = "48000";

struct SizeRow {
  const char* heightKey;
  const char* size133[2];
  const char* size177[2];
  const char* size235[2];
};

// The sizes are the platform encoder's own rounding, kept as clients have
// always been told them: 1270 (not 1280) for 16:9 at 720, and the lowered
// heights 540 and 820 for the widest class at 720 and 1080.
constexpr SizeRow kSizes[] = {
    {"240", {"320", "240"}, {"430", "240"}, {"560", "240"}},
    {"320", {"430", "320"}, {"560", "320"}, {"750", "320"}},
    {"480", {"640", "480"}, {"850", "480"}, {"1120", "480"}},
    {"720", {"960", "720"}, {"1270", "720"}, {"1280", "540"}},
    {"1080", {"1440", "1080"}, {"1920", "1080"}, {"1920", "820"}},
};

struct ProfileRow {
  const char* name;
  const char* heightKey;
  const char* bitrate;
  const char* audioBitrate;
};

struct PrivateDataRow {
  const char* width;
  const char* height;
  // SPS and PPS in Annex B form, as the encoder emits them for that size.
  const char* codecPrivateData;
};

constexpr ProfileRow kHardwareProfiles[] = {
    {"smoothstreaming_240p_h264_smd_vb200_aac_ab40", "240", "200000", "40000"},
    {"smoothstreaming_240p_h264_smd_vb320_aac_ab40", "240", "320000", "40000"},
    {"smoothstreaming_320p_h264_smd_vb500_aac_ab64", "320", "500000", "64000"},
    {"smoothstreaming_320p_h264_smd_vb720_aac_ab64", "320", "720000", "64000"},
    {"smoothstreaming_hd480_h264_smd_vb1000_aac_ab96", "480", "1000000", "96000"},
    {"smoothstreaming_hd720_h264_smd_vb1500_aac_ab128", "720", "1500000", "128000"},
    {"smoothstreaming_hd1080_h264_smd_vb4500_aac_ab128", "1080", "4500000", "128000"},
};

// The hardware encoder writes level 4.1 whatever the size.
constexpr PrivateDataRow kHardwarePrivateData[] = {
    {"320", "240", "000000016742c029da0507effc00240014400000fa40002ee003c58ba80000000168ce1f20"},
    {"430", "240",
     "000000016742c029da06c7fafff012000d7100000303e90000bb800f162ea00000000168ce1f20"},
    {"560", "240", "000000016742c029da0231fbff002400231000003e90000bb800f162ea0000000168ce1f20"},
    {"430", "320", "000000016742c029da06c29ebffc0600035c400000fa40002ee003c58ba80000000168ce1f20"},
    {"560", "320", "000000016742c029da0230a6ffc00c0008c400000fa40002ee003c58ba800000000168ce1f20"},
    {"750", "320", "000000016742c029da02f0a7afff0080007d1000003e90000bb800f162ea0000000168ce1f20"},
    {"640", "480", "000000016742c029da0280f6ffc00240014400000fa40002ee003c58ba800000000168ce1f20"},
    {"850", "480",
     "000000016742c029da0360f788fff024001a9100000303e90000bb800f162ea00000000168ce1f20"},
    {"1120", "480",
     "000000016742c029da01183dbff00240023100000303e90000bb800f162ea00000000168ce1f20"},
    {"960", "720", "000000016742c029da03c05bbff00090005100000303e90000bb800f1832a00000000168ce1f20"},
    {"1270", "720",
     "000000016742c029da014016f9bffc0d8009ec400000fa40002ee003c60ca80000000168ce1f20"},
    {"1280", "540",
     "000000016742c029da0140117efff00510050100000303e90000bb800f1832a00000000168ce1f20"},
    {"1440", "1080",
     "000000016742c029da0168089f97ff000900051000003e90000bb800f1832a0000000168ce1f20"},
    {"1920", "1080",
     "000000016742c029da01e0089f97ff001b00141000003e90000bb800f1832a0000000168ce1f20"},
    {"1920", "820",
     "000000016742c029da01e01a7e7ffc00a400a0400000fa40002ee003c60ca80000000168ce1f20"},
};

// No software profile goes up to 1080.
constexpr ProfileRow kSoftwareProfiles[] = {
    {"smoothstreaming_240p_x264_vb200_vf15_aac_ab40", "240", "200000", "40000"},
    {"smoothstreaming_240p_x264_vb320_vf15_aac_ab40", "240", "320000", "40000"},
    {"smoothstreaming_320p_x264_vb500_vf15_aac_ab64", "320", "500000", "64000"},
    {"smoothstreaming_320p_x264_vb720_vf15_aac_ab64", "320", "720000", "64000"},
    {"smoothstreaming_hd480_x264_vb1000_vf15_aac_ab96", "480", "1000000", "96000"},
    {"smoothstreaming_hd720_x264_vb1500_vf15_aac_ab128", "720", "1500000", "128000"},
};

// x264 with the profiles' pinned settings (baseline, level 3.0, 15 fps,
// SAR 0/1) emits exactly these parameter sets for each size.
constexpr PrivateDataRow kSoftwarePrivateData[] = {
    {"320", "240", "000000016742c01eda0507e840000003004000000783c58ba80000000168ce1f20"},
    {"430", "240", "000000016742c01eda06c7fae10000030001000003001e0f162ea00000000168ce1f20"},
    {"560", "240", "000000016742c01eda0231fa10000003001000000301e0f162ea0000000168ce1f20"},
    {"430", "320", "000000016742c01eda06c29eb840000003004000000783c58ba80000000168ce1f20"},
    {"560", "320", "000000016742c01eda0230a684000003000400000300783c58ba800000000168ce1f20"},
    {"750", "320", "000000016742c01eda02f0a7ae10000003001000000301e0f162ea0000000168ce1f20"},
    {"640", "480", "000000016742c01eda0280f684000003000400000300783c58ba800000000168ce1f20"},
    {"850", "480", "000000016742c01eda0360f788e10000030001000003001e0f162ea00000000168ce1f20"},
    {"1120", "480", "000000016742c01eda01183da10000030001000003001e0f162ea00000000168ce1f20"},
    {"960", "720", "000000016742c01eda03c05ba10000030001000003001e0f162ea00000000168ce1f20"},
    {"1270", "720", "000000016742c01eda014016f9b840000003004000000783c58ba80000000168ce1f20"},
    {"1280", "540", "000000016742c01eda0140117ee10000030001000003001e0f162ea00000000168ce1f20"},
};

template <size_t N>
const ProfileRow* FindProfile(const ProfileRow (&rows)[N], const std::string& name) {
  for (const ProfileRow& row : rows) {
    if (name == row.name) return &row;
  }
  return nullptr;
}

template <size_t N>
const char* FindPrivateData(const PrivateDataRow (&rows)[N], const std::string& width,
                            const std::string& height) {
  for (const PrivateDataRow& row : rows) {
    if (width == row.width && height == row.height) return row.codecPrivateData;
  }
  return nullptr;
}

// One manifest line, cut to nothing when it does not fit `limit` bytes with
// its terminating NUL.
bool AppendLine(std::string& out, size_t limit, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
bool AppendLine(std::string& out, size_t limit, const char* format, ...) {
  char line[4096];
  if (limit > sizeof(line)) limit = sizeof(line);
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(line, limit, format, args);
  va_end(args);
  if (length < 0 || static_cast<size_t>(length) >= limit) return false;
  out.append(line, static_cast<size_t>(length));
  return true;
}

// The predefined entities and character references, which pass unchanged.
bool StartsReference(const std::string& text, size_t amp) {
  static const char* const kEntities[] = {"amp;", "lt;", "gt;", "quot;", "apos;"};
  for (const char* entity : kEntities) {
    if (text.compare(amp + 1, strlen(entity), entity) == 0) return true;
  }
  if (text.compare(amp + 1, 1, "#") != 0) return false;
  size_t pos = amp + 2;
  const bool hex = pos < text.size() && text[pos] == 'x';
  if (hex) ++pos;
  const char* digits = hex ? "0123456789abcdefABCDEF" : "0123456789";
  const size_t end = text.find_first_not_of(digits, pos);
  return end != std::string::npos && end > pos && text[end] == ';';
}

bool CopyValues(const smooth::QualityValues& values, std::string& width, std::string& height,
                std::string& bitrate, std::string& audioBitrate, std::string& samplingRate,
                std::string& codecPrivateData) {
  width = values.width;
  height = values.height;
  bitrate = values.bitrate;
  audioBitrate = values.audioBitrate;
  samplingRate = values.samplingRate;
  codecPrivateData = values.codecPrivateData;
  return true;
}

constexpr size_t kLineBuffer = 4096;
constexpr size_t kChunkLineBuffer = 512;
constexpr unsigned long long kFragmentUnits = 50000000ULL;  // 5 s in 100 ns
constexpr unsigned long long kUnitsPerSecond = 10000000ULL;
constexpr long long kFragmentSeconds = 5;
// A chunk line per 5 s: a month is half a million lines, and anything
// longer would be a manifest no client could load, or a duration no
// integer holds.
constexpr float kMaxManifestSeconds = 31.0f * 24 * 3600;

}  // namespace

namespace smooth {

std::string AspectClass(float ratio) {
  // The nearer of the two neighbouring classes, ties to the lower; the
  // thresholds are compared in double on the float ratio, which decides the
  // cases that sit right on them (1.55, 2.06).
  const double r = ratio;
  if (r <= 1.33) return "1.33";
  if (r <= 1.77) return r - 1.33 <= 0.22 ? "1.33" : "1.77";
  if (r <= 2.35) return r - 1.77 <= 0.29 ? "1.77" : "2.35";
  return "2.35";
}

bool TransResolution(const std::string& heightKey, float ratio, std::string& width,
                     std::string& height) {
  if (heightKey.empty() || ratio <= 0) return false;
  const std::string aspect = AspectClass(ratio);
  for (const SizeRow& row : kSizes) {
    if (heightKey != row.heightKey) continue;
    const char* const* size =
        aspect == "1.33" ? row.size133 : aspect == "1.77" ? row.size177 : row.size235;
    width = size[0];
    height = size[1];
    return true;
  }
  ORVO_LOG(LOG_ERR, "Error: Output resolution not support");
  return false;
}

bool ProfileValues(const std::string& profileKey, bool hardware, float ratio,
                   QualityValues& values) {
  if (profileKey.empty() || ratio <= 0) return false;
  const ProfileRow* row = hardware ? FindProfile(kHardwareProfiles, profileKey)
                                   : FindProfile(kSoftwareProfiles, profileKey);
  if (row == nullptr) {
    ORVO_LOG(LOG_ERR, "Error: such transcoding profile not support for predect manifest");
    return false;
  }
  std::string width;
  std::string height;
  TransResolution(row->heightKey, ratio, width, height);
  if (width.empty() || height.empty()) {
    ORVO_LOG(LOG_ERR, "Failed to calculate transcoding resolution");
    return false;
  }
  const char* data = hardware ? FindPrivateData(kHardwarePrivateData, width, height)
                              : FindPrivateData(kSoftwarePrivateData, width, height);
  if (data == nullptr) {
    ORVO_LOG(LOG_ERR, "Error: not support this resolution[%sx%s]", width.c_str(), height.c_str());
    return false;
  }
  values.width = width;
  values.height = height;
  values.bitrate = row->bitrate;
  values.audioBitrate = row->audioBitrate;
  values.samplingRate = kSamplingRate;
  values.codecPrivateData = data;
  return true;
}

std::string RenderManifest(float durationSeconds, const std::string& url,
                           const QualityValues& values) {
  if (!(durationSeconds > 0) || !(durationSeconds <= kMaxManifestSeconds)) return "";
  // Whole 5-second chunks and a shorter last one; the chunks carry no start
  // time, so a client sums the durations and asks for multiples of 5 s,
  // which is how the transcoder names its fragments.
  const long long seconds = static_cast<long long>(durationSeconds);
  long long chunks = seconds / kFragmentSeconds;
  const long long rest = seconds % kFragmentSeconds;
  long long lastSeconds = kFragmentSeconds;
  if (rest > 0) {
    ++chunks;
    lastSeconds = rest;
  }
  // Single precision, as clients that check the total against the chunks
  // have always been given.
  const unsigned long long duration =
      static_cast<unsigned long long>(durationSeconds * static_cast<float>(kUnitsPerSecond));
  const std::string attributeUrl = EscapeXmlAttribute(url);

  std::string chunkLines;
  for (long long n = 0; n < chunks; ++n) {
    const unsigned long long d =
        n + 1 == chunks ? static_cast<unsigned long long>(lastSeconds) * kUnitsPerSecond
                        : kFragmentUnits;
    if (!AppendLine(chunkLines, kChunkLineBuffer, "<c n=\"%lld\" d=\"%llu\" />\n", n, d)) {
      return "";
    }
  }

  std::string out;
  const bool written =
      AppendLine(out, kLineBuffer, "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n") &&
      AppendLine(out, kLineBuffer,
                 "<SmoothStreamingMedia MajorVersion=\"2\" MinorVersion=\"0\" "
                 "Duration=\"%llu\">\n",
                 duration) &&
      AppendLine(out, kLineBuffer,
                 "<StreamIndex Type=\"video\" QualityLevels=\"1\" Chunks=\"%lld\" "
                 "Url=\"%s&amp;fragment_id=QualityLevels({bitrate})/Fragments(video={start "
                 "time})\">\n",
                 chunks, attributeUrl.c_str()) &&
      AppendLine(out, kLineBuffer,
                 "<QualityLevel Index=\"0\" Bitrate=\"%s\" FourCC=\"H264\" MaxWidth=\"%s\" "
                 "MaxHeight=\"%s\" CodecPrivateData=\"%s\" />\n",
                 values.bitrate.c_str(), values.width.c_str(), values.height.c_str(),
                 values.codecPrivateData.c_str());
  if (!written) return "";
  out += chunkLines;
  out += "</StreamIndex>\n";
  // The audio private data is always AAC-LC, 48 kHz, stereo.
  const bool audioWritten =
      AppendLine(out, kLineBuffer,
                 "<StreamIndex Type=\"audio\" QualityLevels=\"1\" Chunks=\"%lld\" "
                 "Url=\"%s&amp;fragment_id=QualityLevels({bitrate})/Fragments(audio={start "
                 "time})\">\n",
                 chunks, attributeUrl.c_str()) &&
      AppendLine(out, kLineBuffer,
                 "<QualityLevel Index=\"0\" Bitrate=\"%s\" FourCC=\"AACL\" SamplingRate=\"%s\" "
                 "Channels=\"2\" BitsPerSample=\"16\" PacketSize=\"4\" AudioTag=\"255\" "
                 "CodecPrivateData=\"1190\" />\n",
                 values.audioBitrate.c_str(), values.samplingRate.c_str());
  if (!audioWritten) return "";
  out += chunkLines;
  out += "</StreamIndex>\n</SmoothStreamingMedia>\n";
  return out;
}

std::string EscapeXmlAttribute(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    switch (text[i]) {
      case '<':
        out += "&lt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '&':
        out += StartsReference(text, i) ? "&" : "&amp;";
        break;
      default:
        out += text[i];
    }
  }
  return out;
}

}  // namespace smooth

bool SmoothStream::GetTransResolution(const std::string& heightKey, std::string& width,
                                      std::string& height, std::string& size) const {
  if (!smooth::TransResolution(heightKey, metadata_.GetVideoRatio(), width, height)) return false;
  size = width + "x" + height;
  return true;
}

bool SmoothStream::ParseHWTransParameter(std::string& width, std::string& height,
                                         std::string& bitrate, std::string& audioBitrate,
                                         std::string& samplingRate,
                                         std::string& codecPrivateData) const {
  smooth::QualityValues values;
  return smooth::ProfileValues(profileKey, true, metadata_.GetVideoRatio(), values) &&
         CopyValues(values, width, height, bitrate, audioBitrate, samplingRate, codecPrivateData);
}

bool SmoothStream::ParseTransParameter(std::string& width, std::string& height,
                                       std::string& bitrate, std::string& audioBitrate,
                                       std::string& samplingRate,
                                       std::string& codecPrivateData) const {
  smooth::QualityValues values;
  return smooth::ProfileValues(profileKey, false, metadata_.GetVideoRatio(), values) &&
         CopyValues(values, width, height, bitrate, audioBitrate, samplingRate, codecPrivateData);
}

bool SmoothStream::Predict_Manifest(const Json::Value& params) const {
  try {
    const std::string url = GetStreamURL(params);
    if (url.empty() || streamId_.empty() || profileArgs_.empty()) return false;
    const float duration = static_cast<float>(metadata_.GetDuration());
    if (duration <= 0) return false;

    // Truncated before the values are known, so a failed prediction leaves
    // no stale manifest of an earlier profile behind.
    FILE* file = fopen(GetVTEFileFullPath(kManifestFile).c_str(), "w+e");
    if (file == nullptr) return false;
    smooth::QualityValues values;
    std::string manifest;
    if (smooth::ProfileValues(profileKey, hardware_, metadata_.GetVideoRatio(), values)) {
      manifest = smooth::RenderManifest(duration, url, values);
    }
    const bool written =
        !manifest.empty() && fwrite(manifest.data(), 1, manifest.size(), file) == manifest.size();
    return fclose(file) == 0 && written;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace LibOrvoVTE
