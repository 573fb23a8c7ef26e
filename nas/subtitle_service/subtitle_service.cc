// Plays the media server's subtitle service for the demo and the reference
// web API: it answers the URLs of an HLS stream's subtitle playlists with
// WebVTT for the requested time window, converted with ffmpeg from a subtitle
// file beside the video or from a text track embedded in it. It is the
// caller's side of subtitles; the engine only writes the playlists.
//
//   subtitle-service [OPTIONS] --port PORT        serve HTTP on 127.0.0.1
//   subtitle-service [OPTIONS] --request TARGET   answer one request target
//
// OPTIONS: --media ID=PATH (repeatable; which video the "id" key names),
// --ffmpeg PROGRAM (default "ffmpeg", looked up in PATH).
//
// A request target is "<path>?<query>" as the playlists hold it: "id" (a
// --media ID), "subtitle_id" (a subtitle file's full path, or the number of an
// embedded text track), "output_webvtt=true", "webvtt_start_time" and
// "webvtt_end_time" in seconds, optionally "subtitle_codepage" (the file's
// character set); other keys are accepted and ignored. Only files that the
// engine itself would offer for the video are served.
//
// The window holds every cue that overlaps it, with the media's own times,
// so a cue that spans two windows is in both (players drop the repeat).
//
// With --port it prints "listening on 127.0.0.1:<port>" once it accepts
// (PORT 0 takes a free port) and runs each connection in a process of its
// own (this program again, with the connection as stdin and stdout), until
// SIGTERM or SIGINT. --request prints the WebVTT and exits 0, or says why on
// stderr and exits 1. Bad usage exits 2.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "metadata/video_metadata.h"
#include "subtitle/subtitle.h"

namespace {

constexpr int kOk = 0;
constexpr int kRefused = 1;
constexpr int kUsage = 2;
constexpr char kProgram[] = "subtitle-service";

// A conversion of a whole subtitle file takes well under a second; a stuck
// ffmpeg must not hold a connection for ever.
constexpr int kConversionTimeoutSeconds = 60;
constexpr int kRequestReadTimeoutSeconds = 10;
constexpr size_t kMaxRequestHead = 16 * 1024;
constexpr int kStopGraceSeconds = 5;

struct Options {
  std::map<std::string, std::string> media;
  std::string ffmpeg = "ffmpeg";
  std::string mode;  // "--port", "--request" or "--connection"
  std::string value;
};

struct Response {
  int status;
  std::string body;
};

int Usage() {
  fprintf(stderr,
          "usage: %s [--media ID=PATH]... [--ffmpeg PROGRAM] --port PORT\n"
          "       %s [--media ID=PATH]... [--ffmpeg PROGRAM] --request TARGET\n"
          "\n"
          "Answers subtitle playlist URLs (\"<path>?id=ID&subtitle_id=...&output_webvtt=true\n"
          "&webvtt_start_time=S&webvtt_end_time=E\") with WebVTT cues of that window,\n"
          "from a subtitle file beside video ID or one of its embedded text tracks.\n"
          "\n"
          "  --media ID=PATH    the video that the id ID names (repeatable)\n"
          "  --ffmpeg PROGRAM   the ffmpeg to convert with (default: ffmpeg in PATH)\n"
          "  --port PORT        serve HTTP on 127.0.0.1:PORT (0: any free port)\n"
          "  --request TARGET   print the answer to one request target and exit\n",
          kProgram, kProgram);
  return kUsage;
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--connection") {
      options.mode = word;
      continue;
    }
    if (i + 1 >= argc) return false;
    const std::string value = argv[++i];
    if (word == "--media") {
      const size_t equals = value.find('=');
      if (equals == 0 || equals == std::string::npos || equals + 1 == value.size()) return false;
      options.media[value.substr(0, equals)] = value.substr(equals + 1);
    } else if (word == "--ffmpeg") {
      options.ffmpeg = value;
    } else if (word == "--port" || word == "--request") {
      options.mode = word;
      options.value = value;
    } else {
      return false;
    }
  }
  return !options.mode.empty();
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

