#include "metadata/video_metadata.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
}

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_media.h"

namespace LibOrvoVTE {
namespace {

using orvotest::Media;
using orvotest::TestMedia;

class ProbedMetaData : public VideoMetaData {
 public:
  using VideoMetaData::document;
  using VideoMetaData::loaded;
};

Json::Value ParseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors))
      << errors << "\n" << text;
  return value;
}

// The value type of every key each object kind carries; no other key may
// appear. "framerate" is the one optional key.
using Schema = std::map<std::string, Json::ValueType>;
constexpr Json::ValueType kStr = Json::stringValue, kUint = Json::uintValue, kInt = Json::intValue;
const Schema kTopLevel = {{"path", kStr}, {"filesize", kStr}, {"duration", kUint},
                          {"start_time", kUint}, {"bitrate", kInt}, {"container_type", kStr},
                          {"track_info", Json::objectValue}};
const Schema kVideo = {{"id", kStr}, {"track", kStr}, {"codec", kStr}, {"codec_raw", kStr},
                       {"codec_tag", kStr}, {"profile", kStr}, {"level", kInt}, {"rotate", kInt},
                       {"language", kStr}, {"framerate", Json::realValue},
                       {"resolutionx", kUint}, {"resolutiony", kUint},
                       {"sample_aspect_ratio_num", kUint}, {"sample_aspect_ratio_den", kUint}};
const Schema kAudio = {{"id", kStr}, {"track", kStr}, {"streamid", kInt}, {"codec", kStr},
                       {"codec_raw", kStr}, {"profile", kStr}, {"channel", kInt},
                       {"channel_layout", kStr}, {"sample_rate", kInt}, {"language", kStr},
                       {"is_default", Json::booleanValue}};
const Schema kSubtitle = {
    {"id", kStr}, {"track", kStr}, {"codec", kStr}, {"language", kStr}, {"title", kStr}};

void ExpectShape(const Json::Value& object, const Schema& schema, const std::string& where) {
  ASSERT_TRUE(object.isObject()) << where;
  for (const std::string& key : object.getMemberNames()) {
    auto expected = schema.find(key);
    if (expected == schema.end()) {
      ADD_FAILURE() << where << ": unexpected key " << key;
    } else {
      EXPECT_EQ(expected->second, object[key].type()) << where << "." << key;
    }
  }
  for (const auto& [key, type] : schema) {
    EXPECT_TRUE(object.isMember(key) || key == "framerate") << where << ": missing " << key;
  }
}

void ExpectDocumentShape(const Json::Value& document, const std::string& where) {
  ExpectShape(document, kTopLevel, where);
  const Json::Value& info = document["track_info"];
  ASSERT_EQ(3u, info.size()) << where << " track_info keys";
  for (const auto& [kind, schema] : {std::make_pair("video", &kVideo),
                                     std::make_pair("audio", &kAudio),
                                     std::make_pair("subtitle", &kSubtitle)}) {
    ASSERT_TRUE(info[kind].isArray()) << where << " " << kind;
    for (Json::ArrayIndex i = 0; i < info[kind].size(); ++i) {
      ExpectShape(info[kind][i], *schema, where + " " + kind + "[" + std::to_string(i) + "]");
    }
  }
}

