#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "decisions/argument_helper.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "vte/http_stream.h"
#include "vte/utils/vteutils.h"

// A seek replacing the running run is in vte/http_stream_test.cc, beside
// the progressive HTTP stream's.
namespace LibOrvoVTE {
namespace {

using orvotest::Media;

using WebMStreamTest = orvotest::StreamTest;

// AAC and MP3 are copied with their own rate and channels; anything else is
// encoded. A run may start at the source's very end (40 s), not after.
TEST_F(WebMStreamTest, CopiesOnlyAacAndMp3AudioAndStartsAtTheSeekTime) {
  const struct {
    Media media;
    const char* audioId;  // "" : the first track
    bool copy;
  } cases[] = {
      {Media::kH264AacMp4, "", true},     {Media::kLongH264Mp3Mkv, "", true},
      {Media::kVp9VorbisWebm, "", false}, {Media::kTracksMkv, "2", false},  // AC-3
      {Media::kTracksMkv, "1", true},
  };
  int number = 0;
  for (const auto& c : cases) {
    const std::string label = orvotest::MediaName(c.media) + " [" + c.audioId + "]";
    const std::string id = orvotest::CreateSession(c.media, "WEBM", "webm.json",
                                                   "webm_320x240_vp8_vb256_vorbis_ab64",
                                                   "audio" + std::to_string(number++));
    ASSERT_FALSE(id.empty()) << label;
    if (*c.audioId != '\0') {
      ASSERT_TRUE(SaveFile(orvotest::SessionPath("WEBM", id, "audio_id"), c.audioId)) << label;
    }
    const std::string words = orvotest::JoinWords(WebMStream(id).CalculateFFmpegArgument(1));
    const std::string encoder = c.copy ? "copy" : ArgumentHelper::GetMP3Encoder();
    EXPECT_NE(words.find(" -acodec " + encoder + " "), std::string::npos) << label << ": " << words;
    EXPECT_EQ(c.copy, words.find(" -ab ") == std::string::npos) << label << ": " << words;
    EXPECT_EQ(words.substr(words.rfind(" -webm_seek_time")), " -webm_seek_time 1 -avoid_negative_ts 0")
        << label;
  }
  const std::string id = orvotest::CreateSession(Media::kLongH264Mp3Mkv, "WEBM", "webm.json",
                                                 "webm_320x240_vp8_vb256_vorbis_ab64", "end");
  EXPECT_FALSE(WebMStream(id).CalculateFFmpegArgument(40).empty());
  EXPECT_TRUE(WebMStream(id).CalculateFFmpegArgument(41).empty());
}

}  // namespace
}  // namespace LibOrvoVTE
