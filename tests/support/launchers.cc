#include "tests/support/launchers.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "tests/support/child.h"
#include "tests/support/test_media.h"

namespace orvotest {
namespace fs = std::filesystem;
namespace {

constexpr int kProbeTimeoutSeconds = 60;

void Link(const MachineRoot& root, const std::string& built, const std::string& machinePath) {
  const fs::path link = root.At(machinePath);
  std::error_code failure;
  fs::create_directories(link.parent_path(), failure);
  if (!failure) fs::create_symlink(built, link, failure);
  if (failure) ADD_FAILURE() << "cannot link " << link << " to " << built << ": " << failure.message();
}

}  // namespace

void InstallLaunchers(const MachineRoot& root) {
  Link(root, ORVOVTE_FFMPEG_LAUNCHER, librh::machine::kPackageFFmpeg);
  Link(root, ORVOVTE_GST_LAUNCHER, librh::machine::kPackageGstLaunch);
}

void LauncherTest::SetUp() {
  MachineRootTest::SetUp();
  InstallLaunchers(Root());
}

std::string LauncherTest::SessionDir(const std::string& name) {
  const std::string dir = Root().At("/volume1/" + name);
  std::error_code failure;
  fs::create_directories(dir, failure);
  if (failure) ADD_FAILURE() << "cannot create " << dir << ": " << failure.message();
  return dir;
}

bool ReadPipe(int fd, std::string* data, int timeoutMs, size_t enough) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  char buffer[65536];
  while (data->size() < enough) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    struct pollfd ready = {fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) == 0) return false;
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    data->append(buffer, static_cast<size_t>(got));
  }
  return true;
}

bool WaitForPath(const std::string& path, int timeoutMs) {
  struct stat info;
  for (int waited = 0; stat(path.c_str(), &info) != 0; waited += 10) {
    if (waited >= timeoutMs) return false;
    struct timespec tick = {0, 10 * 1000 * 1000};
    nanosleep(&tick, nullptr);
  }
  return true;
}

std::vector<std::string> SplitWords(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

std::string JoinWords(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
  return line;
}

const ProbedStream* ProbedMedia::Stream(const std::string& type) const {
  for (const ProbedStream& stream : streams) {
    if (stream.type == type) return &stream;
  }
  return nullptr;
}

bool ProbeMedia(const std::string& path, ProbedMedia* media, const std::string& format) {
  std::string report = (fs::temp_directory_path() / "orvovte-probe-XXXXXX").string();
  const int fd = mkstemp(report.data());
  if (fd < 0) {
    ADD_FAILURE() << "mkstemp failed";
    return false;
  }
  close(fd);
  // Any decoding error fails a frame, so a frame count proves a clean decode.
  std::vector<std::string> argv = {"ffprobe", "-v", "error", "-err_detect", "explode",
                                   "-count_frames"};
  if (!format.empty()) argv.insert(argv.end(), {"-f", format});
  argv.insert(argv.end(),
              {"-show_entries",
               "format=format_name:stream=codec_type,codec_name,start_time,nb_read_frames,width,"
               "height,sample_rate,channels",
               "-of", "json", "-o", report, path});
  const int status = RunQuietly(argv, kProbeTimeoutSeconds);
  Json::Value document;
  std::ifstream in(report);
  Json::CharReaderBuilder builder;
  std::string errors;
  const bool parsed = status == 0 && Json::parseFromStream(builder, in, &document, &errors);
  unlink(report.c_str());
  if (!parsed) {
    ADD_FAILURE() << "ffprobe of " << path << " failed (status " << status << ") " << errors;
    return false;
  }
  *media = ProbedMedia();
  media->format = document["format"]["format_name"].asString();
  for (const Json::Value& stream : document["streams"]) {
    ProbedStream probed;
    probed.type = stream["codec_type"].asString();
    probed.codec = stream["codec_name"].asString();
    probed.start = std::atof(stream.get("start_time", "-1").asCString());
    probed.frames = std::atol(stream.get("nb_read_frames", "-1").asCString());
    probed.width = stream["width"].asInt();
    probed.height = stream["height"].asInt();
    probed.sampleRate = std::atoi(stream.get("sample_rate", "0").asCString());
    probed.channels = stream["channels"].asInt();
    media->streams.push_back(probed);
  }
  return true;
}

}  // namespace orvotest
