#include "metadata/video_metadata.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
}

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/documents.h"
#include "tests/support/test_media.h"

namespace LibOrvoVTE {
namespace {

using orvotest::JsonLine;
using orvotest::Media;
using orvotest::ParseJson;
using orvotest::TestMedia;

class ProbedMetaData : public VideoMetaData {
 public:
  using VideoMetaData::document;
  using VideoMetaData::loaded;
};

std::string FileSize(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? std::to_string(info.st_size) : "?";
}

// The video track the lavfi test source gives at 320x240 with square pixels.
std::string Video(const std::string& members) {
  return R"({"resolutionx": 320, "resolutiony": 240, "language": "", "rotate": 0,
             "sample_aspect_ratio_num": 1, "sample_aspect_ratio_den": 1, )" +
         members + "}";
}

const char kAvc[] = R"("codec": "h264", "codec_raw": "h264", "profile": "Constrained Baseline",
                       "level": 13, )";
const char kAacStereo[] = R"("codec": "aac", "codec_raw": "aac", "profile": "LC", "channel": 2,
                             "channel_layout": "stereo", "sample_rate": 48000, )";

struct Expected {
  Media media;
  std::string document;  // all but "path", "filesize" and "bitrate"
};

// What the recipes in tests/support/test_media.cc make, cross-checked with
// ffprobe when written.
std::vector<Expected> ExpectedDocuments() {
  const std::string mp4 = R"("container_type": "mov,mp4,m4a,3gp,3g2,mj2", "start_time": 0, )";
  const std::string h264AacTracks = R"({"video": [)" + Video(std::string(kAvc) + R"(
        "id": "0", "track": "0", "codec_tag": "avc1", "framerate": 23.976024627685547,
        "language": "und")") + R"(], "audio": [{)" + kAacStereo + R"(
        "id": "1", "track": "1", "streamid": 2, "is_default": true, "language": "eng"}],
      "subtitle": []})";
  const auto videoOnlyMp4 = [&](const std::string& aspect) {
    return "{" + mp4 + R"("duration": 1, "track_info": {"video": [)" +
           Video(std::string(kAvc) + R"("id": "0", "track": "0", "codec_tag": "avc1",
                 "framerate": 25.0, "language": "und", )" + aspect) +
           R"(], "audio": [], "subtitle": []}})";
  };
  return {
      {Media::kH264AacMp4,
       "{" + mp4 + R"("duration": 2, "track_info": )" + h264AacTracks + "}"},
      // The same streams: only the display matrix differs.
      {Media::kRotatedMp4, "{" + mp4 + R"("duration": 2, "track_info": )" +
                               std::string(h264AacTracks).replace(
                                   h264AacTracks.find(R"("rotate": 0)"), 11, R"("rotate": 90)") +
                               "}"},
      {Media::kTracksMkv, R"({"container_type": "matroska,webm", "duration": 2, "start_time": 0,
        "track_info": {"video": [)" + Video(std::string(kAvc) + R"(
            "id": "0", "track": "0", "codec_tag": "[0][0][0][0]", "framerate": 25.0)") + R"(],
          "audio": [{)" + kAacStereo + R"("id": "1", "track": "1", "streamid": 0,
                      "is_default": false, "language": "eng"},
                    {"id": "2", "track": "2", "streamid": 0, "codec": "ac3", "codec_raw": "ac3",
                     "profile": "", "channel": 1, "channel_layout": "mono",
                     "sample_rate": 48000, "is_default": true, "language": "jpn"}],
          "subtitle": [{"id": "3", "track": "3", "codec": "subrip", "language": "fre",
                        "title": "French"}]}})"},
      // The data stream (index 1) takes no id; the ids close up around it.
      {Media::kAc3DataTs, R"({"container_type": "mpegts", "duration": 2, "start_time": 1,
        "track_info": {"video": [)" + Video(R"("id": "0", "track": "0", "codec": "mpeg2",
            "codec_raw": "mpeg2video", "codec_tag": "[2][0][0][0]", "profile": "Main",
            "level": 8, "framerate": 25.0)") + R"x(],
          "audio": [{"id": "1", "track": "2", "streamid": 258, "codec": "ac3", "codec_raw": "ac3",
                     "profile": "", "channel": 6, "channel_layout": "5.1(side)",
                     "sample_rate": 48000, "is_default": false, "language": "eng"},
                    {"id": "2", "track": "3", "streamid": 259, "codec": "mp2", "codec_raw": "mp2",
                     "profile": "", "channel": 2, "channel_layout": "stereo",
                     "sample_rate": 48000, "is_default": false, "language": "ger"}],
          "subtitle": []}})x"},
      {Media::kSar4x3Mp4,
       videoOnlyMp4(R"("sample_aspect_ratio_num": 4, "sample_aspect_ratio_den": 3)")},
      {Media::kNoSarMp4,
       videoOnlyMp4(R"("sample_aspect_ratio_num": 0, "sample_aspect_ratio_den": 0)")},
      // The bitstream has no aspect ratio, so the container's is used.
      {Media::kContainerSarMkv, R"({"container_type": "matroska,webm", "duration": 1,
        "start_time": 0, "track_info": {"video": [)" + Video(std::string(kAvc) + R"(
            "id": "0", "track": "0", "codec_tag": "[0][0][0][0]", "framerate": 25.0,
            "sample_aspect_ratio_num": 4, "sample_aspect_ratio_den": 3)") + R"(],
          "audio": [], "subtitle": []}})"},
      {Media::kAudioOnlyMp3, R"({"container_type": "mp3", "duration": 2, "start_time": 0,
        "track_info": {"video": [], "subtitle": [],
          "audio": [{"id": "0", "track": "0", "streamid": 0, "codec": "mp3", "codec_raw": "mp3",
                     "profile": "", "channel": 1, "channel_layout": "mono",
                     "sample_rate": 44100, "is_default": false, "language": ""}]}})"},
      {Media::kVideoOnlyAvi, R"({"container_type": "avi", "duration": 2, "start_time": 0,
        "track_info": {"audio": [], "subtitle": [], "video": [)" + Video(R"(
            "id": "0", "track": "0", "codec": "mpeg4", "codec_raw": "mpeg4",
            "codec_tag": "FMP4", "profile": "Simple Profile", "level": 1,
            "framerate": 25.0)") + "]}}"},
      // VP9 is not in the codec table (""), and WebM has no level (-99 -> 0).
      {Media::kVp9VorbisWebm, R"({"container_type": "matroska,webm", "duration": 2,
        "start_time": 0, "track_info": {"subtitle": [], "video": [)" + Video(R"(
            "id": "0", "track": "0", "codec": "", "codec_raw": "vp9",
            "codec_tag": "[0][0][0][0]", "profile": "Profile 0", "level": 0,
            "framerate": 25.0)") + R"(],
          "audio": [{"id": "1", "track": "1", "streamid": 0, "codec": "vorbis",
                     "codec_raw": "vorbis", "profile": "", "channel": 2,
                     "channel_layout": "stereo", "sample_rate": 48000, "is_default": false,
                     "language": ""}]}})"},
  };
}
// The whole document, but for the values the file's bytes decide.
TEST(VideoMetaDataProbe, DocumentOfEveryGeneratedFile) {
  // The attachment in tracks.mkv has no codec, which libavformat warns about.
  av_log_set_level(AV_LOG_ERROR);
  for (const Expected& expected : ExpectedDocuments()) {
    const std::string name = orvotest::MediaName(expected.media);
    const std::string path = TestMedia(expected.media);
    ASSERT_FALSE(path.empty()) << name;
    ProbedMetaData meta;
    ASSERT_TRUE(meta.LoadFile(path)) << name;
    Json::Value doc = meta.document;
    EXPECT_EQ(Json::Value(path), doc["path"]) << name;
    EXPECT_EQ(Json::Value(FileSize(path)), doc["filesize"]) << name;
    EXPECT_GT(doc["bitrate"].asInt(), 0) << name;
    for (const char* key : {"path", "filesize", "bitrate"}) doc.removeMember(key);
    EXPECT_EQ(JsonLine(ParseJson(expected.document)), JsonLine(doc)) << name;
  }
}

