#include "tools/webapi/streams.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <cerrno>
#include <fstream>
#include <map>

#include "tools/webapi/http_request.h"
#include "tools/webapi/response.h"
#include "toolkit/files.h"

namespace webapi {
namespace {

constexpr char kFailureFile[] = "webapi_failure";

}  // namespace

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

std::unique_ptr<LibOrvoVTE::DirectStream> Progressive(const std::string& type,
                                                      const std::string& id) {
  if (type == "HTTP") return std::make_unique<LibOrvoVTE::HttpStream>(id);
  return std::make_unique<LibOrvoVTE::WebMStream>(id);
}

std::string RandomStreamId() {
  unsigned char bytes[16];
  size_t got = 0;
  while (got < sizeof(bytes)) {
    const ssize_t n = getrandom(bytes + got, sizeof(bytes) - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return "";
    got += static_cast<size_t>(n);
  }
  static const char kDigits[] = "0123456789abcdef";
  std::string id;
  for (unsigned char byte : bytes) {
    id += kDigits[byte >> 4];
    id += kDigits[byte & 15];
  }
  return id;
}

bool SessionExists(const LibOrvoVTE::VTEStream& stream) {
  struct stat info;
  return !stream.GetStreamID().empty() && stat(stream.GetVTEFileFullPath("").c_str(), &info) == 0 &&
         S_ISDIR(info.st_mode);
}

void TouchAccess(const LibOrvoVTE::VTEStream& stream) {
  if (!SessionExists(stream)) return;
  const std::string path = stream.GetVTEFileFullPath("access_status");
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return;
  futimens(fd, nullptr);
  close(fd);
}

int FailOpen(const std::string& code) {
  if (code == LibOrvoVTE::kErrTransEnable || code == LibOrvoVTE::kErrOfflineConverting) {
    return Fail(503, code);
  }
  if (code == LibOrvoVTE::kTransSpaceNotEnough) return Fail(507, code);
  if (code == kTranscoderExited) return Fail(502, code);
  if (code == kTranscoderSilent) return Fail(504, code);
  // The library's refusals of the file on this machine all begin so.
  if (code.compare(0, 5, "Trans") == 0) return Fail(415, code);
  return Fail(500, code.empty() ? "init_failed" : code);
}

void NoteFailure(const LibOrvoVTE::VTEStream& stream, const std::string& code) {
  std::ofstream(stream.GetVTEFileFullPath(kFailureFile), std::ios::trunc) << code;
}

int AnswerLastFailure(const LibOrvoVTE::VTEStream& stream) {
  Json::Value body(Json::objectValue);
  const std::string code = toolkit::ReadWholeFile(stream.GetVTEFileFullPath(kFailureFile));
  if (!code.empty()) body["error"] = code;
  return AnswerJson(body);
}

}  // namespace webapi
