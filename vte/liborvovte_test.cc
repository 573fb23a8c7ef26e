#include "vte/liborvovte.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "decisions/argument_helper.h"
#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "platform/test_seams.h"
#include "tests/support/child.h"
#include "tests/support/documents.h"
#include "tests/support/launchers.h"
#include "tests/support/machine_root.h"
#include "tests/support/stream_watch.h"
#include "tests/support/test_media.h"
#include "tests/support/transcoder_stand_in.h"
#include "toolkit/files.h"
#include "vte/http_stream.h"
#include "vte/utils/vteutils.h"

// Open checks, VTE_Init, the processes a stream starts; progressive streams.
namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;
using orvotest::Media;

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
  // A session as VTE_Init leaves it, its video changed by the keys of `video`.
  std::string Open(Media media, const char* profile, const std::string& audioId = "",
                   bool stopOfflineConversion = false, const std::string& video = "{}") {
    Json::Value doc = orvotest::SessionDocument(media, kProfiles.at(profile));
    const Json::Value change = orvotest::ParseJson(video);
    for (const std::string& key : change.getMemberNames()) doc["track_info"]["video"][0u][key] = change[key];
    // Each open gets a session of its own, as VTE_Init would give it.
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
  // Restricted audio as track 1: E-AC-3 and DTS.
  const Media eac3 = Media::kH264High10Eac3Mkv, dts = Media::kAnamorphicDtsMkv;
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
      {eac3, "", kNone, "refused TransAudioNotSupported"},
      {eac3, "1", kSwitchedOn, "opened"},
      {dts, "1", kCustomFFmpeg, "opened"},
      {Media::kVideoOnlyAvi, "5", kNone, "opened"},  // no audio at all: any id will do
  };
  for (const auto& row : rows) {
    const std::string context = orvotest::MediaName(row.media) + " [" + row.audioId + "] " + std::to_string(row.allowance);
    Root().WriteFile(librh::machine::kCodecsConf,
                     std::string("support_codec_dts=") + (row.allowance == kSwitchedOn ? "\"yes\"\n" : "\"no\"\n"));
    fs::remove(Root().At(librh::machine::kSystemFFmpeg));
    if (row.allowance == kCustomFFmpeg) Root().WriteFile(librh::machine::kSystemFFmpeg, "#!/bin/sh\n");

    EXPECT_EQ(row.outcome, Open(row.media, "encode", row.audioId)) << context;
    const bool saved = row.outcome == "opened" && !row.audioId.empty();
    EXPECT_EQ(saved ? row.audioId : "", ReadFile(Root().At("/tmp/Reelhall/WEBM/" + id_ + "/audio_id"))) << context;
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
      {"braswell", "pipeline", vp9, "opened"},  // its pipeline choice decides instead
  };
  for (const auto& row : rows) {
    Play(row.platform);
    EXPECT_EQ(row.outcome, Open(Media::kH264AacMp4, row.profile, "", false, row.video))
        << row.platform << " " << row.profile << ", expected " << row.outcome;
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
  kill(hardware, SIGTERM);
  orvotest::WaitForChild(hardware, 10);
}

// A profile that cannot be read, or an argument missing, leaves no session
// (the ids handed out are seen by tests/load_test.cc).
TEST_F(OpenChecksTest, VTEInitRefusesUnusableArguments) {
  const std::string clip = orvotest::TestMedia(Media::kH264AacMp4);
  const std::string profiles = Root().At("/profiles.json");
  Root().WriteFile("/profiles.json", R"({"encode": "-vcodec libx264"})");
  Root().WriteFile("/not.json", "hls = -vcodec copy");
  for (const auto& [path, file, profile] : {std::tuple{clip, profiles, "absent"},
                                            std::tuple{clip, Root().At("/not.json"), "encode"},
                                            std::tuple{std::string(), profiles, "encode"}}) {
    EXPECT_EQ("", VTEStream::VTE_Init(path, "HLS", orvotest::ParseJson(R"({"stream_id": "bad"})"), file, profile,
                                      "", 0))
        << path << " " << file << " " << profile;
  }
  EXPECT_FALSE(fs::exists(Root().At("/tmp/Reelhall/HLS/bad/video_metadata")));
}

// Hardware decoding only where it works (not for flv sources). The pipe
// reaches the transcoder though close-on-exec here, and nothing else.
using TranscoderStartTest = OpenChecksTest;

