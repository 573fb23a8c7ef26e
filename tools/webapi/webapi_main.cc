// The reference web API: a CGI program that the web server runs once per
// request, which is the library's model (process-wide ids, signal flags and
// monitors forked from the request's process). The endpoint is the name the
// program is run under (SCRIPT_NAME's last part):
//
//   files     the playable files of the media folder
//   open      file, type (hls|ss|http|webm), profile, device, audio,
//             audio_format, subtitle ("all" or a subtitle id), hls_header=1:
//             creates and opens a stream; answers {"id","url"} or {"error"}
//   stream    format, id and the keys the playlists, the manifest and the
//             player add: playlists, manifest, segments, fragments, and the
//             progressive bytes (Range requests for http, start=S for webm)
//   close     format, id: ends the stream and whatever it still runs
//   subtitle  WebVTT windows for the subtitle playlists (subtitle-service)
//
// Configuration comes from the server's environment: ORVOVTE_MACHINE_ROOT,
// WEBAPI_MEDIA_DIR, WEBAPI_PROFILE_DIR, WEBAPI_SUBTITLE_SERVICE, WEBAPI_LOG
// (where the request's and its transcoders' output goes) and
// WEBAPI_BREAK_SEGMENTS=1, a debug switch that serves every HLS segment cut
// short, so that a player test can be shown to fail.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/machine_root.h"
#include "tools/webapi/http_request.h"
#include "toolkit/child_process.h"
#include "toolkit/query.h"
#include "vte/adapt_stream.h"
#include "vte/http_live_stream.h"
#include "vte/http_stream.h"
#include "vte/smooth_stream.h"

namespace {

using Query = std::map<std::string, std::string>;
using LibOrvoVTE::VTEStream;

constexpr char kStreamPath[] = "/api/stream";
constexpr char kSubtitlePath[] = "/api/subtitle";
constexpr char kDefaultDevice[] = "browser";
// A subtitle window is converted in well under a second.
constexpr std::chrono::seconds kSubtitleTimeout{30};
// Opening a run may wait a minute for a transcoding slot.
constexpr std::chrono::seconds kRunStartTimeout{90};
constexpr size_t kBrokenSegmentBytes = 188 * 16;

// The web server's connection; fds 0-2 point elsewhere, so that nothing the
// library forks without exec keeps the response open.
int gResponseFd = -1;
volatile sig_atomic_t gStop = 0;

void OnStop(int) { gStop = 1; }

std::string Env(const char* name) {
  const char* value = getenv(name);
  return value != nullptr ? value : "";
}

bool WriteAll(const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(gResponseFd, data, size);
    if (n < 0 && errno == EINTR && !gStop) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool WriteAll(const std::string& text) { return WriteAll(text.data(), text.size()); }

void Head(int status, const std::string& type, long long length,
          const std::vector<std::string>& extra = {}) {
  std::string head = "Status: " + std::to_string(status) + "\r\nContent-Type: " + type +
                     "\r\nCache-Control: no-store\r\n";
  if (length >= 0) head += "Content-Length: " + std::to_string(length) + "\r\n";
  for (const std::string& line : extra) head += line + "\r\n";
  WriteAll(head + "\r\n");
}

int Answer(int status, const std::string& type, const std::string& body) {
  Head(status, type, static_cast<long long>(body.size()));
  WriteAll(body);
  return 0;
}

int Fail(int status, const std::string& code) {
  return Answer(status, "application/json", webapi::ErrorBody(code) + "\n");
}

std::string JsonText(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, value) + "\n";
}

int SendFile(const std::string& path, const std::string& type, size_t limit = 0) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info;
  if (fd < 0 || fstat(fd, &info) != 0) {
    if (fd >= 0) close(fd);
    return Fail(404, "file_not_found");
  }
  size_t left = static_cast<size_t>(info.st_size);
  if (limit > 0) left = std::min(left, limit);
  Head(200, type, static_cast<long long>(left));
  char buffer[65536];
  while (left > 0 && !gStop) {
    const ssize_t n = read(fd, buffer, std::min(left, sizeof(buffer)));
    if (n <= 0 || !WriteAll(buffer, static_cast<size_t>(n))) break;
    left -= static_cast<size_t>(n);
  }
  close(fd);
  return 0;
}

