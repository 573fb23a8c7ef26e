#include "metadata/video_metadata.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/child.h"
#include "tests/support/documents.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"

namespace LibOrvoVTE {
namespace {

using orvotest::JsonLine;
using orvotest::Media;
using orvotest::TestMedia;

class ProbedMetaData : public VideoMetaData {
 public:
  using VideoMetaData::document;
  using VideoMetaData::loaded;
};

// Documents cross-checked with ffprobe when written.
const std::string kGolden =
    std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/probe_documents.txt";

TEST(VideoMetaDataProbe, DocumentOfEveryGeneratedFile) {
  // The attachment in tracks.mkv has no codec, which libavformat warns about.
  av_log_set_level(AV_LOG_ERROR);
  std::ifstream golden(kGolden);
  for (const Media media :
       {Media::kH264AacMp4, Media::kRotatedMp4, Media::kTracksMkv, Media::kAc3DataTs,
        Media::kSar4x3Mp4, Media::kNoSarMp4, Media::kContainerSarMkv, Media::kAudioOnlyMp3,
        Media::kVideoOnlyAvi, Media::kVp9VorbisWebm}) {
    std::string name, expected;
    golden >> name;
    std::getline(golden >> std::ws, expected);
    ASSERT_EQ(orvotest::MediaName(media), name) << kGolden;
    const std::string path = TestMedia(media);
    ProbedMetaData meta;
    ASSERT_TRUE(meta.LoadFile(path)) << name;
    Json::Value doc = meta.document;
    EXPECT_EQ(path + " " + std::to_string(std::filesystem::file_size(path)),
              doc["path"].asString() + " " + doc["filesize"].asString());
    EXPECT_GT(doc["bitrate"].asInt(), 0) << name;
    for (const char* key : {"path", "filesize", "bitrate"}) doc.removeMember(key);
    EXPECT_EQ(expected, JsonLine(doc)) << name;
  }
}

// A load that blocks (on a FIFO) or crashes fails its row, not the run.
TEST(VideoMetaDataProbe, LoadFileFailsCleanlyOnBadInput) {
  orvotest::MachineRoot root;
  ASSERT_EQ(0, mkfifo(root.At("/fifo").c_str(), 0600));
  const std::string text = TestMedia(Media::kNotMedia), truncated = TestMedia(Media::kTruncatedMp4);
  for (const std::string& path : {std::string(), root.At("/missing.mp4"), root.At("/fifo"), truncated, text}) {
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
  Json::Value list(Json::arrayValue);
  EXPECT_FALSE(VideoMetaData::ReadMetaDataFromFFMPEG(TestMedia(Media::kH264AacMp4), list));
}

}  // namespace
}  // namespace LibOrvoVTE
