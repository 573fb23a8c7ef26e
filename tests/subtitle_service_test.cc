// The subtitle service stand-in, run as the program the demo and the web API
// run, answering the window URLs of HLS subtitle playlists over HTTP.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"
#include "vte/hls_playlists.h"

namespace {

namespace fs = std::filesystem;

// Reads what `fd` gives until EOF or `seconds` pass; stops early after
// `untilText` when given.
std::string ReadBounded(int fd, int seconds, const std::string& untilText = "") {
  std::string text;
  for (int waited = 0; waited < seconds * 10;) {
    struct pollfd readable = {fd, POLLIN, 0};
    const int ready = poll(&readable, 1, 100);
    if (ready == 0) {
      ++waited;
      continue;
    }
    char chunk[4096];
    const ssize_t got = ready < 0 ? -1 : read(fd, chunk, sizeof(chunk));
    if (got <= 0) break;
    text.append(chunk, got);
    if (!untilText.empty() && text.find(untilText) != std::string::npos) break;
  }
  return text;
}

// "<status> <body>" of a GET over loopback.
std::string Get(int port, const std::string& target) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const std::string request = "GET " + target + " HTTP/1.0\r\nHost: localhost\r\n\r\n";
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
    if (fd >= 0) close(fd);
    return "no connection";
  }
  const std::string response = ReadBounded(fd, 30);
  close(fd);
  const size_t body = response.find("\r\n\r\n");
  if (response.size() < 12 || body == std::string::npos) return "bad response: " + response;
  return response.substr(9, 3) + " " + response.substr(body + 4);
}

class SubtitleServiceTest : public orvotest::MachineRootTest {
 protected:
  void SetUp() override {
    MachineRootTest::SetUp();
    program_ = ORVOTEST_SUBTITLE_SERVICE;
    ASSERT_EQ(0, access(program_.c_str(), X_OK)) << program_ << ": build subtitle-service";
    media_ = Root().At("/volume1/video");
    fs::create_directories(media_);
    fs::create_symlink(orvotest::TestMedia(orvotest::Media::kTracksMkv), media_ + "/Movie.mkv");
    std::ofstream(media_ + "/Movie.eng.srt") << "1\n00:00:00,000 --> 00:00:01,000\nHello\n\n"
                                                "2\n00:00:04,500 --> 00:00:06,000\nacross\n\n"
                                                "3\n01:00:07,000 --> 01:00:08,000\nlate\n";
  }
  void TearDown() override {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      EXPECT_EQ(0, orvotest::WaitForChild(pid_, 15)) << "the service did not stop on SIGTERM";
    }
    MachineRootTest::TearDown();
  }

  // Starts the program with `mode`; returns the read end of its stdout.
  int Start(const std::vector<std::string>& mode) {
    std::vector<std::string> words = {program_, "--media", "m1=" + media_ + "/Movie.mkv"};
    words.insert(words.end(), mode.begin(), mode.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return -1;
    const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    pid_ = orvotest::StartChild([&] {
      dup2(out[1], STDOUT_FILENO);
      dup2(devNull, STDERR_FILENO);
      execv(argv[0], argv.data());
      return 127;
    });
    close(devNull);
    close(out[1]);
    return out[0];
  }

  // A window of the subtitle as the playlists ask for it.
  static std::string Window(const std::string& subtitleId, const std::string& window) {
    return "/webapi/subtitle.cgi?id=m1&subtitle_id=" + LibOrvoVTE::hls::PercentEncode(subtitleId) +
           "&api=A.Subtitle&version=2&preview=false&output_webvtt=true&" + window;
  }

  std::string program_;
  std::string media_;
  pid_t pid_ = -1;
};

TEST_F(SubtitleServiceTest, AnswersWindowsOfOfferedSubtitlesOnly) {
  const int out = Start({"--port", "0"});
  const std::string banner = ReadBounded(out, 10, "\n");
  close(out);
  const int port = atoi(banner.substr(banner.rfind(':') + 1).c_str());
  ASSERT_EQ(0u, banner.rfind("listening on 127.0.0.1:", 0)) << banner;

  const std::string srt = media_ + "/Movie.eng.srt";
  const struct {
    std::string target;
    std::string answer;
  } cases[] = {
      // A cue overlapping the window is kept whole, with the media's times
      // (the next window has it too, see below).
      {Window(srt, "webvtt_start_time=0&webvtt_end_time=5"),
       "200 WEBVTT\n\n00:00.000 --> 00:01.000\nHello\n\n00:04.500 --> 00:06.000\nacross\n"},
      {Window(srt, "webvtt_start_time=3605&webvtt_end_time=3610"),
       "200 WEBVTT\n\n01:00:07.000 --> 01:00:08.000\nlate\n"},
      // The embedded SubRip track (Matroska shifts it by the audio priming).
      {Window("3", "webvtt_start_time=0&webvtt_end_time=5"),
       "200 WEBVTT\n\n00:00.021 --> 00:01.021\nBonjour\n\n00:01.021 --> 00:02.021\nAu revoir\n"},
      {Window("1", "webvtt_start_time=0&webvtt_end_time=5"),
       "404 no text subtitle track 1 in the video\n"},
      {Window("/etc/passwd", "webvtt_start_time=0&webvtt_end_time=5"),
       "404 no subtitle file /etc/passwd beside the video\n"},
      {Window(media_ + "/../video/Movie.eng.srt", "webvtt_start_time=0&webvtt_end_time=5"),
       "404 no subtitle file " + media_ + "/../video/Movie.eng.srt beside the video\n"},
      {Window(srt, "webvtt_start_time=5&webvtt_end_time=5"),
       "400 webvtt_start_time and webvtt_end_time must be seconds, start before end\n"},
      {"/x?id=m2&subtitle_id=3&output_webvtt=true&webvtt_start_time=0&webvtt_end_time=5",
       "404 no video with id m2\n"},
      {"/x?id=m1&subtitle_id=3&webvtt_start_time=0&webvtt_end_time=5",
       "400 only output_webvtt=true is served\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.answer, Get(port, c.target)) << c.target;
}

TEST_F(SubtitleServiceTest, AnswersOneRequestOnItsOutput) {
  const int out = Start({"--request", Window(media_ + "/Movie.eng.srt",
                                             "webvtt_start_time=5&webvtt_end_time=10")});
  EXPECT_EQ("WEBVTT\n\n00:04.500 --> 00:06.000\nacross\n", ReadBounded(out, 30));
  close(out);
  EXPECT_EQ(0, orvotest::WaitForChild(pid_, 10));
  pid_ = -1;
}

}  // namespace