bool IsDirectory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// A client request keeps the session alive: the monitors end a stream that
// no request has touched for a while.
void TouchAccess(const VTEStream& stream) {
  if (stream.GetStreamID().empty() || !IsDirectory(stream.GetVTEFileFullPath(""))) return;
  const std::string path = stream.GetVTEFileFullPath("access_status");
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return;
  futimens(fd, nullptr);
  close(fd);
}

std::string StreamType(const std::string& format) {
  if (format == "hls") return "HLS";
  if (format == "ss") return "SS";
  if (format == "http") return "HTTP";
  if (format == "webm") return "WEBM";
  return "";
}

std::string ProfileFile(const std::string& type) {
  static const std::map<std::string, std::string> files = {
      {"HLS", "hls.json"}, {"SS", "smooth.json"}, {"HTTP", "http.json"}, {"WEBM", "webm.json"}};
  return Env("WEBAPI_PROFILE_DIR") + "/" + files.at(type);
}

std::string DefaultProfile(const std::string& type) {
  static const std::map<std::string, std::string> names = {
      {"HLS", "hls_320x240_x264_vb300_aac_ab64"},
      {"SS", "smoothstreaming_240p_x264_vb200_vf15_aac_ab40"},
      {"HTTP", "http_320x240_x264_vb256_mp3_ab64"},
      {"WEBM", "webm_320x240_vp8_vb256_vorbis_ab64"}};
  return names.at(type);
}

// A media folder entry by its plain name; "" for anything that would leave it.
std::string MediaPath(const std::string& name) {
  if (name.empty() || name[0] == '.' || name.find('/') != std::string::npos) return "";
  return Env("WEBAPI_MEDIA_DIR") + "/" + name;
}

bool IsPlayableName(const std::string& name) {
  static const char* const kExtensions[] = {".mp4", ".mkv", ".m4v", ".mov", ".ts",
                                            ".avi", ".webm", ".wmv", ".flv"};
  for (const char* extension : kExtensions) {
    const size_t length = strlen(extension);
    if (name.size() > length && name.compare(name.size() - length, length, extension) == 0) {
      return true;
    }
  }
  return false;
}

