// Playlists of an HLS session and the request sequence that lets the newest
// segment request win over older ones.
#include "vte/hls_playlists.h"

#include <time.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>

#include "vte/http_live_stream.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace hls {
namespace {

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char buffer[256];
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  return length < 0 ? "" : std::string(buffer, std::min<size_t>(length, sizeof(buffer) - 1));
}

bool IsUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         c == '-' || c == '_' || c == '.' || c == '~';
}

}  // namespace

std::vector<int> SegmentDurations(unsigned int durationSeconds, int segmentSeconds) {
  std::vector<int> durations;
  if (segmentSeconds <= 0) return durations;
  const unsigned int length = static_cast<unsigned int>(segmentSeconds);
  durations.assign(durationSeconds / length, segmentSeconds);
  if (durationSeconds % length > 0) durations.push_back(static_cast<int>(durationSeconds % length));
  return durations;
}

std::string PercentEncode(const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  for (const char byte : text) {
    const unsigned char c = static_cast<unsigned char>(byte);
    if (IsUnreserved(c)) {
      encoded += byte;
    } else {
      encoded += '%';
      encoded += kHex[c >> 4];
      encoded += kHex[c & 0xF];
    }
  }
  return encoded;
}

std::string VideoPlaylist(const std::string& url, unsigned int durationSeconds,
                          int segmentSeconds) {
  std::string text = Format("#EXTM3U\n#EXT-X-TARGETDURATION:%d\n#EXT-X-MEDIA-SEQUENCE:0\n",
                            segmentSeconds);
  const std::vector<int> durations = SegmentDurations(durationSeconds, segmentSeconds);
  for (size_t i = 0; i < durations.size(); ++i) {
    text += Format("#EXTINF:%d,\n", durations[i]) + url +
            Format("&fragment_id=%05d\n", static_cast<int>(i));
  }
  return text + "#EXT-X-ENDLIST\n";
}

std::string MasterPlaylist(const std::string& url, const std::vector<SubtitleEntry>& entries) {
  std::string text = "#EXTM3U\n\n";
  // Players tell renditions apart by NAME, so a second "eng" becomes
  // "eng-2"; the new name is counted too, so a real "eng-2" further on
  // becomes "eng-2-2".
  std::map<std::string, int> seen;
  for (size_t i = 0; i < entries.size(); ++i) {
    std::string name = entries[i].second;
    const auto found = seen.find(name);
    if (found == seen.end()) {
      seen[name] = 1;
    } else {
      name += "-" + std::to_string(++found->second);
      seen[name] = 1;
    }
    text += "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"" + name + "\",NAME=\"" +
            name + "\",DEFAULT=" + (i == 0 ? "YES" : "NO") + ",FORCED=NO,URI=\"" + url +
            "&subtitle_id=" + PercentEncode(entries[i].first) + "&playlist_type=subtitle\"\n";
  }
  // The variant's rate and codecs are nominal: every client this serves
  // accepts them, and the real ones are not known before transcoding.
  text += "\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\"";
  if (!entries.empty()) text += ",SUBTITLES=\"subs\"";
  return text + "\n" + url + "&playlist_type=video\n#EXT-X-ENDLIST\n";
}

std::string SequenceToken(const struct timespec& clock) {
  return Format("%lld.%09ld", static_cast<long long>(clock.tv_sec), clock.tv_nsec);
}

bool IsNotOlderToken(const std::string& token, const std::string& newest) {
  const size_t common = std::min(token.size(), newest.size());
  const int order = memcmp(token.data(), newest.data(), common);
  if (order != 0) return order > 0;
  return token.size() >= newest.size();
}

bool WriteTextFile(const std::string& path, const std::string& text) {
  FILE* file = fopen(path.c_str(), "we");
  if (file == nullptr) return false;
  const bool written = fwrite(text.data(), 1, text.size(), file) == text.size();
  return fclose(file) == 0 && written;
}

}  // namespace hls

namespace {

constexpr char kVideoPlaylistFile[] = "video.m3u8";
constexpr char kSequenceFile[] = "request_sequence";

}  // namespace

bool HttpLiveStream::GenVideoPlaylist(const Json::Value& params) const {
  try {
    const std::string url = GetStreamURL(params);
    if (url.empty() || streamId_.empty()) return false;
    const unsigned int duration = metadata_.GetDuration();
    if (duration < 1) return false;
    // With subtitles the stream id's playlist is the master playlist.
    const std::string name = subtitle_ ? kVideoPlaylistFile : streamId_ + ".m3u8";
    return hls::WriteTextFile(GetVTEFileFullPath(name),
                              hls::VideoPlaylist(url, duration, SegmentLength()));
  } catch (const std::exception&) {
    return false;
  }
}

bool HttpLiveStream::GenIndexPlaylist(const Json::Value& params,
                                      const Json::Value& subtitleParams) const {
  try {
    const std::string url = GetStreamURL(params);
    if (url.empty() || streamId_.empty()) return false;
    if (!subtitleParams.isObject()) return false;
    const Json::Value& subtitleId = subtitleParams["subtitle_id"];
    if (!subtitleId.isString() || subtitleId.asString().empty()) return false;
    const std::string path = GetVTEFileFullPath(streamId_ + ".m3u8");
    return hls::WriteTextFile(path,
                              hls::MasterPlaylist(url, GetSubtitleMap(subtitleId.asString())));
  } catch (const std::exception&) {
    return false;
  }
}

std::string HttpLiveStream::GetMainfest(const std::string& type, const std::string& subtitleArg) {
  if (streamId_.empty()) return "";
  if (type == "video") return GetVTEFileFullPath(kVideoPlaylistFile);
  if (type == "subtitle") return GenSubtitlePlaylist(subtitleArg);
  return GetVTEFileFullPath(streamId_ + ".m3u8");
}

std::string HttpLiveStream::WriteSequence() {
  struct timespec now;
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return "";
  sequence_ = hls::SequenceToken(now);
  SaveFile(GetVTEFileFullPath(kSequenceFile), sequence_);
  return sequence_;
}

bool HttpLiveStream::CheckSequence() {
  if (sequence_.empty()) return true;
  return hls::IsNotOlderToken(sequence_, ReadFile(GetVTEFileFullPath(kSequenceFile)));
}

}  // namespace LibOrvoVTE