// Values compared without regard to int/uint (the shape check covers that),
// reporting each difference with its place in the document.
void ExpectSameValues(const Json::Value& expected, const Json::Value& actual,
                      const std::string& where) {
  if (expected.isObject()) {
    ASSERT_TRUE(actual.isObject()) << where;
    for (const std::string& key : expected.getMemberNames()) {
      EXPECT_TRUE(actual.isMember(key)) << where << ": missing " << key;
      if (actual.isMember(key)) ExpectSameValues(expected[key], actual[key], where + "." + key);
    }
  } else if (expected.isArray()) {
    ASSERT_TRUE(actual.isArray()) << where;
    ASSERT_EQ(expected.size(), actual.size()) << where;
    for (Json::ArrayIndex i = 0; i < expected.size(); ++i) {
      ExpectSameValues(expected[i], actual[i], where + "[" + std::to_string(i) + "]");
    }
  } else if (expected.isDouble() || actual.isDouble()) {
    ASSERT_TRUE(actual.isNumeric()) << where;
    EXPECT_EQ(expected.asDouble(), actual.asDouble()) << where;
  } else if (expected.isIntegral()) {
    ASSERT_TRUE(actual.isIntegral()) << where;
    EXPECT_EQ(expected.asLargestInt(), actual.asLargestInt()) << where;
  } else {
    EXPECT_EQ(expected, actual) << where;
  }
}

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
      {Media::kRotatedMp4,
       "{" + mp4 + R"("duration": 2, "track_info": {"video": [{"rotate": 90}]}})"},
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

TEST(VideoMetaDataProbe, DocumentOfEveryGeneratedFile) {
  // The attachment in tracks.mkv has no codec, which libavformat warns about.
  av_log_set_level(AV_LOG_ERROR);
  for (const Expected& expected : ExpectedDocuments()) {
    const std::string name = orvotest::MediaName(expected.media);
    SCOPED_TRACE(name);
    const std::string path = TestMedia(expected.media);
    ASSERT_FALSE(path.empty());
    ProbedMetaData meta;
    ASSERT_TRUE(meta.LoadFile(path));
    EXPECT_TRUE(meta.loaded);
    ExpectDocumentShape(meta.document, name);
    EXPECT_EQ(path, meta.document["path"].asString());
    EXPECT_EQ(FileSize(path), meta.document["filesize"].asString());
    EXPECT_GT(meta.document["bitrate"].asInt(), 0);
    ExpectSameValues(ParseJson(expected.document), meta.document, name);
  }
}

TEST(VideoMetaDataProbe, LoadFileProbesOncePerPath) {
  const std::string first = TestMedia(Media::kH264AacMp4);
  const std::string second = TestMedia(Media::kVideoOnlyAvi);
  ProbedMetaData meta;
  ASSERT_TRUE(meta.LoadFile(first));

  // A mark only a second probe would wipe out.
  meta.document["duration"] = 4242u;
  EXPECT_TRUE(meta.LoadFile(first));
  EXPECT_EQ(4242u, meta.document["duration"].asUInt()) << "the same path was probed again";

  const Json::Value before = meta.document;
  EXPECT_FALSE(meta.LoadFile(""));
  EXPECT_TRUE(meta.loaded) << "\"\" must leave the loaded state";
  EXPECT_EQ(before, meta.document) << "\"\" must leave the document";

  ASSERT_TRUE(meta.LoadFile(second));
  EXPECT_EQ(second, meta.document["path"].asString());
  EXPECT_EQ("avi", meta.document["container_type"].asString());
  EXPECT_EQ(0u, meta.document["track_info"]["audio"].size()) << "tracks of the first file kept";

  // A failed load clears; the next good one probes afresh.
  EXPECT_FALSE(meta.LoadFile(second + ".missing"));
  EXPECT_FALSE(meta.loaded);
  EXPECT_EQ(Json::Value(Json::objectValue), meta.document);
  ASSERT_TRUE(meta.LoadFile(first));
  EXPECT_EQ(2u, meta.document["duration"].asUInt());
}

