// What a media file holds, probed with libavformat into the metadata
// document, and typed read access to it.
//
// Document layout (every key always present unless noted):
//   "path" string, "filesize" string (decimal), "duration" uint (s),
//   "container_type" string, "start_time" uint (s), "bitrate" int (bit/s),
//   "track_info": {"video": [...], "audio": [...], "subtitle": [...]}
// Track objects carry "id" (position among audio, video and subtitle streams)
// and "track" (container index), both as decimal text, plus per kind:
//   video: codec, codec_raw, codec_tag, profile, level, framerate (only when
//          the average frame rate is known), language, rotate, resolutionx,
//          resolutiony, sample_aspect_ratio_num, sample_aspect_ratio_den
//   audio: streamid, codec, codec_raw, profile, channel, channel_layout,
//          sample_rate, is_default, language
//   subtitle: codec, language, title
#pragma once

#include <json/json.h>

#include <string>

struct AVStream;

namespace LibOrvoVTE {

class VideoMetaData {
 public:
  VideoMetaData();
  ~VideoMetaData();

  // Probes `path` into this object. A second call with the path already
  // loaded does nothing and succeeds. On failure nothing is visible through
  // the accessors (and "" leaves the object as it was).
  bool LoadFile(const std::string& path);

  // Fills `doc` with the document of `path`; false when the file cannot be
  // examined or analysed.
  static bool ReadMetaDataFromFFMPEG(const std::string& path, Json::Value& doc);
  // The probe proper, run with root rights.
  static bool ParserMetaDataFromFFMPEG(const std::string& path, Json::Value& doc, Json::Value& video,
                                       Json::Value& audio, Json::Value& subtitle);

  // Accessors: each answers its default ("", 0, 1.77 for the ratio) when
  // nothing is loaded, the key is missing, or its value is empty or of the
  // wrong type.
  unsigned int GetMemberUI(const std::string& key) const;
  std::string GetMemberString(const std::string& key) const;
  unsigned int GetFirstVideoMemberUI(const std::string& key) const;
  bool GetTrackInfo(Json::Value& video, Json::Value& audio) const;
  bool GetSubtitleTrackInfo(Json::Value& subtitle) const;
  Json::Value GetVideo(unsigned int index) const;

  std::string GetContainer() const;
  std::string GetFilePath() const;
  unsigned int GetStartTime() const;
  unsigned int GetDuration() const;
  unsigned int GetBitrate() const;
  unsigned long long GetFileSize() const;
  float GetVideoFramerate() const;
  unsigned int GetVideoSampleAspectRatioDen() const;
  unsigned int GetVideoSampleAspectRatioNum() const;
  unsigned int GetVideoLevel() const;
  unsigned int GetVideoResolutionX() const;
  unsigned int GetVideoResolutionY() const;
  unsigned int GetVideoRotate() const;
  std::string GetVideoProfile() const;
  std::string GetVideoCodecTag() const;
  std::string GetVideoCodecName() const;
  float GetVideoRatio() const;

 protected:
  bool loaded;
  Json::Value document;
};

bool ParseMetaDataFromFFMPEG_Impl(const std::string& path, Json::Value& doc, Json::Value& video,
                                  Json::Value& audio, Json::Value& subtitle);
Json::Value ParseVideoCodec(const AVStream* stream);
Json::Value ParseAudioCodec(const AVStream* stream);
Json::Value ParseSubtitleCodec(const AVStream* stream);

}  // namespace LibOrvoVTE