TEST(VideoMetaDataProbe, LoadFileProbesOncePerPathAndClearsOnFailure) {
  const std::string first = TestMedia(Media::kH264AacMp4);
  const std::string second = TestMedia(Media::kVideoOnlyAvi);
  ProbedMetaData meta;
  ASSERT_TRUE(meta.LoadFile(first));
  meta.document["duration"] = 4242u;  // a mark only a second probe would wipe out
  EXPECT_TRUE(meta.LoadFile(first));
  EXPECT_FALSE(meta.LoadFile(""));
  EXPECT_EQ(4242u, meta.GetDuration()) << "probed again, or \"\" dropped the document";
  ASSERT_TRUE(meta.LoadFile(second));
  EXPECT_EQ("avi", meta.GetContainer());
  EXPECT_EQ(0u, meta.document["track_info"]["audio"].size()) << "tracks of the first file kept";
  EXPECT_FALSE(meta.LoadFile(second + ".missing"));
  EXPECT_EQ("", meta.GetContainer()) << "a failed load leaves nothing visible";
}

// Each load runs in a child: one that blocks (a FIFO opened for reading
// waits for a writer) or crashes fails its row instead of the whole run.
TEST(VideoMetaDataProbe, LoadFileFailsCleanlyOnBadInput) {
  const std::string dir = "/tmp/video_metadata_test." + std::to_string(getpid());
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  const std::string fifo = dir + "/fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  const std::string text = TestMedia(Media::kNotMedia);
  for (const std::string& path : {std::string(), dir + "/missing.mp4", dir, text + "/clip.mp4",
                                  fifo, std::string("/dev/null"),
                                  TestMedia(Media::kTruncatedMp4), text}) {
    const int status = orvotest::RunInChild(
        [&] {
          av_log_set_level(AV_LOG_QUIET);
          ProbedMetaData meta;
          if (meta.LoadFile(path)) return 1;
          return meta.loaded ? 2 : 0;
        },
        60);
    EXPECT_EQ(0, status) << path << ": 1 loaded, 2 left loaded, -1 hung or crashed";
  }
  unlink(fifo.c_str());
  rmdir(dir.c_str());

  // Examined but not media: size and path are in, nothing else; a caller's
  // document that is not an object must not throw out of the library.
  const std::string truncated = TestMedia(Media::kTruncatedMp4);
  Json::Value partial(Json::objectValue);
  EXPECT_FALSE(VideoMetaData::ReadMetaDataFromFFMPEG(truncated, partial));
  EXPECT_EQ(R"({"filesize":"4096","path":")" + truncated + "\"}", JsonLine(partial));
  Json::Value list(Json::arrayValue);
  EXPECT_FALSE(VideoMetaData::ReadMetaDataFromFFMPEG(TestMedia(Media::kH264AacMp4), list));
}