std::string PercentDecode(const std::string& text) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
        HexValue(text[i + 2]) >= 0) {
      decoded += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

std::map<std::string, std::string> ParseQuery(const std::string& target) {
  std::map<std::string, std::string> query;
  const size_t mark = target.find('?');
  if (mark == std::string::npos) return query;
  std::istringstream pairs(target.substr(mark + 1));
  for (std::string pair; std::getline(pairs, pair, '&');) {
    const size_t equals = pair.find('=');
    if (equals == std::string::npos) continue;
    query[PercentDecode(pair.substr(0, equals))] = PercentDecode(pair.substr(equals + 1));
  }
  return query;
}

// A decimal number of at most nine digits, nothing else.
bool ParseNumber(const std::string& text, long& number) {
  if (text.empty() || text.size() > 9) return false;
  for (const char c : text) {
    if (!isdigit(static_cast<unsigned char>(c))) return false;
  }
  number = strtol(text.c_str(), nullptr, 10);
  return true;
}

// "[hh:]mm:ss.ttt" in milliseconds; -1 when it is not a cue time.
long long CueTimeMs(const std::string& text) {
  int hours = 0, minutes = 0, seconds = 0, millis = 0, used = 0;
  if (sscanf(text.c_str(), "%d:%d:%d.%d%n", &hours, &minutes, &seconds, &millis, &used) != 4 ||
      used != static_cast<int>(text.size())) {
    hours = 0;
    if (sscanf(text.c_str(), "%d:%d.%d%n", &minutes, &seconds, &millis, &used) != 3 ||
        used != static_cast<int>(text.size())) {
      return -1;
    }
  }
  return ((hours * 60LL + minutes) * 60 + seconds) * 1000 + millis;
}

// The cues of a WebVTT text that overlap [startMs, endMs), as a WebVTT text.
std::string CuesInWindow(const std::string& webvtt, long long startMs, long long endMs) {
  std::string window = "WEBVTT\n";
  std::istringstream lines(webvtt);
  std::vector<std::string> block;
  auto flush = [&] {
    for (const std::string& line : block) {
      const size_t arrow = line.find("-->");
      if (arrow == std::string::npos) continue;
      std::istringstream times(line.substr(0, arrow) + " " + line.substr(arrow + 3));
      std::string start, end;
      times >> start >> end;
      const long long cueStart = CueTimeMs(start);
      const long long cueEnd = CueTimeMs(end);
      if (cueStart >= 0 && cueEnd >= 0 && cueStart < endMs && cueEnd > startMs) {
        window += "\n";
        for (const std::string& kept : block) window += kept + "\n";
      }
      break;
    }
    block.clear();
  };
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) {
      flush();
    } else {
      block.push_back(line);
    }
  }
  flush();
  return window;
}