int ListFiles() {
  Json::Value files(Json::arrayValue);
  std::vector<std::string> names;
  if (DIR* dir = opendir(Env("WEBAPI_MEDIA_DIR").c_str())) {
    while (const dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.' && IsPlayableName(entry->d_name)) names.push_back(entry->d_name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) files.append(name);
  Json::Value body;
  body["files"] = files;
  return Answer(200, "application/json", JsonText(body));
}

// Why a stream could not be opened, as an HTTP status.
int OpenFailureStatus(const std::string& code) {
  if (code == "TransEnable" || code == "TransEnableOfflineConverting") return 503;
  if (code == LibOrvoVTE::kTransSpaceNotEnough) return 507;
  if (code.empty()) return 500;
  return 415;
}

int FailOpen(const std::string& code) {
  return Fail(OpenFailureStatus(code), code.empty() ? "init_failed" : code);
}

// Runs `work` in a child whose copy of the response descriptor is closed:
// the progressive run it starts then never holds the response open. The
// child's exit status, -1 when it could not run or was late.
int RunAwayFromResponse(const std::function<int()>& work) {
  return toolkit::WaitFor(toolkit::StartFunction([&work] {
                            close(gResponseFd);
                            return work();
                          }),
                          kRunStartTimeout);
}

// The progressive stream class of `type` ("HTTP" or "WEBM") for `id`.
std::unique_ptr<LibOrvoVTE::DirectStream> Progressive(const std::string& type,
                                                      const std::string& id) {
  if (type == "HTTP") return std::make_unique<LibOrvoVTE::HttpStream>(id);
  return std::make_unique<LibOrvoVTE::WebMStream>(id);
}

int OpenStream(const Query& query) {
  auto key = [&query](const char* name) {
    const auto found = query.find(name);
    return found == query.end() ? std::string() : found->second;
  };
  const std::string format = key("type");
  const std::string type = StreamType(format);
  if (type.empty()) return Fail(400, "unknown_type");
  const std::string path = MediaPath(key("file"));
  if (path.empty()) return Fail(400, "bad_file_name");
  if (access(path.c_str(), R_OK) != 0) return Fail(404, "file_not_found");
  const std::string profile = key("profile").empty() ? DefaultProfile(type) : key("profile");
  const std::string device = key("device").empty() ? kDefaultDevice : key("device");

  const std::string id =
      VTEStream::VTE_Init(path, type, Json::Value(), ProfileFile(type), profile, device, 0);
  if (id.empty()) return Fail(422, "open_failed");
  if (id == LibOrvoVTE::kTransSpaceNotEnough) return Fail(507, id);

  Json::Value params;
  params["url"] = kStreamPath;
  params["format"] = format;
  if (key("hls_header") == "1") params["hls_header"] = true;
  Json::Value body;
  body["id"] = id;
  if (type == "HLS") {
    LibOrvoVTE::HttpLiveStream stream(id);
    Json::Value subtitles;
    if (!key("subtitle").empty()) {
      subtitles["url"] = kSubtitlePath;
      subtitles["id"] = key("file");
      subtitles["subtitle_id"] = key("subtitle");
    }
    if (!stream.Init(params, subtitles, key("audio"), key("audio_format"))) {
      return FailOpen(stream.GetErrorString());
    }
    body["url"] = stream.GetStreamURL(params);
  } else if (type == "SS") {
    LibOrvoVTE::SmoothStream stream(id);
    if (!stream.Init(params, Json::Value(), key("audio"), "")) {
      return FailOpen(stream.GetErrorString());
    }
    // The manifest's form of the URL is XML-escaped; the client gets it plain.
    std::string url = stream.GetStreamURL(params);
    for (size_t at = url.find("&amp;"); at != std::string::npos; at = url.find("&amp;", at + 1)) {
      url.replace(at, 5, "&");
    }
    body["url"] = url;
  } else {
    // A progressive session is the anchor of its runs: each data request
    // plays a run of its own, opened and closed with it (a seek is a new
    // request). The checks a run makes are made once here, so that a
    // stream that cannot play says so when it is opened.
    const std::unique_ptr<LibOrvoVTE::DirectStream> check = Progressive(type, id);
    if (!check->InitStreamCommon(key("audio"), false)) {
      const std::string code = check->GetErrorString();
      check->Close();
      return FailOpen(code);
    }
    body["url"] = std::string(kStreamPath) + "?format=" + format + "&id=" + id +
                  (key("audio").empty() ? "" : "&audio=" + key("audio"));
  }
  return Answer(200, "application/json", JsonText(body));
}

// What a progressive run needs of its anchor session.
struct Anchor {
  std::string path, profile, device;
};

bool ReadAnchor(const VTEStream& anchor, Anchor* out) {
  const std::string file = anchor.GetVTEFileFullPath("video_metadata");
  if (anchor.GetStreamID().empty() || file.empty()) return false;
  try {
    Json::Value doc;
    Json::CharReaderBuilder reader;
    std::string errors;
    FILE* in = fopen(file.c_str(), "re");
    if (in == nullptr) return false;
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), in)) > 0) text.append(buffer, n);
    fclose(in);
    std::unique_ptr<Json::CharReader> parser(reader.newCharReader());
    if (!parser->parse(text.data(), text.data() + text.size(), &doc, &errors)) return false;
    out->path = doc["path"].asString();
    out->profile = doc["profile_key"].asString();
    out->device = doc["device"].asString();
    return !out->path.empty() && !out->profile.empty();
  } catch (const std::exception&) {
    return false;
  }
}