// Streams built by hand in a real format context, for the values no
// generated file carries.
class VideoMetaDataStream : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { avformat_free_context(context_); }
  void Reset() {
    avformat_free_context(context_);
    context_ = avformat_alloc_context();
    stream_ = avformat_new_stream(context_, nullptr);
    par_ = stream_->codecpar;
  }

  AVFormatContext* context_ = nullptr;
  AVStream* stream_ = nullptr;
  AVCodecParameters* par_ = nullptr;
};

TEST_F(VideoMetaDataStream, VideoSizeAspectLevelAndRate) {
  const struct {
    int width, height;
    AVRational codecSar, streamSar;
    int level;
    AVRational rate;
    const char* expected;
  } rows[] = {
      // No width: no size, and the height is not believed either.
      {0, 240, {4, 3}, {4, 3}, -99, {0, 0}, "0x0 0/0 level 0"},
      {-1, 240, {4, 3}, {4, 3}, -1, {25, 0}, "0x0 0/0 level 0"},
      // The bitstream's aspect wins over the container's.
      {320, 240, {16, 11}, {4, 3}, 0, {0, 1}, "320x240 16/11 level 0"},
      {320, 240, {0, 1}, {4, 3}, 41, {25, 1}, "320x240 4/3 level 41 rate 25.0"},
      {720, 576, {-1, 1}, {0, 0}, 40, {30000, 1001}, "720x576 0/0 level 40 rate 29.970029830932617"},
  };
  for (const auto& row : rows) {
    Reset();
    par_->width = row.width;
    par_->height = row.height;
    par_->sample_aspect_ratio = row.codecSar;
    stream_->sample_aspect_ratio = row.streamSar;
    par_->level = row.level;
    stream_->avg_frame_rate = row.rate;
    const Json::Value track = ParseVideoCodec(stream_);
    std::ostringstream seen;
    seen << track["resolutionx"].asUInt() << "x" << track["resolutiony"].asUInt() << " "
         << track["sample_aspect_ratio_num"].asUInt() << "/"
         << track["sample_aspect_ratio_den"].asUInt() << " level " << track["level"].asInt();
    if (track.isMember("framerate")) seen << " rate " << JsonLine(track["framerate"]);
    EXPECT_EQ(row.expected, seen.str()) << row.width << " level " << row.level;
  }
}