// Each load runs in a child: one that blocks (a FIFO opened for reading
// waits for a writer) or crashes fails its row instead of the whole run.
TEST(VideoMetaDataProbe, LoadFileFailsCleanlyOnBadInput) {
  const std::string dir = "/tmp/video_metadata_test." + std::to_string(getpid());
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  const std::string fifo = dir + "/fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  const std::string text = TestMedia(Media::kNotMedia);
  const std::string logged = "video_metadata:386 ParserMetaDataFromFFMPEG fail.";
  const struct {
    std::string what, path;
    bool parserFailure;  // whether libavformat was asked and said no
  } inputs[] = {
      {"empty path", "", false},          {"missing file", dir + "/missing.mp4", false},
      {"directory", dir, false},          {"through a regular file", text + "/clip.mp4", false},
      {"fifo", fifo, false},              {"character device", "/dev/null", false},
      {"truncated mp4", TestMedia(Media::kTruncatedMp4), true}, {"text file", text, true},
  };
  for (const auto& input : inputs) {
    const int status = orvotest::RunInChild(
        [&] {
          av_log_set_level(AV_LOG_QUIET);
          orvotest::LogCapture log;
          ProbedMetaData meta;
          if (meta.LoadFile(input.path)) return 1;
          if (meta.loaded) return 2;
          return log.Has(LOG_ERR, logged) == input.parserFailure ? 0 : 3;
        },
        60);
    EXPECT_EQ(0, status) << input.what << " (" << input.path
                         << "): 1 loaded, 2 left loaded, 3 wrong log, -1 hung or crashed";
  }
  unlink(fifo.c_str());
  rmdir(dir.c_str());
}

TEST(VideoMetaDataProbe, ReadMetaDataKeepsWhatAFailedProbeWrote) {
  // The file cannot be examined: the document is not touched.
  Json::Value doc(Json::objectValue);
  doc["mark"] = 1;
  EXPECT_FALSE(VideoMetaData::ReadMetaDataFromFFMPEG("/dev/null", doc));
  EXPECT_EQ(ParseJson(R"({"mark": 1})"), doc);

  // Examined but not media: size and path are in, nothing else.
  av_log_set_level(AV_LOG_QUIET);
  const std::string truncated = TestMedia(Media::kTruncatedMp4);
  Json::Value partial(Json::objectValue);
  EXPECT_FALSE(VideoMetaData::ReadMetaDataFromFFMPEG(truncated, partial));
  Json::Value expected(Json::objectValue);
  expected["path"] = truncated;
  expected["filesize"] = "4096";
  EXPECT_EQ(expected, partial);

  // A caller's value that is not an object must not throw out of the library.
  Json::Value list(Json::arrayValue);
  EXPECT_FALSE(VideoMetaData::ReadMetaDataFromFFMPEG(TestMedia(Media::kH264AacMp4), list));
}

// Streams built by hand in a real format context, for the values no
// generated file carries.
class VideoMetaDataStream : public ::testing::Test {
 protected:
  void SetUp() override {
    context_ = avformat_alloc_context();
    ASSERT_NE(nullptr, context_);
    stream_ = avformat_new_stream(context_, nullptr);
    ASSERT_NE(nullptr, stream_);
    par_ = stream_->codecpar;
  }
  void TearDown() override { avformat_free_context(context_); }

  AVFormatContext* context_ = nullptr;
  AVStream* stream_ = nullptr;
  AVCodecParameters* par_ = nullptr;
};

TEST_F(VideoMetaDataStream, VideoSizeAndAspectFallBack) {
  const struct {
    int width, height;
    AVRational codecSar, streamSar;
    unsigned int x, y, num, den;
  } rows[] = {
      {0, 240, {4, 3}, {4, 3}, 0, 0, 0, 0},  // no width: nothing, height ignored
      {-1, 240, {4, 3}, {4, 3}, 0, 0, 0, 0},
      {320, 240, {16, 11}, {4, 3}, 320, 240, 16, 11},  // the bitstream's wins
      {320, 240, {0, 1}, {4, 3}, 320, 240, 4, 3},
      {720, 576, {0, 1}, {0, 1}, 720, 576, 0, 0},
      {720, 576, {-1, 1}, {0, 0}, 720, 576, 0, 0},
  };
  for (const auto& row : rows) {
    par_->width = row.width;
    par_->height = row.height;
    par_->sample_aspect_ratio = row.codecSar;
    stream_->sample_aspect_ratio = row.streamSar;
    const Json::Value track = ParseVideoCodec(stream_);
    const std::string tag = std::to_string(row.width) + " codec " +
                            std::to_string(row.codecSar.num) + "/" +
                            std::to_string(row.codecSar.den);
    EXPECT_EQ(row.x, track["resolutionx"].asUInt()) << tag;
    EXPECT_EQ(row.y, track["resolutiony"].asUInt()) << tag;
    EXPECT_EQ(row.num, track["sample_aspect_ratio_num"].asUInt()) << tag;
    EXPECT_EQ(row.den, track["sample_aspect_ratio_den"].asUInt()) << tag;
  }
}