// Runs ffmpeg with `input` (the words before the output) and returns what it
// wrote as WebVTT; false when it failed or took too long.
bool ConvertToWebVTT(const std::string& ffmpeg, const std::vector<std::string>& input,
                     std::string& webvtt) {
  std::vector<std::string> words = {ffmpeg, "-nostdin", "-v", "error"};
  words.insert(words.end(), input.begin(), input.end());
  words.insert(words.end(), {"-f", "webvtt", "pipe:1"});
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);

  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return false;
  const int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const pid_t pid = devNull < 0 ? -1 : fork();
  if (pid == 0) {
    dup2(devNull, STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  if (devNull >= 0) close(devNull);
  close(out[1]);
  if (pid < 0) {
    close(out[0]);
    return false;
  }
  const time_t deadline = time(nullptr) + kConversionTimeoutSeconds;
  bool late = false;
  for (;;) {
    const time_t left = deadline - time(nullptr);
    struct pollfd readable = {out[0], POLLIN, 0};
    if (left <= 0 || poll(&readable, 1, static_cast<int>(left) * 1000) == 0) {
      late = true;
      break;
    }
    char chunk[8192];
    const ssize_t got = read(out[0], chunk, sizeof(chunk));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    webvtt.append(chunk, got);
  }
  close(out[0]);
  if (late) kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return !late && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The ffmpeg input words for `subtitleId` of the video, or a refusal.
bool SubtitleInput(const std::string& video, const std::string& subtitleId,
                   const std::string& codepage, std::vector<std::string>& input,
                   Response& refusal) {
  const bool isTrack = subtitleId.find_first_not_of("0123456789") == std::string::npos;
  if (isTrack) {
    LibOrvoVTE::VideoMetaData metadata;
    Json::Value tracks;
    if (metadata.LoadFile(video) && metadata.GetSubtitleTrackInfo(tracks) &&
        librh::subtitle::IsAllowEmbaddedSubtitleContiner(metadata.GetContainer())) {
      for (const Json::Value& track : tracks) {
        if (track["track"].asString() == subtitleId &&
            librh::subtitle::IsTextBaseSubtitleCodec(track["codec"].asString())) {
          input = {"-i", video, "-map", "0:" + subtitleId};
          return true;
        }
      }
    }
    refusal = {404, "no text subtitle track " + subtitleId + " in the video\n"};
    return false;
  }
  // Only what the engine offers for this video: a subtitle id is never a
  // way to read any other file.
  Json::Value offered(Json::arrayValue);
  librh::subtitle::GetExternalSubtitle(video, offered);
  for (const Json::Value& path : offered) {
    if (path.asString() != subtitleId) continue;
    input.clear();
    if (!codepage.empty()) input = {"-sub_charenc", codepage};
    input.insert(input.end(), {"-i", subtitleId});
    return true;
  }
  refusal = {404, "no subtitle file " + subtitleId + " beside the video\n"};
  return false;
}

Response Answer(const Options& options, const std::string& target) {
  std::map<std::string, std::string> query = ParseQuery(target);
  if (query["output_webvtt"] != "true") return {400, "only output_webvtt=true is served\n"};
  long start = 0;
  long end = 0;
  if (!ParseNumber(query["webvtt_start_time"], start) ||
      !ParseNumber(query["webvtt_end_time"], end) || end <= start) {
    return {400, "webvtt_start_time and webvtt_end_time must be seconds, start before end\n"};
  }
  const auto video = options.media.find(query["id"]);
  if (video == options.media.end()) return {404, "no video with id " + query["id"] + "\n"};
  if (query["subtitle_id"].empty()) return {400, "subtitle_id is missing\n"};

  std::vector<std::string> input;
  Response refusal{500, ""};
  if (!SubtitleInput(video->second, query["subtitle_id"], query["subtitle_codepage"], input,
                     refusal)) {
    return refusal;
  }
  std::string webvtt;
  if (!ConvertToWebVTT(options.ffmpeg, input, webvtt)) {
    return {500, "ffmpeg could not convert the subtitles\n"};
  }
  return {200, CuesInWindow(webvtt, start * 1000LL, end * 1000LL)};
}

const char* Reason(int status) {
  switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    default: return "Internal Server Error";
  }
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    done += wrote;
  }
  return true;
}

// One HTTP request on stdin, its response on stdout.
int ServeConnection(const Options& options) {
  std::string head;
  const time_t deadline = time(nullptr) + kRequestReadTimeoutSeconds;
  while (head.find("\r\n\r\n") == std::string::npos && head.find("\n\n") == std::string::npos &&
         head.size() < kMaxRequestHead) {
    const time_t left = deadline - time(nullptr);
    struct pollfd readable = {STDIN_FILENO, POLLIN, 0};
    if (left <= 0 || poll(&readable, 1, static_cast<int>(left) * 1000) <= 0) break;
    char chunk[4096];
    const ssize_t got = read(STDIN_FILENO, chunk, sizeof(chunk));
    if (got <= 0) break;
    head.append(chunk, got);
  }
  std::istringstream requestLine(head.substr(0, head.find('\n')));
  std::string method, target;
  requestLine >> method >> target;
  const Response response = method == "GET" ? Answer(options, target)
                                            : Response{405, "only GET is served\n"};
  const std::string type = response.status == 200 ? "text/vtt; charset=utf-8" : "text/plain";
  return WriteAll(STDOUT_FILENO, "HTTP/1.0 " + std::to_string(response.status) + " " +
                                     Reason(response.status) + "\r\nContent-Type: " + type +
                                     "\r\nContent-Length: " +
                                     std::to_string(response.body.size()) +
                                     "\r\nConnection: close\r\n\r\n" + response.body)
             ? kOk
             : kRefused;
}