TEST_F(VideoMetaDataStream, VideoRotationFromTagOrDisplayMatrix) {
  const struct {
    const char* tagKey;  // nullptr: no tag
    const char* tagValue;
    bool matrix;
    double matrixDegrees;  // av_display_rotation_set's counter-clockwise angle
    int expected;
  } rows[] = {
      {nullptr, nullptr, false, 0, 0},     {"ROTATE", "180", false, 0, 180},
      {"rotate", "sideways", false, 0, 0}, {"rotate", "-90", false, 0, -90},
      {"rotate", "270", true, 90, 270},    {nullptr, nullptr, true, 90, 90},
      {nullptr, nullptr, true, -90, 270},  {nullptr, nullptr, true, 180, 180},
      {nullptr, nullptr, true, 45, 45},
  };
  for (const auto& row : rows) {
    Reset();
    if (row.tagKey) av_dict_set(&stream_->metadata, row.tagKey, row.tagValue, 0);
    if (row.matrix) {
      uint8_t* data = av_stream_new_side_data(stream_, AV_PKT_DATA_DISPLAYMATRIX,
                                              9 * sizeof(int32_t));
      ASSERT_NE(nullptr, data);
      av_display_rotation_set(reinterpret_cast<int32_t*>(data), row.matrixDegrees);
    }
    EXPECT_EQ(row.expected, ParseVideoCodec(stream_)["rotate"].asInt())
        << (row.tagValue ? row.tagValue : "no tag") << ", matrix "
        << (row.matrix ? std::to_string(row.matrixDegrees) : "none");
  }
}