TEST_F(VideoMetaDataStream, VideoLevelAndFramerate) {
  const struct {
    int level;
    AVRational rate;
    int expectedLevel;
    double expectedRate;  // 0: no "framerate" key
  } rows[] = {
      {-99, {0, 0}, 0, 0},  {-1, {25, 0}, 0, 0},     {0, {0, 1}, 0, 0},
      {41, {25, 1}, 41, 25}, {40, {30000, 1001}, 40, static_cast<double>(30000.0f / 1001.0f)},
  };
  for (const auto& row : rows) {
    par_->level = row.level;
    stream_->avg_frame_rate = row.rate;
    const Json::Value track = ParseVideoCodec(stream_);
    const std::string tag = std::to_string(row.level) + " " + std::to_string(row.rate.num) + "/" +
                            std::to_string(row.rate.den);
    EXPECT_EQ(row.expectedLevel, track["level"].asInt()) << tag;
    EXPECT_EQ(row.expectedRate != 0, track.isMember("framerate")) << tag;
    if (row.expectedRate != 0) {
      EXPECT_EQ(row.expectedRate, track["framerate"].asDouble()) << tag;
    }
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
      {nullptr, nullptr, false, 0, 0},      {"rotate", "90", false, 0, 90},
      {"ROTATE", "180", false, 0, 180},     // tags match case-insensitively
      {"rotate", "sideways", false, 0, 0},  {"rotate", "-90", false, 0, -90},
      {"rotate", "270", true, 90, 270},     // a tag wins over the matrix
      {nullptr, nullptr, true, 0, 0},       {nullptr, nullptr, true, 90, 90},
      {nullptr, nullptr, true, -90, 270},   {nullptr, nullptr, true, 180, 180},
      {nullptr, nullptr, true, 45, 45},
  };
  for (const auto& row : rows) {
    VideoMetaDataStream::TearDown();
    VideoMetaDataStream::SetUp();
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
  EXPECT_EQ(ParseJson(R"({"streamid": 4352, "codec": "aac", "codec_raw": "aac",
                          "profile": "HE-AAC", "channel": 6, "channel_layout": "5.1",
                          "sample_rate": 44100, "is_default": true, "language": "spa"})"),
            ParseAudioCodec(stream_));

  // No descriptor (pcm_zork) and no codec at all: empty names, no crash.
  stream_->disposition = AV_DISPOSITION_FORCED;
  par_->codec_id = AV_CODEC_ID_PCM_ZORK;
  Json::Value zork = ParseAudioCodec(stream_);
  EXPECT_EQ("pcm_zork", zork["codec"].asString());
  EXPECT_EQ("", zork["codec_raw"].asString());
  EXPECT_FALSE(zork["is_default"].asBool());
  par_->codec_id = AV_CODEC_ID_NONE;
  Json::Value none = ParseAudioCodec(stream_);
  EXPECT_EQ("", none["codec"].asString() + none["codec_raw"].asString() +
                    none["profile"].asString());

  par_->codec_id = AV_CODEC_ID_MOV_TEXT;
  av_dict_set(&stream_->metadata, "title", "Signs", 0);
  EXPECT_EQ(ParseJson(R"({"codec": "mov_text", "language": "spa", "title": "Signs"})"),
            ParseSubtitleCodec(stream_));
}

}  // namespace
}  // namespace LibOrvoVTE
