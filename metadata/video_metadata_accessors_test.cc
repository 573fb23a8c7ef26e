#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>

#include "metadata/video_metadata.h"

namespace LibOrvoVTE {
namespace {

// A metadata object holding a hand-written document, as if a probe (or a
// session file written by another process) had produced it.
class Doc : public VideoMetaData {
 public:
  explicit Doc(const std::string& json, bool isLoaded = true) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    EXPECT_TRUE(reader->parse(json.data(), json.data() + json.size(), &document, &errors))
        << json << ": " << errors;
    loaded = isLoaded;
  }
};

// One video track with the given members, as "track_info" holds it.
std::string WithVideo(const std::string& members) {
  return R"({"track_info": {"video": [{)" + members + R"(}], "audio": [], "subtitle": []}})";
}

const char kProbed[] = R"({
  "path": "/volume1/v.mkv", "filesize": "5000000000", "duration": 5400, "start_time": 2,
  "container_type": "matroska,webm", "bitrate": 8000000,
  "track_info": {
    "video": [{"id": "0", "track": "0", "codec": "h264", "codec_tag": "[0][0][0][0]",
               "profile": "High", "level": 41, "framerate": 23.976024627685547, "rotate": 90,
               "resolutionx": 1920, "resolutiony": 800,
               "sample_aspect_ratio_num": 1, "sample_aspect_ratio_den": 1}],
    "audio": [{"id": "1", "track": "1", "codec": "aac"}],
    "subtitle": [{"id": "2", "track": "2", "codec": "subrip"}]}})";

// Every value accessor at its default; the track lists too unless the
// document has readable ones.
void ExpectDefaults(const VideoMetaData& meta, const std::string& which, bool lists = false) {
  SCOPED_TRACE(which);
  EXPECT_EQ("", meta.GetContainer());
  EXPECT_EQ("", meta.GetFilePath());
  EXPECT_EQ(0u, meta.GetStartTime() + meta.GetDuration() + meta.GetBitrate());
  EXPECT_EQ(0u, meta.GetFileSize());
  EXPECT_EQ(0.0f, meta.GetVideoFramerate());
  EXPECT_EQ(0u, meta.GetVideoSampleAspectRatioDen() + meta.GetVideoSampleAspectRatioNum() +
                    meta.GetVideoLevel() + meta.GetVideoResolutionX() + meta.GetVideoResolutionY() +
                    meta.GetVideoRotate());
  EXPECT_EQ("", meta.GetVideoProfile() + meta.GetVideoCodecTag() + meta.GetVideoCodecName());
  EXPECT_EQ(1.77f, meta.GetVideoRatio());
  Json::Value video, audio, subtitle;
  EXPECT_EQ(lists, meta.GetTrackInfo(video, audio));
  EXPECT_EQ(lists, meta.GetSubtitleTrackInfo(subtitle));
  EXPECT_EQ(lists, !meta.GetVideo(0).isNull());
}

TEST(VideoMetaDataAccessors, DefaultsUnlessALoadedObjectDocument) {
  ExpectDefaults(VideoMetaData(), "fresh object");
  ExpectDefaults(Doc(kProbed, false), "full document, not loaded");
  ExpectDefaults(Doc("[1, 2]"), "document that is an array");
  ExpectDefaults(Doc(R"({"track_info": "none", "path": 7, "duration": "90", "filesize": 5000})"),
                 "wrong types");
  ExpectDefaults(Doc(WithVideo(R"("framerate": "25", "profile": 100, "codec_tag": [],
                                  "codec": null, "level": -1, "resolutionx": "640")")),
                 "wrong types in the video track", true);
}

TEST(VideoMetaDataAccessors, UnsignedReadsOfOddValues) {
  const struct {
    const char* value;
    unsigned int expected;
  } kCases[] = {
      {"4294967295", UINT_MAX},
      {"-90", 0},
      {"12.9", 12},
      {"1e12", 0},
      {"\"90\"", 0},
      {"true", 0},
      {"null", 0},
      {"[90]", 0},
      {"{}", 0},
  };
  for (const auto& c : kCases) {
    Doc top(std::string(R"({"duration": )") + c.value + "}");
    EXPECT_EQ(c.expected, top.GetDuration()) << c.value;
    EXPECT_EQ(c.expected, Doc(WithVideo(std::string(R"("rotate": )") + c.value)).GetVideoRotate())
        << c.value;
  }
}

TEST(VideoMetaDataAccessors, TrackListsAndTheFirstVideoTrack) {
  Json::Value video("untouched"), audio("untouched");
  Doc videoOnly(R"({"track_info": {"video": [{"resolutionx": 720, "resolutiony": 576}]}})");
  EXPECT_FALSE(videoOnly.GetTrackInfo(video, audio));
  ASSERT_TRUE(video.isArray()) << "video must be handed out before audio is missed";
  EXPECT_EQ(720u, video[0]["resolutionx"].asUInt());
  EXPECT_EQ("untouched", audio.asString());
  EXPECT_EQ(1.25f, videoOnly.GetVideoRatio());
  EXPECT_TRUE(videoOnly.GetVideo(1).isNull()) << "single video track";

  Doc twoVideos(
      R"({"track_info": {"video": [{"codec": "h264"}, {"codec": "mjpeg"}], "audio": []}})");
  ASSERT_TRUE(twoVideos.GetTrackInfo(video, audio));
  EXPECT_EQ(2u, video.size());
  EXPECT_TRUE(audio.isArray());
  EXPECT_EQ("h264", twoVideos.GetVideoCodecName());
  EXPECT_EQ("mjpeg", twoVideos.GetVideo(1)["codec"].asString());

  Doc notArrays(R"({"track_info": {"video": {"0": {"codec": "h264"}}, "audio": 1}})");
  EXPECT_FALSE(notArrays.GetTrackInfo(video, audio));
  EXPECT_TRUE(notArrays.GetVideo(0).isNull());
  EXPECT_EQ("", notArrays.GetVideoCodecName());
}

}  // namespace
}  // namespace LibOrvoVTE