TEST_F(VideoMetaDataStream, AudioAndSubtitleFields) {
  stream_->id = 0x1100;
  stream_->disposition = AV_DISPOSITION_DEFAULT | AV_DISPOSITION_FORCED;
  par_->codec_type = AVMEDIA_TYPE_AUDIO;
  par_->codec_id = AV_CODEC_ID_AAC;
  par_->profile = FF_PROFILE_AAC_HE;
  par_->sample_rate = 44100;
  av_channel_layout_default(&par_->ch_layout, 6);
  av_dict_set(&stream_->metadata, "Language", "spa", 0);
  EXPECT_EQ(R"({"channel":6,"channel_layout":"5.1","codec":"aac","codec_raw":"aac",)"
            R"("is_default":true,"language":"spa","profile":"HE-AAC","sample_rate":44100,)"
            R"("streamid":4352})",
            JsonLine(ParseAudioCodec(stream_)));
  // A codec libavcodec does not describe, and none at all: no crash.
  stream_->disposition = AV_DISPOSITION_FORCED;
  par_->codec_id = AV_CODEC_ID_PCM_ZORK;
  const Json::Value zork = ParseAudioCodec(stream_);
  EXPECT_EQ("pcm_zork||false", zork["codec"].asString() + "|" + zork["codec_raw"].asString() +
                                   "|" + (zork["is_default"].asBool() ? "true" : "false"));
  par_->codec_id = AV_CODEC_ID_NONE;
  EXPECT_EQ("", ParseAudioCodec(stream_)["codec"].asString());
  par_->codec_id = AV_CODEC_ID_MOV_TEXT;
  av_dict_set(&stream_->metadata, "title", "Signs", 0);
  EXPECT_EQ(R"({"codec":"mov_text","language":"spa","title":"Signs"})",
            JsonLine(ParseSubtitleCodec(stream_)));
}

// Accessors answer their default for any document they are handed (a
// session file another process wrote, a value of an unexpected type); a
// jsoncpp read of the wrong type would throw.
std::string Accessed(const VideoMetaData& meta) {
  std::ostringstream seen;
  Json::Value video, audio, subtitle;
  seen << meta.GetContainer() << "|" << meta.GetFilePath() << "|" << meta.GetStartTime() << "|"
       << meta.GetDuration() << "|" << meta.GetFileSize() << "|" << meta.GetVideoFramerate() << "|"
       << meta.GetVideoResolutionX() << "x" << meta.GetVideoResolutionY() << "|"
       << meta.GetVideoRotate() << "|" << meta.GetVideoLevel() << "|" << meta.GetVideoCodecName()
       << "|" << meta.GetVideoProfile() << "|" << meta.GetVideoRatio() << "|"
       << meta.GetTrackInfo(video, audio) << meta.GetSubtitleTrackInfo(subtitle)
       << !meta.GetVideo(1).isNull();
  return seen.str();
}

TEST(VideoMetaDataAccessors, DefaultsForWhatIsNotThereOrOfTheWrongType) {
  const std::string probed =
      R"({"path":"/v.mkv","filesize":"5000000000","duration":5400,"start_time":2,)"
      R"("container_type":"mkv","track_info":{"video":[{"codec":"h264","profile":"High",)"
      R"("level":41,"framerate":23.976,"rotate":90,"resolutionx":1920,"resolutiony":800},)"
      R"({"codec":"mjpeg"}],"audio":[],"subtitle":[]}})";
  const struct {
    std::string document;
    bool loaded;
    const char* expected;
  } rows[] = {
      {probed, true, "mkv|/v.mkv|2|5400|5000000000|23.976|1920x800|90|41|h264|High|2.4|111"},
      {probed, false, "||0|0|0|0|0x0|0|0|||1.77|000"},
      {"[1, 2]", true, "||0|0|0|0|0x0|0|0|||1.77|000"},
      {R"({"track_info":"none","path":7,"duration":"90","filesize":5000,"start_time":-2})", true,
       "||0|0|0|0|0x0|0|0|||1.77|000"},
      {R"({"duration":1e12,"start_time":12.9,"track_info":{"video":[{"rotate":-90,"level":"4",)"
       R"("framerate":"25","codec":7,"resolutionx":640}]}})",
       true, "||12|0|0|0|640x0|0|0|||1.77|000"},
      {R"({"track_info":{"video":{"0":{"codec":"h264"}},"audio":1}})", true,
       "||0|0|0|0|0x0|0|0|||1.77|000"},
      {R"({"duration":4294967295,"track_info":{"video":[{"resolutionx":720,"resolutiony":576}]}})",
       true, "||0|4294967295|0|0|720x576|0|0|||1.25|000"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.expected, Accessed(orvotest::DocumentMetaData(ParseJson(row.document), row.loaded)))
        << row.document << " loaded " << row.loaded;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