volatile sig_atomic_t gStop = 0;

void OnStop(int) { gStop = 1; }
void OnChild(int) {}

void ReapFinished(std::set<pid_t>& children) {
  pid_t pid;
  while ((pid = waitpid(-1, nullptr, WNOHANG)) > 0) children.erase(pid);
}

// Ends the connections still being answered: a while to finish, then KILL.
void StopChildren(std::set<pid_t>& children) {
  for (int tenth = 0; !children.empty() && tenth < kStopGraceSeconds * 10; ++tenth) {
    ReapFinished(children);
    struct timespec pause = {0, 100 * 1000 * 1000};
    nanosleep(&pause, nullptr);
  }
  for (const pid_t pid : children) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
}

int Serve(const Options& options, int argc, char** argv) {
  long port = -1;
  if (!ParseNumber(options.value, port) || port > 65535) return Usage();
  // Each connection is answered by this program again, so the child does
  // nothing between fork and exec but wire up the socket.
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length <= 0) return kRefused;
  self[length] = '\0';
  std::vector<std::string> words = {self};
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--port") {
      ++i;
    } else {
      words.push_back(word);
    }
  }
  words.push_back("--connection");
  std::vector<char*> childArgv;
  for (std::string& word : words) childArgv.push_back(&word[0]);
  childArgv.push_back(nullptr);

  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes)) != 0 ||
      bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, 16) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    perror(kProgram);
    if (listener >= 0) close(listener);
    return kRefused;
  }

  // The signals stay blocked but while waiting in ppoll, so none is lost
  // between a check of the flag and the wait.
  sigset_t handled, waiting, original;
  sigemptyset(&handled);
  for (const int signalNumber : {SIGTERM, SIGINT, SIGCHLD}) sigaddset(&handled, signalNumber);
  sigprocmask(SIG_BLOCK, &handled, &original);
  struct sigaction action = {};
  action.sa_handler = OnStop;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  action.sa_handler = OnChild;
  sigaction(SIGCHLD, &action, nullptr);
  sigemptyset(&waiting);

  printf("listening on 127.0.0.1:%d\n", ntohs(address.sin_port));
  fflush(stdout);

  std::set<pid_t> children;
  while (!gStop) {
    ReapFinished(children);
    struct pollfd pending = {listener, POLLIN, 0};
    if (ppoll(&pending, 1, nullptr, &waiting) <= 0) continue;
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    const pid_t pid = fork();
    if (pid == 0) {
      signal(SIGTERM, SIG_DFL);
      signal(SIGINT, SIG_DFL);
      signal(SIGCHLD, SIG_DFL);
      sigprocmask(SIG_SETMASK, &original, nullptr);
      dup2(connection, STDIN_FILENO);
      dup2(connection, STDOUT_FILENO);
      execv(childArgv[0], childArgv.data());
      _exit(127);
    }
    if (pid > 0) children.insert(pid);
    close(connection);
  }
  close(listener);
  StopChildren(children);
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) return Usage();
  if (options.mode == "--connection") return ServeConnection(options);
  if (options.mode == "--port") return Serve(options, argc, argv);
  const Response response = Answer(options, options.value);
  if (response.status != 200) {
    fprintf(stderr, "%s: %d %s: %s", kProgram, response.status, Reason(response.status),
            response.body.c_str());
    return kRefused;
  }
  return WriteAll(STDOUT_FILENO, response.body) ? kOk : kRefused;
}
