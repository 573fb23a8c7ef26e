#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "vte/liborvovte.h"

namespace LibOrvoVTE {
namespace {

class Stream : public VTEStream {
 public:
  explicit Stream(const std::string& id) : VTEStream(id, "HLS") {}
};

// The session `id` as VTE_Init leaves it: a 1920x800 video with sample aspect
// `sar`:`sar` turned by `rotate`, an AAC track "1" and an AC-3 track "2".
void WriteSession(const orvotest::MachineRoot& root, const std::string& id, int sar, int rotate,
                  const std::string& profile) {
  const std::string sarText = std::to_string(sar);
  orvotest::MakeSession("HLS", id);
  root.WriteFile("/tmp/Reelhall/HLS/" + id + "/video_metadata",
                 R"({"container_type":"matroska,webm","profile_value":")" + profile +
                     R"(","track_info":{"video":[{"id":"0","track":"0","codec":"h264",)"
                     R"("resolutionx":1920,"resolutiony":800,"sample_aspect_ratio_num":)" +
                     sarText + R"(,"sample_aspect_ratio_den":)" + sarText +
                     R"(,"rotate":)" + std::to_string(rotate) +
                     R"(}],"audio":[{"id":"1","track":"1","codec":"aac"},)"
                     R"({"id":"2","track":"2","codec":"ac3"}]}})");
}

// Callers built against the system's own declaration name a non-const
// member; a const one would be another symbol, which they would not find.
static_assert(std::is_same_v<decltype(&VTEStream::ForceFFmpegAudioFormat),
                             std::vector<std::string> (VTEStream::*)(
                                 const std::vector<std::string>&, const std::string&)>);

// The audio encoder forced to the client's format; the size fitted to the
// source (a hardware encoder gets it without an aspect; one that cannot be
// fitted stays as it was).
TEST(ForcedOptionsTest, AudioFormatAndVideoSizeFittedToTheSource) {
  orvotest::MachineRoot root;
  const char* audio[][3] = {
      {"-acodec libmp3lame -ab 128k", "copy", "-acodec copy"},
      {"-acodec libmp3lame -ab 128k", "aac", "-acodec libfdk_aac -ab 128k"},
      {"-ar 44100 -vcodec copy -ac 2 -acodec aac", "copy", "-vcodec copy -acodec copy"},
      {"-acodec aac -ac 2", "mp3", "-acodec libshine -ac 2"},
      {"-ab 64k", "aac", "-ab 64k"},
      {"-acodec aac", "opus", "-acodec "},
  };
  for (const auto& row : audio) {
    EXPECT_EQ(row[2], orvotest::JoinWords(Stream("none").ForceFFmpegAudioFormat(orvotest::SplitWords(row[0]), row[1])))
        << row[0] << " to " << row[1];
  }
  WriteSession(root, "square", 0, 0, "-vcodec libx264");
  WriteSession(root, "sar", 1, 0, "-vcodec libx264");
  WriteSession(root, "turned", 0, 90, "-vcodec libx264");
  WriteSession(root, "hw", 0, 0, "-vcodec h264_smd -s hd720");
  const struct {
    const char* session;
    const char* options;
    bool noAspect;
    const char* forced;
  } rows[] = {
      {"square", "-vcodec x -s hd720 -r 25", false, "-vcodec x -s 1280x720 -aspect 1.77778 -r 25"},
      {"square", "-vcodec x -s hd720 -r 25", true, "-vcodec x -s 1280x532 -r 25"},
      // ffmpeg carries a source's own sample aspect ratio over by itself.
      {"sar", "-s hd720", false, "-s 1280x720"},
      {"turned", "-s hd720", false, "-s 720x1280 -aspect 0.5625"},
      {"turned", "-s hd720", true, "-s 300x720"},
      {"square", "hd720 -s", false, "hd720 -s"},
      {"square", "-s hd4k", false, "-s hd4k"},
      {"hw", "-s hd720", false, "-s 1280x532"},
  };
  orvotest::PlatformFiles evansport;
  evansport.name = "evansport";
  root.Play(evansport);
  for (const auto& row : rows) {
    EXPECT_EQ(row.forced, orvotest::JoinWords(Stream(row.session).ForceFFmpegVideoSize(
                              orvotest::SplitWords(row.options), row.noAspect)))
        << row.session << " " << row.options << " noAspect " << row.noAspect;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