TEST_F(TranscoderStartTest, ArgumentVectorAndPipeReachTheTranscoder) {
  const std::string program = orvotest::StandInProgram();
  int pipeFds[2];
  ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC));
  const std::string fd = std::to_string(pipeFds[1]);
  const std::string gst =
      "vaapipostproc width=1280 @VERTICAL@ ! videoflip ! vaapih264enc ! h264parse$audioconvert ! "
      "avenc_aac$mpegtsmux";
  const std::string chain = "vaapipostproc width=1280 @VERTICAL@ ! videoflip ! vaapih264enc ! h264parse";
  const std::string queue = " ! queue max-size-time=0 max-size-buffers=0 max-size-bytes=0 ! ";
  const struct {
    const char* platform;
    std::string type;
    Media media;
    std::string profile, container, device, audioId, audioFormat;
    long seek;
    bool shift;  // copied timestamps for ffmpeg
    std::string expected;
  } rows[] = {
      {"evansport", "HLS", Media::kTracksMkv, "-vcodec libx264", "", "", "2", "", 7, true,
       "-ss 7 -copyts -i @IN -vcodec libx264 -map 0:0 -map 0:2 pipe:@FD"},
      {"evansport", "HLS", Media::kH264AacMp4, "-vcodec h264_smd", "", "", "", "", 7, false,
       "-ss 7 -prefer_smd -i @IN -vcodec h264_smd -map 0:0 -map 0:1 pipe:@FD"},
      {"evansport", "HLS", Media::kH264AacMp4, "-vcodec h264_smd", "flv", "", "", "", 7, false,
       "-ss 7 -i @IN -vcodec h264_smd -map 0:0 -map 0:1 pipe:@FD"},
      {"evansport", "WEBM", Media::kVideoOnlyAvi, "-vcodec libx264", "", "", "", "", 7, false,
       "-ss 7 -i @IN -vcodec libx264 pipe:@FD"},
      {"monaco", "HLS", Media::kH264AacMp4, gst, "asf", "chromecast", "", "aac", 5, true,
       "-f -S 5 filesrc location=@IN ! asfdemux name=demux ! queue ! stvideo ! " + chain + queue +
           "mpegtsmux shift-pts=5 name=mux ! queue ! fdsink fd=@FD demux.audio_0 ! queue ! aacparse ! "
           "avdec_aac ! audioconvert ! audio/x-raw,channels=2 ! faac rate-control=ABR ! queue ! "
           "aacparse" + queue + "mux."},
  };
  for (const auto& row : rows) {
    Play(row.platform);
    Json::Value doc = orvotest::SessionDocument(row.media, row.profile);
    if (!row.container.empty()) doc["container_type"] = row.container;
    if (!row.device.empty()) doc["device"] = row.device;
    const std::string dir = orvotest::WriteSession(row.type, "argv", doc);
    if (!row.audioId.empty()) std::ofstream(dir + "/audio_id") << row.audioId;
    if (!row.audioFormat.empty()) std::ofstream(dir + "/audio_format") << row.audioFormat;
    int status = -1;
    const orvotest::Recording recording = orvotest::RecordStart(
        Root().At("/record"),
        [&] {
          Stream stream("argv", row.type);
          if (row.profile == gst) {
            return stream.ExecuteGstreamerTranscoding(row.seek, {"fdsink", "fd=" + fd}, program, row.shift);
          }
          return stream.ExecuteTranscoding(row.seek, row.shift, StringExplode(row.profile, " "), "pipe:" + fd,
                                           program);
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

// Reads until the stream ends or `limit` bytes have come.
size_t ReadUpTo(DirectStream& stream, size_t limit) {
  char buffer[16384];
  size_t total = 0;
  for (int got; total < limit && (got = stream.Read(buffer, sizeof(buffer))) > 0;) total += static_cast<size_t>(got);
  return total;
}

// Rates from the profile name, the later video token winning; sizes in single
// precision (2^24 + 1 s: double gives 152576 bytes more); offsets floored.
TEST(ProgressiveArithmetic, RateSizeTimeAndScaledResolution) {
  EXPECT_EQ(1310720, progressive::TransBitRate("http_hd480_x264_vb1024_aac_ab128"));
  EXPECT_EQ(786432, progressive::TransBitRate("vb1024_ab128_vb512"));
  EXPECT_EQ(-1, progressive::TransBitRate("http_hd720_x264_vb2048"));
  EXPECT_EQ(6553600u, progressive::PredictSize(1310720, 40));
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

class HttpStreamTest : public orvotest::StreamTest {
 protected:
  // Whether the running transcoder `pid` was told to start at `seconds`.
  static bool SeeksTo(int pid, const std::string& seconds) {
    const std::string argv = toolkit::ReadWholeFile("/proc/" + std::to_string(pid) + "/cmdline");
    return argv.find(std::string("-ss") + '\0' + seconds + '\0') != std::string::npos;
  }
  // The one transcoder the load registry holds, once it holds one.
  static int OnlyTranscoder() {
    int pid = -1;
    orvotest::WaitUntil([&] {
      const std::vector<int> pids = orvotest::RegistryPids();
      pid = pids.size() == 1 ? pids[0] : -1;
      return pid > 0;
    }, 10000);
    return pid;
  }
};

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
      if (http) return std::make_unique<HttpStream>(id);
      return std::make_unique<WebMStream>(id);
    };
    const std::unique_ptr<DirectStream> stream = open();
    ASSERT_TRUE(stream->Init(""));
    ASSERT_TRUE(stream->Transcoding(ffmpeg, 30));
    ASSERT_GE(ReadUpTo(*stream, kHead), kHead) << type;
    const int replaced = OnlyTranscoder();
    ASSERT_GT(replaced, 0) << type;
    EXPECT_TRUE(SeeksTo(replaced, "30")) << type;

    // The running transcoder, blocked on its full pipe, ends and gives back
    // its slot before the new run is checked; its reader sees the end.
    const std::unique_ptr<DirectStream> seek = open();
    ASSERT_TRUE(seek->Init("")) << type << " " << seek->GetErrorString();
    EXPECT_TRUE(orvotest::Ends(replaced)) << type;
    EXPECT_FALSE(orvotest::Registered(replaced)) << type;
    EXPECT_LT(ReadUpTo(*stream, kMax), kMax) << type;
    ASSERT_TRUE(seek->Transcoding(ffmpeg, 10));
    ASSERT_GE(ReadUpTo(*seek, kHead), kHead) << type;
    const int transcoder = OnlyTranscoder();
    EXPECT_NE(transcoder, replaced) << type;
    EXPECT_TRUE(SeeksTo(transcoder, "10")) << type;

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
  Root().WriteFile("/silent-transcoder", "#!/bin/sh\nexec sleep 60\n");
  const std::string silent = Root().At("/silent-transcoder");
  ASSERT_EQ(chmod(silent.c_str(), 0755), 0);
  const std::string id = orvotest::CreateSession(Media::kH264AacMp4, "HTTP", "http.json", kProfile, "silent");
  HttpStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(silent, 0));
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

}  // namespace
}  // namespace LibOrvoVTE
