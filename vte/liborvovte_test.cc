#include "vte/liborvovte.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "decisions/argument_helper.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "platform/test_seams.h"
#include "tests/support/child.h"
#include "tests/support/decoded_media.h"
#include "tests/support/documents.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "toolkit/files.h"
#include "vte/hls_playlists.h"
#include "vte/hls_subtitle_playlists.h"
#include "vte/http_live_stream.h"
#include "vte/http_stream.h"
#include "vte/smooth_manifest.h"
#include "vte/smooth_stream.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

// Streams on sessions staged from probed media: the checks at open, the
// processes a stream starts, progressive streams, the adaptive streams' texts.
namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::Media;
using orvotest::ParseJson;

class Stream : public VTEStream {
 public:
  Stream(const std::string& id, const std::string& type) : VTEStream(id, type) {}
};

void KillAndReap(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

class OpenChecksTest : public orvotest::MachineRootTest {
 protected:
  // A session as VTE_Init leaves it, one per open, its video changed by `video`.
  std::string Open(Media media, const char* profile, const std::string& audioId = "",
                   bool stopOfflineConversion = false, const std::string& video = "{}") {
    Json::Value doc = orvotest::SessionDocument(media, kProfiles.at(profile));
    const Json::Value change = ParseJson(video);
    for (const std::string& key : change.getMemberNames()) doc["track_info"]["video"][0u][key] = change[key];
    id_ = "open-" + std::to_string(++sessions_);
    orvotest::WriteSession(kType, id_, doc);
    Stream stream(id_, kType);
    const std::string outcome = stream.InitStreamCommon(audioId, stopOfflineConversion) ? "opened" : "refused";
    return outcome + (stream.GetErrorString().empty() ? "" : " " + stream.GetErrorString());
  }

  void Play(const char* platform) {
    orvotest::PlatformFiles files;
    files.name = platform;
    Root().Play(files);
  }

  // A progressive type: an adaptive one would hold its place from the open on.
  static constexpr char kType[] = "WEBM";
  const std::map<std::string, std::string> kProfiles = {
      {"encode", "-vcodec libx264 -s hd720 -acodec aac"},
      {"pipeline", "vaapih264enc rate-control=cbr ! h264parse ! mpegtsmux"},
      {"smd", "-vcodec h264_smd -s hd720 -acodec aac"}};
  std::string id_;
  int sessions_ = 0;
};

TEST_F(OpenChecksTest, AudioMustBeDecodableUnlessThereIsNone) {
  const Media eac3 = Media::kH264High10Eac3Mkv, dts = Media::kAnamorphicDtsMkv;  // restricted, track 1
  const Media tracks = Media::kTracksMkv;  // AAC 1, AC-3 2
  enum Allowance { kNone, kSwitchedOn, kCustomFFmpeg };
  const struct {
    Media media;
    std::string audioId;
    Allowance allowance;
    std::string outcome;
  } rows[] = {
      {tracks, "2", kNone, "opened"},
      {tracks, "7", kNone, "refused TransAudioNotSupported"},
      {eac3, "1", kSwitchedOn, "opened"},
      {dts, "1", kCustomFFmpeg, "opened"},
  };
  for (const auto& row : rows) {
    Root().WriteFile(librh::machine::kCodecsConf,
                     std::string("support_codec_dts=") + (row.allowance == kSwitchedOn ? "\"yes\"\n" : "\"no\"\n"));
    fs::remove(Root().At(librh::machine::kSystemFFmpeg));
    if (row.allowance == kCustomFFmpeg) Root().WriteFile(librh::machine::kSystemFFmpeg, "#!/bin/sh\n");

    EXPECT_EQ(row.outcome, Open(row.media, "encode", row.audioId)) << orvotest::MediaName(row.media);
    const bool saved = row.outcome == "opened" && !row.audioId.empty();
    EXPECT_EQ(saved ? row.audioId : "", ReadFile(Root().At("/tmp/Reelhall/WEBM/" + id_ + "/audio_id"))) << row.audioId;
  }
}

// Each picture exceeds one limit of a hardware engine: taller than 2160,
// 4K-sized at 25 fps, 10-bit, and too tall for Evansport's MJPEG decoder.
TEST_F(OpenChecksTest, HardwareEnginesRefuseWhatExceedsThem) {
  const std::string tall = R"({"resolutionx": 16, "resolutiony": 2176, "framerate": 25.0})";
  const std::string fast4k = R"({"resolutionx": 16, "resolutiony": 1936, "framerate": 25.0})";
  const std::string mjpeg = R"({"resolutionx": 16, "resolutiony": 496, "framerate": 25.0, "codec": "mjpeg"})";
  const std::string vp9 = R"({"codec": "vp9"})";
  const struct {
    const char* platform;
    const char* profile;
    std::string video;
    std::string outcome;
  } rows[] = {
      {"monaco", "pipeline", vp9, "refused TransVideoNotHardwareSupported"},
      {"monaco", "pipeline", tall, "refused TransVideoOutOfResolutionCapability"},
      {"monaco", "pipeline", R"({"profile": "High 10"})", "refused TransVideoOutOfProfileCapability"},
      {"monaco", "pipeline", fast4k, "refused TransVideoOutOfFramerateCapability"},
      {"monaco", "pipeline", "{}", "opened"},
      {"monaco", "encode", vp9, "opened"},  // software needs no engine
      {"evansport", "smd", mjpeg, "refused TransVideoNotSupported"},
      {"evansport", "smd", tall, "opened"},
  };
  for (const auto& row : rows) {
    Play(row.platform);
    EXPECT_EQ(row.outcome, Open(Media::kH264AacMp4, row.profile, "", false, row.video)) << row.platform;
  }
}

// Asked to, a stream waits for the service to yield; on Braswell it need not.
TEST_F(OpenChecksTest, OfflineConversionBlocksUnlessAskedToYield) {
  const std::string pidFile = librh::machine::Resolve(librh::machine::kConversionPidFile);
  // The service writes its pid file once its registry entry is in place.
  const auto start = [&](std::vector<std::string> argv) {
    argv.insert(argv.begin(), ORVOTEST_CONVERSION_STANDIN);
    const pid_t pid = orvotest::StartProgram(argv);
    EXPECT_TRUE(orvotest::WaitUntil([&] { return OLIBCReadPidFile(pidFile.c_str()) == pid; }, 10000));
    return pid;
  };
  const pid_t service = start({"--yield-after", "1"});
  EXPECT_EQ("refused TransEnableOfflineConverting", Open(Media::kH264AacMp4, "encode"));
  EXPECT_TRUE(OLIBCProcAlive(service)) << "a stream that does not ask must not disturb the service";
  EXPECT_EQ("opened", Open(Media::kH264AacMp4, "encode", "", true));
  EXPECT_EQ(-1, OLIBCReadPidFile(pidFile.c_str())) << "opened before the service yielded";
  EXPECT_EQ(0, orvotest::WaitForChild(service, 10)) << "the service was asked to yield and did";

  // Braswell's engine has room for both: its stream leaves the service be.
  Play("braswell");
  const pid_t hardware = start({"--hardware"});
  EXPECT_EQ("opened", Open(Media::kH264AacMp4, "pipeline"));
  EXPECT_EQ(hardware, OLIBCReadPidFile(pidFile.c_str())) << "the service must be left undisturbed";
  KillAndReap(hardware);
}

// A profile that cannot be read, or an argument missing, leaves no session.
TEST_F(OpenChecksTest, VTEInitRefusesUnusableArguments) {
  const std::string clip = orvotest::TestMedia(Media::kH264AacMp4);
  const std::string profiles = Root().At("/profiles.json");
  Root().WriteFile("/profiles.json", R"({"encode": "-vcodec libx264"})");
  Root().WriteFile("/not.json", "hls = -vcodec copy");
  for (const auto& [path, file, profile] : {std::tuple{clip, profiles, "absent"},
                                            std::tuple{clip, Root().At("/not.json"), "encode"},
                                            std::tuple{std::string(), profiles, "encode"}}) {
    EXPECT_EQ("", VTEStream::VTE_Init(path, "HLS", ParseJson(R"({"stream_id": "bad"})"), file, profile, "", 0))
        << path << " " << file << " " << profile;
  }
  EXPECT_FALSE(fs::exists(Root().At("/tmp/Reelhall/HLS/bad/video_metadata")));
}

// Hardware decoding only where it works (not for flv sources). The pipe's
// write end reaches the transcoder though close-on-exec here, and nothing
// else: not its read end, inheritable and at the lowest number.
using TranscoderStartTest = OpenChecksTest;

TEST_F(TranscoderStartTest, ArgumentVectorAndPipeReachTheTranscoder) {
  const std::string program = orvotest::StandInProgram();
  int pipeFds[2];
  ASSERT_EQ(0, pipe2(pipeFds, 0));
  ASSERT_EQ(0, fcntl(pipeFds[1], F_SETFD, FD_CLOEXEC));
  const std::string fd = std::to_string(pipeFds[1]);
  const std::string chain = "vaapipostproc width=1280 @VERTICAL@ ! videoflip ! vaapih264enc ! h264parse";
  const std::string gst = chain + "$audioconvert ! avenc_aac$mpegtsmux";
  const std::string queue = " ! queue max-size-time=0 max-size-buffers=0 max-size-bytes=0 ! ";
  const struct {
    const char* platform;
    Media media;
    std::string profile, container, device, audioId, audioFormat;
    bool shift;  // copied timestamps for ffmpeg
    std::string expected;
  } rows[] = {
      {"evansport", Media::kTracksMkv, "-vcodec libx264", "", "", "2", "", true,
       "-ss 7 -copyts -i @IN -vcodec libx264 -map 0:0 -map 0:2 pipe:@FD"},
      {"evansport", Media::kH264AacMp4, "-vcodec h264_smd", "", "", "", "", false,
       "-ss 7 -prefer_smd -i @IN -vcodec h264_smd -map 0:0 -map 0:1 pipe:@FD"},
      {"evansport", Media::kH264AacMp4, "-vcodec h264_smd", "flv", "", "", "", false,
       "-ss 7 -i @IN -vcodec h264_smd -map 0:0 -map 0:1 pipe:@FD"},
      {"monaco", Media::kH264AacMp4, gst, "asf", "chromecast", "", "aac", true,
       "-f -S 7 filesrc location=@IN ! asfdemux name=demux ! queue ! stvideo ! " + chain + queue +
           "mpegtsmux shift-pts=7 name=mux ! queue ! fdsink fd=@FD demux.audio_0 ! queue ! aacparse ! "
           "avdec_aac ! audioconvert ! audio/x-raw,channels=2 ! faac rate-control=ABR ! queue ! "
           "aacparse" + queue + "mux."},
  };
  for (const auto& row : rows) {
    Play(row.platform);
    Json::Value doc = orvotest::SessionDocument(row.media, row.profile);
    if (!row.container.empty()) doc["container_type"] = row.container;
    if (!row.device.empty()) doc["device"] = row.device;
    const std::string dir = orvotest::WriteSession("HLS", "argv", doc);
    if (!row.audioId.empty()) std::ofstream(dir + "/audio_id") << row.audioId;
    if (!row.audioFormat.empty()) std::ofstream(dir + "/audio_format") << row.audioFormat;
    int status = -1;
    const orvotest::Recording recording = orvotest::RecordStart(
        Root().At("/record"),
        [&] {
          Stream stream("argv", "HLS");
          if (row.profile == gst) {
            return stream.ExecuteGstreamerTranscoding(7, {"fdsink", "fd=" + fd}, program, row.shift);
          }
          return stream.ExecuteTranscoding(7, row.shift, StringExplode(row.profile, " "), "pipe:" + fd, program);
        },
        status);
    EXPECT_EQ(0, status) << row.expected;
    const std::string expected = std::regex_replace(
        std::regex_replace(row.expected, std::regex("@IN"), orvotest::TestMedia(row.media)), std::regex("@FD"), fd);
    EXPECT_EQ(program + " " + expected, orvotest::JoinWords(recording.argv));
    EXPECT_EQ((std::vector<int>{0, 1, 2, pipeFds[1]}), recording.fds) << row.expected;
  }
  close(pipeFds[0]);
  close(pipeFds[1]);
}

using MonitorTest = orvotest::MachineRootTest;

// Two requests replacing the monitor at once (say, two seeks): both wait for
// "filelock", and whoever records second stops the first.
TEST_F(MonitorTest, RacingMonitorsLeaveExactlyOne) {
  const std::string monitor = orvotest::MakeSession("HLS", "m") + "/monitor.pid";
  const int lock = open(orvotest::SessionPath("HLS", "m", "filelock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0660);
  ASSERT_GE(lock, 0);
  ASSERT_EQ(0, flock(lock, LOCK_EX));
  pid_t racers[2];
  for (pid_t& racer : racers) {
    racer = orvotest::StartChild([] {
      if (!Stream("m", "HLS").SaveMonitorPid(getpid(), true)) return 2;
      sleep(30);
      return 0;
    });
  }
  usleep(300 * 1000);
  EXPECT_EQ("", ReadFile(monitor)) << "recorded without the lock";
  // The racers share the lock's open file: closing it here would not free it.
  flock(lock, LOCK_UN);
  close(lock);

  int loserStatus = 0;
  const pid_t loser = waitpid(-1, &loserStatus, 0);
  const pid_t winner = loser == racers[0] ? racers[1] : racers[0];
  // The loser may be gone before the winner's record is written.
  orvotest::WaitUntil([&] { return ReadFile(monitor) == std::to_string(winner); }, 5000);
  EXPECT_TRUE(WIFSIGNALED(loserStatus) && WTERMSIG(loserStatus) == SIGTERM) << "both survived";
  EXPECT_EQ(std::to_string(winner), ReadFile(monitor));
  EXPECT_TRUE(OLIBCProcAlive(winner));
  KillAndReap(winner);
}

// A monitor killed outright leaves its record; an unrelated process that got
// its pid is never taken for the monitor: not by a check, a restart, a close.
TEST_F(MonitorTest, APidReusedByAnotherProcessIsNeverTakenForTheMonitor) {
  const std::string session = orvotest::MakeSession("HLS", "m");
  const std::string monitor = session + "/monitor.pid";
  Stream stream("m", "HLS");
  pid_t reused = -1;
  for (int attempt = 0; attempt < 200 && reused < 0; ++attempt) {
    if (attempt % 20 == 0) {
      const pid_t killed = orvotest::StartProgram({"/bin/sleep", "30"});
      ASSERT_TRUE(stream.SaveMonitorPid(killed, false));
      usleep(50 * 1000);  // start times count in ticks of 10 ms
      KillAndReap(killed);
    }
    // The kernel hands the pid out again when steered through ns_last_pid
    // (root only); other processes may take it first.
    const pid_t wanted = std::stoi(ReadFile(monitor));
    std::ofstream("/proc/sys/kernel/ns_last_pid") << wanted - 1;
    const pid_t pid = orvotest::StartProgram({"/bin/sleep", "30"});
    if (pid == wanted) reused = pid;
    else if (pid > 0) KillAndReap(pid);
  }
  if (reused < 0 && geteuid() != 0) GTEST_SKIP() << "steering pids needs root";
  ASSERT_GT(reused, 0) << "the pid never came round again";
  const std::string identity = ReadFile(session + "/monitor.start");
  const std::function<void()> calls[] = {[&] { EXPECT_FALSE(stream.IsFFmpegRun()); },
                                         [&] { stream.SaveMonitorPid(0, true); },
                                         [&] { stream.CloseStreamCommon(); }};
  int number = 0;
  for (const auto& call : calls) {
    // The stale record as the killed monitor left it.
    SaveFile(monitor, std::to_string(reused));
    SaveFile(session + "/monitor.start", identity);
    call();
    EXPECT_TRUE(OLIBCProcAlive(reused)) << "call " << number++ << " signalled the pid's new process";
  }
  KillAndReap(reused);
}

constexpr char kProfile[] = "http_320x240_x264_vb256_mp3_ab64";
constexpr char kWebMProfile[] = "webm_320x240_vp8_vb256_vorbis_ab64";

size_t ReadUpTo(DirectStream& stream, size_t limit) {
  char buffer[16384];
  size_t total = 0;
  for (int got; total < limit && (got = stream.Read(buffer, sizeof(buffer))) > 0;) total += static_cast<size_t>(got);
  return total;
}

// Rates from the profile name, the later video token winning; sizes in single
// precision (2^24 + 1 s: double gives 152576 bytes more); offsets floored.
TEST(ProgressiveArithmetic, RateSizeTimeAndScaledResolution) {
  EXPECT_EQ(786432, progressive::TransBitRate("vb1024_ab128_vb512"));
  EXPECT_EQ(-1, progressive::TransBitRate("http_hd720_x264_vb2048"));
  EXPECT_EQ(2559800508416ULL, progressive::PredictSize(1220608, 16777217));
  EXPECT_EQ(0u, progressive::PredictSize(-1, 40));
  EXPECT_EQ(9, progressive::ByteOffsetToSeconds(1638399, 1310720));
  EXPECT_EQ(0, progressive::ByteOffsetToSeconds(-1, 1310720));
  EXPECT_EQ(-1, progressive::ByteOffsetToSeconds(100, 0));
  std::string size = "stale";
  EXPECT_TRUE(progressive::ScaleResolution(1.7778f, "hd720", size));
  EXPECT_EQ("1290x720", size);  // 1280.016 rounds up
  EXPECT_FALSE(progressive::ScaleResolution(0.0f, "hd480", size));
  EXPECT_EQ("hd480", size);
}

using HttpStreamTest = orvotest::StreamTest;

// The registry's one transcoder, if it was told to start at `seconds`; else -1.
int OnlyTranscoderFrom(const std::string& seconds) {
  orvotest::WaitUntil([] { return orvotest::RegistryPids().size() == 1; }, 10000);
  const std::vector<int> pids = orvotest::RegistryPids();
  const int pid = pids.size() == 1 ? pids[0] : -1;
  const std::string argv = toolkit::ReadWholeFile("/proc/" + std::to_string(pid) + "/cmdline");
  return argv.find(std::string("-ss") + '\0' + seconds + '\0') != std::string::npos ? pid : -1;
}

// Per progressive kind, on a machine that runs one transcoder: a run at 30 s
// whose reader stopped, a seek to 10 s, then another request closes.
TEST_F(HttpStreamTest, ASeekReplacesTheRunningRunAndAnotherRequestCloses) {
  const std::string ffmpeg = librh::machine::Resolve(librh::machine::kPackageFFmpeg);
  constexpr size_t kHead = 96 * 1024;  // more than the pipe holds
  constexpr size_t kMax = 16 * 1024 * 1024;  // a runaway transcoder must not read forever
  for (const std::string type : {"HTTP", "WEBM"}) {
    const bool http = type == "HTTP";
    const std::string id = "seek-" + type;
    ASSERT_EQ(id, orvotest::CreateSession(Media::kLongH264Mp3Mkv, type, http ? "http.json" : "webm.json",
                                          http ? kProfile : kWebMProfile, id));
    const auto open = [&]() -> std::unique_ptr<DirectStream> {
      return http ? std::unique_ptr<DirectStream>(std::make_unique<HttpStream>(id)) : std::make_unique<WebMStream>(id);
    };
    const std::unique_ptr<DirectStream> stream = open();
    ASSERT_TRUE(stream->Init(""));
    ASSERT_TRUE(stream->Transcoding(ffmpeg, 30));
    ASSERT_GE(ReadUpTo(*stream, kHead), kHead) << type;
    const int replaced = OnlyTranscoderFrom("30");
    ASSERT_GT(replaced, 0) << type;

    // The running transcoder, blocked on its full pipe, ends and gives back
    // its slot before the new run is checked; its reader sees the end.
    const std::unique_ptr<DirectStream> seek = open();
    ASSERT_TRUE(seek->Init("")) << type << " " << seek->GetErrorString();
    EXPECT_TRUE(orvotest::Ends(replaced)) << type;
    EXPECT_FALSE(orvotest::Registered(replaced)) << type;
    EXPECT_LT(ReadUpTo(*stream, kMax), kMax) << type;
    ASSERT_TRUE(seek->Transcoding(ffmpeg, 10));
    ASSERT_GE(ReadUpTo(*seek, kHead), kHead) << type;
    const int transcoder = OnlyTranscoderFrom("10");
    EXPECT_GT(transcoder, 0) << type;
    EXPECT_NE(transcoder, replaced) << type;

    // Another request closes the stream while its transcoder is blocked on
    // the pipe; what was still in the pipe drains, then the stream ends.
    EXPECT_EQ(orvotest::RunInChild([&] { return open()->Close() ? 0 : 1; }), 0) << type;
    EXPECT_FALSE(orvotest::Exists(orvotest::SessionPath(type, id))) << type;
    EXPECT_LT(ReadUpTo(*seek, kMax), kMax) << type;
    EXPECT_TRUE(orvotest::Ends(transcoder)) << type;
    EXPECT_TRUE(orvotest::WaitUntil([] { return orvotest::RegistryPids().empty(); }, 10000))
        << type << ": the slot was never given back";
    EXPECT_TRUE(stream->Close());
    EXPECT_TRUE(seek->Close());
  }
}

TEST_F(HttpStreamTest, ReadGivesUpOnATranscoderSilentForThirtySeconds) {
  orvotest::ArmStandIn(Root().At("/record"), 60000);  // silent for a minute
  const std::string id = orvotest::CreateSession(Media::kH264AacMp4, "HTTP", "http.json", kProfile, "silent");
  HttpStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(orvotest::StandInProgram(), 0));
  const int transcoder = orvotest::RecordedPid(orvotest::SessionPath("HTTP", id, "monitor.pid"));
  constexpr std::chrono::milliseconds kSecond{100};
  librh::seams::SetWaitSecond(kSecond);
  char buffer[4096];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(stream.Read(buffer, sizeof(buffer)), -1);
  const double waited = (std::chrono::steady_clock::now() - start) / std::chrono::duration<double>(kSecond);
  librh::seams::SetWaitSecond(std::chrono::seconds(1));
  EXPECT_GE(waited, 30.0);
  EXPECT_LT(waited, 40.0);
  EXPECT_TRUE(OLIBCProcAlive(transcoder));
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(orvotest::Ends(transcoder));
}

// AAC and MP3 are copied with their own rate and channels; anything else is
// encoded. A run may start at the source's very end (40 s), not after.
TEST_F(HttpStreamTest, WebMCopiesOnlyAacAndMp3AudioAndStartsAtTheSeekTime) {
  int number = 0;
  for (const auto& [media, audioId, copy] : {std::tuple{Media::kLongH264Mp3Mkv, "", true},
                                             std::tuple{Media::kTracksMkv, "2", false},  // AC-3
                                             std::tuple{Media::kTracksMkv, "1", true}}) {
    const std::string id = orvotest::CreateSession(media, "WEBM", "webm.json", kWebMProfile,
                                                   "audio" + std::to_string(number++));
    if (*audioId != '\0') SaveFile(orvotest::SessionPath("WEBM", id, "audio_id"), audioId);
    const std::string words = orvotest::JoinWords(WebMStream(id).CalculateFFmpegArgument(1));
    const std::string audio = copy ? "-acodec copy " : "-acodec " + ArgumentHelper::GetMP3Encoder() + " -ab ";
    EXPECT_NE(words.find(audio), std::string::npos) << number << ": " << words;
    EXPECT_EQ(copy, words.find(" -ab ") == std::string::npos) << number << ": " << words;
    EXPECT_EQ(words.substr(words.rfind(" -webm_seek_time")), " -webm_seek_time 1 -avoid_negative_ts 0");
  }
  EXPECT_FALSE(WebMStream("audio0").CalculateFFmpegArgument(40).empty());
  EXPECT_TRUE(WebMStream("audio0").CalculateFFmpegArgument(41).empty());
}

constexpr char kUrl[] = "/api/stream?format=hls&id=s1";
constexpr char kEncode[] =
    "-vcodec libx264 -preset veryfast -s 320x240 -b:v 300k -acodec libfdk_aac -ab 64k -ar 48000";
using HlsSubtitleSessionTest = orvotest::MachineRootTest;

TEST(HlsPlaylistsTest, VideoPlaylistCoversTheDurationWithAShortLastSegment) {
  EXPECT_EQ("#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00000\n"
            "#EXTINF:5,\n/api/stream?format=hls&id=s1&fragment_id=00001\n"
            "#EXTINF:3,\n/api/stream?format=hls&id=s1&fragment_id=00002\n#EXT-X-ENDLIST\n",
            hls::VideoPlaylist(kUrl, 13, 5));
  // Nanoseconds zero-padded: tokens compare as text.
  EXPECT_EQ("5123.000417001", hls::SequenceToken({5123, 417001}));
  EXPECT_FALSE(hls::IsNotOlderToken("5123.000417001", "5123.000417002"));
  EXPECT_TRUE(hls::IsNotOlderToken("5123.000417001", ""));
}

// A name made unique earlier counts as seen; ids are percent-encoded.
TEST(HlsPlaylistsTest, MasterPlaylistNamesRenditionsUniquelyAndEncodesTheirIds) {
  const std::string media =
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",LANGUAGE=\"%s\",NAME=\"%s\",DEFAULT=%s,"
      "FORCED=NO,URI=\"/api/stream?format=hls&id=s1&subtitle_id=%s&playlist_type=subtitle\"\n";
  const auto line = [&](const std::string& name, const char* isDefault, const std::string& id) {
    std::string text = media;
    for (const std::string& value : {name, name, std::string(isDefault), id}) text.replace(text.find("%s"), 2, value);
    return text;
  };
  EXPECT_EQ("#EXTM3U\n\n" + line("eng", "YES", "%2Fv%2FMovie.eng.srt") + line("eng-2", "NO", "2") +
                line("chi", "NO", "%2Fv%20a~%26%3D%C3%00") + line("eng-2-2", "NO", "3") + line("eng-3", "NO", "4") +
                "\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\","
                "SUBTITLES=\"subs\"\n/api/stream?format=hls&id=s1&playlist_type=video\n#EXT-X-ENDLIST\n",
            hls::MasterPlaylist(kUrl, {{"/v/Movie.eng.srt", "eng"},
                                       {"2", "eng"},
                                       {std::string("/v a~&=\xc3\0", 9), "chi"},
                                       {"3", "eng-2"},
                                       {"4", "eng"}}));
  EXPECT_EQ("#EXTM3U\n\n\n#EXT-X-STREAM-INF:BANDWIDTH=300000,CODECS=\"mp4a.40.2,avc1.42001e\"\n"
            "/api/stream?format=hls&id=s1&playlist_type=video\n#EXT-X-ENDLIST\n",
            hls::MasterPlaylist(kUrl, {}));
}

// Tracks labelled with a language code or a "shooter-N" name.
TEST(HlsPlaylistsTest, SubtitleUrlLanguagesAndTracks) {
  EXPECT_EQ(std::string("/s?id=m7&subtitle_id=") + hls::kSubtitleIdPlaceholder +
                "&subtitle_codepage=big5&api=A&version=2&method=get&_sid=S&OrvoToken=T",
            hls::SubtitleURLTemplate(ParseJson(R"({"url":"/s","id":"m7","subtitle_id":"all","OrvoToken":"T",
                "_sid":"S","method":"get","version":2,"api":"A","subtitle_codepage":"big5"})")));
  EXPECT_EQ("", hls::SubtitleURLTemplate(ParseJson(R"({"url":"/s","id":"m7","subtitle_id":3})")));
  const Json::Value tracks = ParseJson(R"([
      {"track":"2","codec":"mov_text","language":"eng"}, {"track":"3","codec":"hdmv_pgs_subtitle","language":"ger"},
      {"track":"4","codec":"ass","language":"shooter-1"}, {"track":"5","codec":"subrip","language":"shooter-12"},
      {"track":"6","codec":"ssa","language":123}, {"track":"7","codec":"subrip","language":"e1g"}, "not a track"])");
  std::string offered;
  for (const auto& entry : hls::InternalSubtitleEntries("mov,mp4,m4a,3gp,3g2,mj2", tracks)) {
    offered += entry.first + "=" + entry.second + " ";
  }
  EXPECT_EQ("2=eng 4=shooter-1 5=Internal 6=Internal 7=Internal ", offered);
  EXPECT_TRUE(hls::InternalSubtitleEntries("mpegts", tracks).empty());
}

// A Matroska file with a SubRip track ("fre", 3) beside subtitle files, each
// request in a process of its own; the short last entry asks for a whole window.
TEST_F(HlsSubtitleSessionTest, OffersFilesThenTracksAndWritesPlaylistsInsideTheSession) {
  const std::string media = Root().At("/volume1/video");
  fs::create_directories(media);
  fs::create_symlink(orvotest::TestMedia(Media::kTracksMkv), media + "/Movie.mkv");
  for (const char* name : {"Movie.eng.srt", "Movie.srt", "Movie2.srt"}) {
    std::ofstream(media + "/" + name) << "1\n00:00:00,000 --> 00:00:01,000\nHi\n";
  }
  const std::string id = VTEStream::VTE_Init(
      media + "/Movie.mkv", "HLS", ParseJson(R"({"stream_id":"subs"})"),
      std::string(ORVOVTE_SAMPLE_PROFILES) + "/hls.json", "hls_320x240_x264_vb300_aac_ab64", "browser", 0);
  ASSERT_EQ("subs", id);
  ASSERT_EQ(0, orvotest::RunInChild([&] {
    return HttpLiveStream(id).Init(ParseJson(R"({"url":"/api/stream","format":"hls"})"),
                                   ParseJson(R"({"url":"/s","id":"m7","subtitle_id":"all"})"), "", "") ? 0 : 1;
  }));
  const std::string dir = HttpLiveStream(id).GetVTEFileFullPath("");

  // Files in pattern order (Movie2.srt is another video's), then the track.
  EXPECT_EQ(hls::MasterPlaylist("/api/stream?format=hls&id=subs", {{media + "/Movie.eng.srt", "eng"},
                                                                     {media + "/Movie.srt", "External"},
                                                                     {"3", "fre"}}),
            toolkit::ReadWholeFile(dir + "/" + id + ".m3u8"));
  EXPECT_EQ(dir + "/Movie.eng.srt.subtitle.m3u8", orvotest::TextFromChild([&] {
              return HttpLiveStream(id).GetMainfest("subtitle", media + "/Movie.eng.srt");
            }));
  EXPECT_EQ("#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-ALLOW-CACHE:YES\n#EXTINF:2,\n"
            "/s?id=m7&subtitle_id=" + hls::PercentEncode(media + "/Movie.eng.srt") +
                "&preview=false&output_webvtt=true&webvtt_start_time=0&webvtt_end_time=5\n#EXT-X-ENDLIST\n",
            toolkit::ReadWholeFile(dir + "/Movie.eng.srt.subtitle.m3u8"));
}

class InspectedStream : public HttpLiveStream {
 public:
  using HttpLiveStream::HttpLiveStream;
  std::vector<std::string> RunArguments(const std::string& fragment) {
    seekTime_ = CalculateSeekTime(fragment);
    return CalculateFFmpegArgument(fragment);
  }
};

using HttpLiveStreamTest = OpenChecksTest;

// An Apple TV's timestamps a second later; audio copied where HLS carries it.
TEST_F(HttpLiveStreamTest, RunArgumentsSegmentFromTheRequestedFragment) {
  const std::string mp2 = orvotest::SessionDocument(Media::kAc3DataTs, "")["track_info"]["audio"][1]["id"].asString();
  const struct {
    Media media;
    const char* profile;
    std::string device, audioFormat, audioId, fragment;
    bool header;
    const char* expected;  // seek, segment time, start number, header option; audio encoder, rate, sampling
  } rows[] = {
      {Media::kH264AacMp4, kEncode, "browser", "", "", "00012", false, "60 5 00012 0; copy - -"},
      {Media::kH264AacMp4, kEncode, "appletv", "", "", "3", false, "16 5 3 0; copy - -"},
      {Media::kH264AacMp4, kEncode, "browser", "", "", "abc", true, "0 5 abc -; copy - -"},
      {Media::kH264AacMp4, kEncode, "browser", "mp3", "", "0", false, "0 5 0 0; libshine 64k 48000"},
      {Media::kAc3DataTs, kEncode, "browser", "ac3_copy", "", "0", false, "0 5 0 0; copy - -"},
      {Media::kAc3DataTs, kEncode, "chromecast", "ac3_copy", mp2, "0", false, "0 5 0 0; libfdk_aac 64k 48000"},
      {Media::kAc3DataTs, kEncode, "browser", "aac", "", "0", false, "0 5 0 0; libfdk_aac 64k 48000"},
      {Media::kAudioOnlyMp3, kEncode, "browser", "", "", "0", false, "- - - -; - - -"},  // nothing to segment
  };
  for (const auto& row : rows) {
    Json::Value doc = orvotest::SessionDocument(row.media, row.profile);
    doc["device"] = row.device;
    const std::string dir = orvotest::WriteSession("HLS", "run", doc);
    if (!row.audioFormat.empty()) std::ofstream(dir + "/audio_format") << row.audioFormat;
    if (!row.audioId.empty()) std::ofstream(dir + "/audio_id") << row.audioId;
    InspectedStream stream("run");
    if (row.header) stream.EnableHLSHeader();
    const std::vector<std::string> args = stream.RunArguments(row.fragment);
    std::string found;
    for (const char* option : {"-hls_seek_time", "-segment_time", "-segment_start_number",
                               "-individual_header_trailer", "-acodec", "-ab", "-ar"}) {
      const auto at = std::find(args.begin(), args.end(), option);
      found += (at != args.end() && at + 1 != args.end() ? *(at + 1) : "-") + (option[1] == 'i' ? "; " : " ");
    }
    EXPECT_EQ(std::string(row.expected) + " ", found) << orvotest::JoinWords(args);
    // The profile's own options come first.
    EXPECT_TRUE(args.empty() || args[0] == "-vcodec") << orvotest::JoinWords(args);
  }
}

// Callers built against the system's declaration link to the non-const symbol.
static_assert(std::is_same_v<decltype(&VTEStream::ForceFFmpegAudioFormat),
                             std::vector<std::string> (VTEStream::*)(
                                 const std::vector<std::string>&, const std::string&)>);

// A 1920x800 video fitted to the profile's box; a hardware encoder gets no
// aspect; a size that cannot be fitted stays (turns: library_matrix_test.cc).
TEST_F(HttpLiveStreamTest, VideoSizeFittedToTheSource) {
  const struct {
    int sar;
    const char* profile;
    const char* options;
    bool noAspect;
    const char* forced;
  } rows[] = {
      {0, "-vcodec libx264", "-vcodec x -s hd720 -r 25", false, "-vcodec x -s 1280x720 -aspect 1.77778 -r 25"},
      {0, "-vcodec libx264", "-s hd720", true, "-s 1280x532"},
      // ffmpeg carries a source's own sample aspect ratio over by itself.
      {1, "-vcodec libx264", "-s hd720", false, "-s 1280x720"},
      {0, "-vcodec libx264", "-s hd4k", false, "-s hd4k"},
      {0, "-vcodec h264_smd -s hd720", "-s hd720", false, "-s 1280x532"},
  };
  Play("evansport");
  for (const auto& row : rows) {
    Json::Value doc = orvotest::SessionDocument(Media::kH264AacMp4, row.profile);
    Json::Value& video = doc["track_info"]["video"][0u];
    video["resolutionx"] = 1920;
    video["resolutiony"] = 800;
    video["sample_aspect_ratio_num"] = video["sample_aspect_ratio_den"] = row.sar;
    orvotest::WriteSession("HLS", "sized", doc);
    EXPECT_EQ(row.forced, orvotest::JoinWords(InspectedStream("sized").ForceFFmpegVideoSize(
                              orvotest::SplitWords(row.options), row.noAspect)))
        << row.profile << ": " << row.options << " sar " << row.sar;
  }
}

// A 12-second video's session; Prepare's monitor is this process or none.
class SegmentStateTest : public HttpLiveStreamTest {
 protected:
  void SetUp() override {
    HttpLiveStreamTest::SetUp();
    Json::Value doc = orvotest::SessionDocument(Media::kH264AacMp4, kEncode);
    doc["duration"] = 12;
    dir_ = orvotest::WriteSession("HLS", "s", doc);
    stream_ = std::make_unique<HttpLiveStream>("s");
  }
  void Prepare(const std::string& seekTime, const std::set<int>& segments, bool running) {
    for (const auto& entry : fs::directory_iterator(dir_)) {
      if (entry.path().filename() != "video_metadata") fs::remove(entry.path());
    }
    if (!seekTime.empty()) std::ofstream(dir_ + "/seek_time") << seekTime;
    // Whole transport-stream packets.
    for (int segment : segments) std::ofstream(stream_->GetSegmentTsPath(segment)) << std::string(2 * 188, 'G');
    if (running) stream_->SaveMonitorPid(getpid(), false);
  }

  std::string dir_;
  std::unique_ptr<HttpLiveStream> stream_;
};

// A run restarts unless it is under way and will reach the segment soon
// (fewer than five segments ahead of where it started, or already written).
TEST_F(SegmentStateTest, RestartOnlyWhenTheRunWillNotReachTheSegmentSoon) {
  const struct {
    const char* seekTime;
    std::set<int> segments;
    bool running;
    const char* request;
    bool restart;
  } rows[] = {
      {"10", {}, false, "14", false}, {"10", {}, true, "15", true},    {"10", {11}, true, "15", false},
      {"10", {15}, false, "15", false}, {"10", {}, false, "15", true}, {"10", {}, true, "9", true},
      {"", {0}, true, "2", false},    {"", {}, false, "0", true},      {"abc", {}, false, "00003", false},
  };
  for (const auto& row : rows) {
    Prepare(row.seekTime, row.segments, row.running);
    EXPECT_EQ(row.restart, stream_->IsTransAndSegNeedToRestart(row.request))
        << "seek_time " << row.seekTime << ", request " << row.request << ", running " << row.running;
  }
}

// A restart is abandoned only when no request holds the start lock (another
// process here; the monitor and segment conditions: tests/adaptive_playback_test.cc).
TEST_F(SegmentStateTest, StartInTheWindowIsAbandonedOnlyWhenNobodyWillServeIt) {
  const std::string twelve = stream_->GetSegmentTsPath(12);
  Prepare("10", {}, false);
  EXPECT_FALSE(stream_->IsStartAbandoned(twelve)) << "no start was ever announced here";
  const pid_t announcer = orvotest::StartChild([&] {
    if (HttpLiveStream("s").TakeStartLock() < 0) return 1;
    std::ofstream(dir_ + "/held").flush();
    for (;;) pause();
  });
  ASSERT_TRUE(orvotest::WaitUntil([&] { return fs::exists(dir_ + "/held"); }, 10000));
  EXPECT_FALSE(stream_->IsStartAbandoned(twelve)) << "a start is announced";
  KillAndReap(announcer);
  EXPECT_TRUE(stream_->IsStartAbandoned(twelve)) << "its request died before forking";
}

// Whole only once its last list line is ended and gives the full length.
TEST_F(SegmentStateTest, SegmentIsCompleteOnceTheTranscoderListsItWhole) {
  Prepare("", {1}, false);
  for (const auto& [list, ready] :
       {std::pair{"slice-00001.ts,5.021333,10.000000\n", true}, std::pair{"slice-00001.ts,5.000000,10.000000", false},
        std::pair{"slice-00001.ts,5.000000,10.000000\nslice-00001.ts,0.000000,2.200000\n", false}}) {
    std::ofstream(dir_ + "/segments.csv") << list;
    EXPECT_EQ(ready, stream_->VerifyFragmentIsReady("1")) << list;
  }
}

constexpr char kSmoothProfile[] = "smoothstreaming_240p_x264_vb200_vf15_aac_ab40";

class StagedSmooth : public SmoothStream {
 public:
  using SmoothStream::SmoothStream;
  std::string Arguments(long seek, bool hardware) {
    seekTime = seek;
    hardware_ = hardware;
    return orvotest::JoinWords(CalculateFFmpegArgument());
  }
};

std::string Fragment(const std::string& type, const std::string& time) {
  return "QualityLevels(200000)/Fragments(" + type + "=" + time + ")";
}

class SmoothRequests : public orvotest::MachineRootTest {
 protected:
  void SetUp() override {
    MachineRootTest::SetUp();
    ASSERT_EQ("req", orvotest::CreateSession(Media::kH264AacMp4, "SS", "smooth.json", kSmoothProfile, "req"));
  }
  std::string File(const std::string& name) { return orvotest::SessionPath("SS", "req", name); }
  // Video fragments of one whole box each at `times` (100 ns).
  void Stage(const std::string& seekTime, const std::vector<long long>& times) {
    fs::remove_all(File("smooth"));
    fs::remove(File("seek_time"));
    if (!seekTime.empty()) SaveFile(File("seek_time"), seekTime);
    fs::create_directories(File("smooth/QualityLevels(200000)"));
    for (long long time : times) {
      std::ofstream(File("smooth/" + Fragment("video", std::to_string(time)))) << std::string("\0\0\0\x08" "free", 8);
    }
  }
};

TEST_F(SmoothRequests, SeeksOnlyFarAheadOrBehindTheRun) {
  SmoothStream stream("req");
  const std::vector<long long> upTo60 = {0, 50000000, 550000000, 600000000};
  const struct {
    const char* seekTime;  // "" for none
    std::vector<long long> fragments;
    std::string request;
    bool seek;
  } cases[] = {
      {"", {}, Fragment("video", "0"), true},  // nothing started yet
      {"0", upTo60, Fragment("video", "1100000000"), false},  // exactly 50 s ahead
      {"0", upTo60, Fragment("video", "1100000001"), true},
      {"0", upTo60, Fragment("audio", "1200000000"), true},  // no audio yet: from the start
      {"0", {}, Fragment("video", "500000001"), true},
      {"120", {}, Fragment("video", "1199999999"), true},  // before the run
      {"0", upTo60, Fragment("video", "9223372036854775807"), true},
      {"0", upTo60, "garbage", false},  // ids without a time count as time 0
  };
  for (const auto& c : cases) {
    Stage(c.seekTime, c.fragments);
    EXPECT_EQ(stream.IsNeedToSeek(c.request), c.seek)
        << c.request << " with seek_time \"" << c.seekTime << "\" and " << c.fragments.size() << " fragments";
  }
  EXPECT_EQ(stream.CalculateSeekTime(Fragment("video", "1234567890")), 123);
  EXPECT_EQ(ReadFile(File("seek_time")), "123");
}

TEST_F(SmoothRequests, FragmentIsReadyOnceALaterOneStartedAndServedOnlyWhole) {
  SmoothStream stream("req");
  Stage("0", {0, 50000000, 100000000});
  // A live monitor: this test's own process.
  ASSERT_TRUE(stream.SaveMonitorPid(getpid(), false));
  const struct {
    std::string id;
    unsigned int ahead;
    bool ready;
  } cases[] = {
      {Fragment("video", "50000000"), 0, true},
      {Fragment("video", "100000000"), 0, false},  // still being written
      {Fragment("video", "50000000"), 1, false},
      {Fragment("video", "12345"), 0, true},  // not on the 5-second grid
      {Fragment("audio", "0"), 0, false},
      // The largest multiple of 5 s that a long long holds: no wrap-around.
      {Fragment("video", "9223372036850000000"), 0, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(stream.VerifyFragmentIsReady(c.id, c.ahead), c.ready) << c.id << " +" << c.ahead;
  }
  // With the transcoder ended, what exists is all there will be.
  SaveFile(File("monitor.pid"), "999999999");
  EXPECT_TRUE(stream.VerifyFragmentIsReady(Fragment("video", "100000000"), 0));
  // One cut short by a full volume (its mdat announces more) is removed.
  const std::string path = File("smooth/" + Fragment("video", "0"));
  EXPECT_EQ(stream.ReadFragment(Fragment("video", "0")), path);
  std::ofstream(path, std::ios::app) << std::string("\0\0\0\x64mdat", 8) << "short";
  EXPECT_EQ(stream.ReadFragment(Fragment("video", "0")), "");
  EXPECT_FALSE(fs::exists(path));
}

// A hardware run is told its box is filled; a quarter turn gets bars unasked.
TEST_F(SmoothRequests, TranscoderArgumentsCarryThePredictedSize) {
  const std::string hardware = StagedSmooth("req").Arguments(120, true);
  EXPECT_EQ(" -ac 2 -fragment_length 5 -seek_time 120 -filled 1", hardware.substr(hardware.find(" -ac 2 ")));
  ASSERT_EQ("turned", orvotest::CreateSession(Media::kRotatedMp4, "SS", "smooth.json",
                                              "smoothstreaming_240p_h264_smd_vb200_aac_ab40", "turned"));
  const std::string turned = StagedSmooth("turned").Arguments(0, false);
  EXPECT_EQ(" -ac 2 -vf scale=w='if(gt(dar,320/240),320,2*trunc(240*dar/2))':"
            "h='if(gt(dar,320/240),2*trunc(320/dar/2),240)',pad=320:240:-1:-1 -fragment_length 5 -seek_time 0",
            turned.substr(turned.find(" -ac 2 ")));
}

using smooth::QualityValues;

// Chunks of 5 s, the last one what is left; the total in single precision;
// the nearer aspect class and the hardware list.
TEST(SmoothManifest, ChunksDurationsUrlAttributeAspectClassesAndHardwareSets) {
  QualityValues values;
  ASSERT_TRUE(smooth::ProfileValues(kSmoothProfile, false, 4.0f / 3, values));
  const std::string url = "/api/stream?format=ss&amp;id=abc";
  const std::string longest = smooth::RenderManifest(7201, url, values);
  EXPECT_NE(longest.find("Duration=\"72009998336\""), std::string::npos);
  EXPECT_NE(longest.find("Chunks=\"1441\""), std::string::npos);
  EXPECT_NE(longest.find("<c n=\"1440\" d=\"10000000\" />\n</StreamIndex>"), std::string::npos);
  // Durations no file has; beyond a month, a fuzzed one overflowed.
  for (const float seconds : {0.0f, std::numeric_limits<float>::quiet_NaN(), 2678401.0f}) {
    EXPECT_EQ(smooth::RenderManifest(seconds, url, values), "") << seconds;
  }
  // A URL too long gives no manifest, not a cut one.
  EXPECT_EQ(smooth::RenderManifest(12, std::string(5000, 'u'), values), "");
  // The hardware sets cannot be regenerated here: one row stands for them.
  ASSERT_TRUE(smooth::ProfileValues("smoothstreaming_hd720_h264_smd_vb1500_aac_ab128", true, 2.35f, values));
  EXPECT_EQ("1280x540 000000016742c029da0140117efff00510050100000303e90000bb800f1832a00000000168ce1f20",
            values.width + "x" + values.height + " " + values.codecPrivateData);
  EXPECT_EQ("1.33 1.77 1.77 2.35 ", smooth::AspectClass(1.55f) + " " + smooth::AspectClass(1.56f) + " " +
                                        smooth::AspectClass(2.06f) + " " + smooth::AspectClass(2.07f) + " ");
}

// The software rows against what the stock x264 emits, every size in one run.
TEST(SmoothManifest, SoftwareParameterSetsAreWhatTheEncoderWrites) {
  const orvotest::MachineRoot scratch;
  Json::Value profiles;
  ASSERT_TRUE(LibReelhall::ReadJsonFromFile(std::string(ORVOVTE_SAMPLE_PROFILES) + "/smooth.json", profiles));
  std::vector<std::string> argv =
      orvotest::SplitWords("ffmpeg -nostdin -y -v error -f lavfi -i testsrc=size=320x240:rate=25:duration=1");
  std::vector<std::pair<std::string, QualityValues>> outputs;
  for (const std::string& name : profiles.getMemberNames()) {
    if (name.find("_h264_smd_") != std::string::npos) continue;
    for (float ratio : {4.0f / 3, 16.0f / 9, 2.35f}) {
      QualityValues values;
      ASSERT_TRUE(smooth::ProfileValues(name, false, ratio, values)) << name;
      const std::string out = scratch.At("/" + std::to_string(outputs.size()) + ".h264");
      outputs.emplace_back(out, values);
      // The profile's video options, with the height key as the size.
      const std::vector<std::string> words = StringExplode(profiles[name].asString(), " ");
      for (size_t i = 0; i < words.size() && words[i] != "-acodec"; ++i) {
        argv.push_back(i > 0 && words[i - 1] == "-s" ? values.width + "x" + values.height : words[i]);
      }
      argv.insert(argv.end(), {"-pix_fmt", "yuv420p", "-frames:v", "1", "-f", "h264", out});
    }
  }
  ASSERT_EQ(orvotest::RunQuietly(argv, 60), 0);
  for (const auto& [path, values] : outputs) {
    // SPS and PPS open the stream; x264's own SEI follows.
    const std::string sets = orvotest::BytesFromHex(values.codecPrivateData);
    EXPECT_EQ(sets, toolkit::ReadWholeFile(path).substr(0, sets.size())) << values.width << "x" << values.height;
  }
}

// The 2-second 4:3 clip's manifest with the caller's optional keys of the right
// type, escaped; a hardware profile without the engine, or no url, removes it.
TEST(SmoothInit, WritesTheManifestOrRemovesTheSession) {
  orvotest::MachineRoot root;
  Json::Value params = ParseJson(
      R"({"url": "/api/stream", "format": "ss", "api": "A.S", "version": 18446744073709551615, "method": 3,
          "hls_header": true, "token": "t\"k", "_sid": null, "OrvoToken": "o", "sharing_id": 1.5})");
  ASSERT_EQ("ss1", orvotest::CreateSession(Media::kH264AacMp4, "SS", "smooth.json", kSmoothProfile, "ss1"));
  SmoothStream stream("ss1");
  ASSERT_TRUE(stream.Init(params, Json::Value(), "", "")) << stream.GetErrorString();
  const std::string url =
      "Url=\"/api/stream?format=ss&amp;id=ss1&amp;api=A.S&amp;version=18446744073709551615&amp;hls_header=1&amp;"
      "token=t&quot;k&amp;OrvoToken=o&amp;fragment_id=QualityLevels({bitrate})/";
  const std::string chunk = "<c n=\"0\" d=\"20000000\" />\n</StreamIndex>\n";
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
            "<SmoothStreamingMedia MajorVersion=\"2\" MinorVersion=\"0\" Duration=\"20000000\">\n"
            "<StreamIndex Type=\"video\" QualityLevels=\"1\" Chunks=\"1\" " +
                url + "Fragments(video={start time})\">\n"
                "<QualityLevel Index=\"0\" Bitrate=\"200000\" FourCC=\"H264\" MaxWidth=\"320\" "
                "MaxHeight=\"240\" CodecPrivateData=\"000000016742c01eda0507e840000003004000000783c58b"
                "a80000000168ce1f20\" />\n" +
                chunk + "<StreamIndex Type=\"audio\" QualityLevels=\"1\" Chunks=\"1\" " + url +
                "Fragments(audio={start time})\">\n"
                "<QualityLevel Index=\"0\" Bitrate=\"40000\" FourCC=\"AACL\" SamplingRate=\"48000\" "
                "Channels=\"2\" BitsPerSample=\"16\" PacketSize=\"4\" AudioTag=\"255\" "
                "CodecPrivateData=\"1190\" />\n" +
                chunk + "</SmoothStreamingMedia>\n",
            toolkit::ReadWholeFile(stream.GetMainfest()));
  EXPECT_TRUE(stream.Close());
  for (const auto& [failing, url] : {std::make_pair("smoothstreaming_hd1080_h264_smd_vb4500_aac_ab128", "/api/stream"),
                                     std::make_pair(kSmoothProfile, "")}) {
    ASSERT_EQ("ss2", orvotest::CreateSession(Media::kH264AacMp4, "SS", "smooth.json", failing, "ss2"));
    params["url"] = url;
    SmoothStream refused("ss2");
    EXPECT_FALSE(refused.Init(params, Json::Value(), "", "")) << failing;
    EXPECT_FALSE(VerifyFileExist(refused.GetVTEFileFullPath(""), 0)) << failing;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
