#include <fcntl.h>
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "vte/liborvovte.h"
#include "vte/transcoder_process.h"

namespace LibOrvoVTE {
namespace {

using orvotest::Media;
using Words = std::vector<std::string>;

class Stream : public VTEStream {
 public:
  Stream(const std::string& id, const std::string& type) : VTEStream(id, type) {}
};

// Braswell's profiles carry the two placeholders its encoder fills in.
constexpr char kProfile[] =
    "vaapipostproc width=1280 @VERTICAL@ ! videoflip ! vaapih264enc ! h264parse"
    "$audioconvert ! avenc_aac$mpegtsmux";

const Words kQueue = {"!", "queue", "max-size-time=0", "max-size-buffers=0", "max-size-bytes=0",
                      "!"};

Words Cat(std::initializer_list<Words> parts) {
  Words all;
  for (const Words& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

TEST(GstreamerPipelineTest, PipelineReachesTheLauncher) {
  orvotest::MachineRoot root;
  const std::string program = orvotest::StandInProgram();
  const std::string clip = "location=" + orvotest::TestMedia(Media::kH264AacMp4);
  const std::string tracks = "location=" + orvotest::TestMedia(Media::kTracksMkv);
  const Words verbatimChain = {"vaapipostproc", "width=1280", "@VERTICAL@", "!", "videoflip",
                               "!", "vaapih264enc", "!", "h264parse"};
  // The pipe may well be close-on-exec; naming it passes it anyway.
  int pipeFds[2];
  ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC));
  const Words sink = {"fdsink", "fd=" + std::to_string(pipeFds[1])};
  const Words muxToSink = Cat({{"name=mux", "!", "queue", "!"}, sink});
  const Words aacDecoder = {"!", "queue", "!", "aacparse", "!", "avdec_aac", "!"};
  struct Case {
    std::string name, platform;
    Media media;
    long seek;
    bool shift;
    std::string container, device, audioId, audioFormat;
    Words expected;
  } cases[] = {
      {"monaco asf for a casting device", "monaco", Media::kH264AacMp4, 5, true, "asf",
       "chromecast", "", "aac",
       Cat({{program, "-f", "-S", "5", "filesrc", clip, "!", "asfdemux", "name=demux", "!",
             "queue", "!", "stvideo", "!"},
            verbatimChain, kQueue, {"mpegtsmux", "shift-pts=5"}, muxToSink, {"demux.audio_0"},
            aacDecoder,
            {"audioconvert", "!", "audio/x-raw,channels=2", "!", "faac", "rate-control=ABR", "!",
             "queue", "!", "aacparse"},
            kQueue, {"mux."}})},
      {"copied AC-3", "x86", Media::kTracksMkv, 0, false, "", "", "2", "ac3_copy",
       Cat({{program, "-f", "-s", "0", "filesrc", tracks, "!", "matroskademux", "name=demux",
             "!", "queue", "!", "avdec_h264", "!"},
            verbatimChain, kQueue, {"mpegtsmux"}, muxToSink,
            {"demux.audio_1", "!", "queue", "!", "ac3parse"}, kQueue, {"mux."}})},
  };
  for (const Case& c : cases) {
    orvotest::PlatformFiles platform;
    platform.name = c.platform;
    root.Play(platform);
    Json::Value doc = orvotest::SessionDocument(c.media, kProfile);
    if (!c.container.empty()) doc["container_type"] = c.container;
    if (!c.device.empty()) doc["device"] = c.device;
    const std::string dir = orvotest::WriteSession("HLS", "gst", doc);
    if (!c.audioId.empty()) std::ofstream(dir + "/audio_id") << c.audioId;
    if (!c.audioFormat.empty()) std::ofstream(dir + "/audio_format") << c.audioFormat;

    int status = -1;
    const orvotest::Recording recording = orvotest::RecordStart(
        root.At("/record"),
        [&] {
          Stream stream("gst", "HLS");
          return stream.ExecuteGstreamerTranscoding(c.seek, sink, program, c.shift);
        },
        status);
    EXPECT_EQ(0, status) << c.name;
    EXPECT_EQ(c.expected, recording.argv) << c.name;
    EXPECT_EQ((std::vector<int>{0, 1, 2, pipeFds[1]}), recording.fds) << c.name;
    orvotest::RemoveTree(dir);
  }
  close(pipeFds[0]);
  close(pipeFds[1]);
}

}  // namespace
}  // namespace LibOrvoVTE
