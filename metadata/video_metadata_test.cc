#include "metadata/video_metadata.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

}  // namespace
}  // namespace LibOrvoVTE