// WebMStream keeps its pipe to itself; a run hands it across processes.
class WebMRun : public LibOrvoVTE::WebMStream {
 public:
  using WebMStream::WebMStream;
  int TakePipe() {
    const int pipe = fd;
    fd = -1;
    return pipe;
  }
};

bool SendDescriptor(int socket, int fd) {
  char byte = fd >= 0 ? 1 : 0;
  iovec data = {&byte, 1};
  char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  if (fd >= 0) {
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &fd, sizeof(int));
  }
  return sendmsg(socket, &message, MSG_NOSIGNAL) == 1;
}

int ReceiveDescriptor(int socket) {
  char byte = 0;
  iovec data = {&byte, 1};
  char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  if (recvmsg(socket, &message, MSG_CMSG_CLOEXEC) != 1 || byte != 1) return -1;
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return -1;
  int fd = -1;
  memcpy(&fd, CMSG_DATA(header), sizeof(int));
  return fd;
}

// Copies a run's output to the client until it ends, the client goes, or
// `limit` bytes (< 0: no limit) are sent.
void Relay(const std::function<int(char*, unsigned int)>& read, long long limit) {
  char buffer[65536];
  while (!gStop && limit != 0) {
    const unsigned int want =
        limit < 0 ? sizeof(buffer) : static_cast<unsigned int>(std::min<long long>(limit, sizeof(buffer)));
    const int n = read(buffer, want);
    if (n <= 0 || !WriteAll(buffer, static_cast<size_t>(n))) break;
    if (limit > 0) limit -= n;
  }
}

int StreamProgressive(const std::string& type, const std::string& id, const Query& query) {
  const std::unique_ptr<LibOrvoVTE::DirectStream> anchor = Progressive(type, id);
  Anchor source;
  if (!ReadAnchor(*anchor, &source)) return Fail(404, "stream_not_found");
  TouchAccess(*anchor);
  const auto audio = query.find("audio");
  const std::string audioId = audio == query.end() ? "" : audio->second;
  Json::Value params;
  params["stream_id"] = id + "_r" + std::to_string(getpid());
  const std::string run = VTEStream::VTE_Init(source.path, type, params, ProfileFile(type),
                                              source.profile, source.device, 0);
  if (run != params["stream_id"].asString()) return Fail(500, run.empty() ? "open_failed" : run);
  const std::string ffmpeg = librh::machine::Resolve(librh::machine::kPackageFFmpeg);

  if (type == "HTTP") {
    LibOrvoVTE::HttpStream stream(run);
    if (!stream.Init(audioId)) {
      return FailOpen(stream.GetErrorString());
    }
    const long long size = static_cast<long long>(stream.VTE_HTTP_PredictTransFileSize());
    const webapi::ByteRange range = webapi::ResolveRange(Env("HTTP_RANGE"), size);
    if (range.kind == webapi::ByteRange::kUnsatisfiable) {
      stream.Close();
      Head(416, "application/json", -1, {"Content-Range: bytes */" + std::to_string(size)});
      WriteAll(webapi::ErrorBody("range_not_satisfiable") + "\n");
      return 0;
    }
    const long long first = range.kind == webapi::ByteRange::kPart ? range.first : 0;
    const long long start = first > 0 ? stream.ConvertByteRangeToTimeRange(first) : 0;
    if (!stream.Transcoding(ffmpeg, static_cast<unsigned long>(std::max(start, 0LL)))) {
      stream.Close();
      return Fail(500, "transcoding_failed");
    }
    signal(SIGPIPE, SIG_IGN);
    long long length = -1;
    std::vector<std::string> extra = {"Accept-Ranges: bytes"};
    if (size > 0) {
      const long long last = range.kind == webapi::ByteRange::kPart ? range.last : size - 1;
      length = last - first + 1;
      if (range.kind == webapi::ByteRange::kPart) {
        extra.push_back("Content-Range: bytes " + std::to_string(first) + "-" +
                        std::to_string(last) + "/" + std::to_string(size));
      }
    }
    Head(range.kind == webapi::ByteRange::kPart && size > 0 ? 206 : 200, "video/mp2t", length,
         extra);
    Relay([&stream](char* buffer, unsigned int n) { return stream.Read(buffer, n); }, length);
    stream.Close();
    return 0;
  }

  // WEBM: its monitor is forked without exec, so the run starts in a child
  // away from the response and hands back the pipe's read end.
  const auto startKey = query.find("start");
  const unsigned long start =
      startKey == query.end() ? 0 : strtoul(startKey->second.c_str(), nullptr, 10);
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
    return Fail(500, "transcoding_failed");
  }
  std::string code;
  const int status = RunAwayFromResponse([&] {
    close(sockets[0]);
    WebMRun stream(run);
    if (!stream.Init(audioId) || !stream.Transcoding(ffmpeg, start)) {
      SendDescriptor(sockets[1], -1);
      return 1;
    }
    return SendDescriptor(sockets[1], stream.TakePipe()) ? 0 : 1;
  });
  close(sockets[1]);
  const int pipe = status == 0 ? ReceiveDescriptor(sockets[0]) : -1;
  close(sockets[0]);
  WebMRun stream(run);
  if (pipe < 0) {
    stream.Close();
    return Fail(500, "transcoding_failed");
  }
  signal(SIGPIPE, SIG_IGN);
  Head(200, "video/webm", -1, {"Accept-Ranges: none"});
  Relay([pipe](char* buffer, unsigned int n) { return static_cast<int>(read(pipe, buffer, n)); },
        -1);
  close(pipe);
  stream.Close();
  return 0;
}

std::string Key(const Query& query, const char* name) {
  const auto found = query.find(name);
  return found == query.end() ? std::string() : found->second;
}

int StreamHls(const std::string& id, const Query& query) {
  LibOrvoVTE::HttpLiveStream stream(id);
  if (stream.GetStreamID().empty() || !IsDirectory(stream.GetVTEFileFullPath(""))) {
    return Fail(404, "stream_not_found");
  }
  TouchAccess(stream);
  const std::string fragment = Key(query, "fragment_id");
  if (fragment.empty()) {
    const std::string playlist =
        stream.GetMainfest(Key(query, "playlist_type"), Key(query, "subtitle_id"));
    if (playlist.empty()) return Fail(404, "playlist_not_found");
    return SendFile(playlist, "application/vnd.apple.mpegurl");
  }
  if (Key(query, "hls_header") == "1") stream.EnableHLSHeader();
  if (!stream.Transcoding(fragment)) return Fail(500, "transcoding_failed");
  const std::string segment = stream.ReadFragment(fragment);
  if (segment.empty()) return Fail(504, "fragment_not_ready");
  return SendFile(segment, "video/mp2t", Env("WEBAPI_BREAK_SEGMENTS") == "1" ? kBrokenSegmentBytes : 0);
}

int StreamSmooth(const std::string& id, const Query& query) {
  LibOrvoVTE::SmoothStream stream(id);
  if (stream.GetStreamID().empty() || !IsDirectory(stream.GetVTEFileFullPath(""))) {
    return Fail(404, "stream_not_found");
  }
  TouchAccess(stream);
  const std::string fragment = Key(query, "fragment_id");
  if (fragment.empty()) return SendFile(stream.GetMainfest(), "text/xml");
  if (!stream.Transcoding(fragment)) return Fail(500, "transcoding_failed");
  const std::string file = stream.ReadFragment(fragment);
  if (file.empty()) return Fail(504, "fragment_not_ready");
  return SendFile(file, "video/mp4");
}

int Stream(const Query& query) {
  const std::string type = StreamType(Key(query, "format"));
  const std::string id = Key(query, "id");
  if (type.empty() || id.empty()) return Fail(400, "bad_request");
  if (type == "HLS") return StreamHls(id, query);
  if (type == "SS") return StreamSmooth(id, query);
  return StreamProgressive(type, id, query);
}

// Ends a progressive anchor's runs that their requests did not close (a
// request killed outright closes nothing).
void CloseRuns(const std::string& type, const std::string& id) {
  const std::string dir = librh::machine::Resolve(librh::machine::kTempRoot) + "/" + type;
  const std::string prefix = id + "_r";
  std::vector<std::string> runs;
  if (DIR* folder = opendir(dir.c_str())) {
    while (const dirent* entry = readdir(folder)) {
      if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0) runs.push_back(entry->d_name);
    }
    closedir(folder);
  }
  for (const std::string& run : runs) Progressive(type, run)->Close();
}

int CloseStream(const Query& query) {
  const std::string type = StreamType(Key(query, "format"));
  const std::string id = Key(query, "id");
  if (type.empty() || id.empty()) return Fail(400, "bad_request");
  bool closed = false;
  if (type == "HLS") {
    LibOrvoVTE::HttpLiveStream stream(id);
    closed = IsDirectory(stream.GetVTEFileFullPath("")) && stream.Close();
  } else if (type == "SS") {
    LibOrvoVTE::SmoothStream stream(id);
    closed = IsDirectory(stream.GetVTEFileFullPath("")) && stream.Close();
  } else {
    CloseRuns(type, id);
    const std::unique_ptr<LibOrvoVTE::DirectStream> stream = Progressive(type, id);
    closed = IsDirectory(stream->GetVTEFileFullPath("")) && stream->Close();
  }
  if (!closed) return Fail(404, "stream_not_found");
  Json::Value body;
  body["closed"] = id;
  return Answer(200, "application/json", JsonText(body));
}

// Runs the subtitle service for this one request and relays its WebVTT.
int Subtitle(const Query& query) {
  const std::string name = Key(query, "id");
  const std::string path = MediaPath(name);
  if (path.empty()) return Fail(400, "bad_request");
  const std::string program = Env("WEBAPI_SUBTITLE_SERVICE");
  if (program.empty()) return Fail(500, "subtitle_failed");
  std::string text;
  toolkit::Wiring wiring;
  wiring.in = toolkit::kInherit;
  const int status = toolkit::RunProgram(
      {program, "--media", name + "=" + path, "--request", Env("REQUEST_URI")}, kSubtitleTimeout,
      &text, wiring);
  if (status != 0) return Fail(404, "subtitle_not_found");
  return Answer(200, "text/vtt; charset=utf-8", text);
}

}  // namespace

int main() {
  gResponseFd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (gResponseFd < 0) return 1;
  const int devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
  const std::string logPath = Env("WEBAPI_LOG");
  const int log = logPath.empty() ? -1
                                  : open(logPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC,
                                         0644);
  if (devnull >= 0) {
    dup2(devnull, STDIN_FILENO);
    dup2(devnull, STDOUT_FILENO);
    dup2(log >= 0 ? log : devnull, STDERR_FILENO);
  }
  // The web server ends a request whose client went away with SIGTERM; the
  // request then still closes what it started.
  struct sigaction stop = {};
  stop.sa_handler = OnStop;
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);
  sigaction(SIGHUP, &stop, nullptr);

  const std::string script = Env("SCRIPT_NAME");
  const std::string endpoint = script.substr(script.rfind('/') + 1);
  const Query query = toolkit::ParseQuery(Env("QUERY_STRING"));
  const std::string method = Env("REQUEST_METHOD");
  // A page going away closes its stream with a beacon, which is a POST.
  if (method != "GET" && method != "HEAD" && !(method == "POST" && endpoint == "close")) {
    return Fail(405, "method_not_allowed");
  }
  if (endpoint == "files") return ListFiles();
  if (endpoint == "open") return OpenStream(query);
  if (endpoint == "stream") return Stream(query);
  if (endpoint == "close") return CloseStream(query);
  if (endpoint == "subtitle") return Subtitle(query);
  return Fail(404, "no_such_endpoint");
}
