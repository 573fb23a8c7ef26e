#include "tools/webapi/endpoints.h"

#include <sys/stat.h>

#include <cstdio>

#include <json/json.h>

#include <memory>

#include "metadata/vtemetadata.h"
#include "tools/webapi/media_folder.h"
#include "tools/webapi/progressive_relay.h"
#include "tools/webapi/response.h"
#include "tools/webapi/streams.h"
#include "tools/webapi/subtitle_proxy.h"
#include "vte/http_live_stream.h"
#include "vte/smooth_stream.h"
#include "vte/utils/vteutils.h"

namespace webapi {
namespace {

using LibOrvoVTE::VTEStream;

constexpr char kDefaultDevice[] = "browser";
constexpr size_t kBrokenSegmentBytes = 188 * 16;

// A seek or a restart the library refused: its code reaches the client, the
// page and the log.
int FailStart(const char* type, const VTEStream& stream) {
  const std::string refusal = stream.GetErrorString();
  const std::string code = refusal.empty() ? "transcoding_failed" : refusal;
  fprintf(stderr, "webapi: %s stream %s: transcoding refused: %s\n", type,
          stream.GetStreamID().c_str(), code.c_str());
  NoteFailure(stream, code);
  return FailOpen(code);
}

// A fragment that did not come: its run ended without it (the transcoder
// failed), or it is still on its way.
int FailFragment(const VTEStream& stream) {
  if (stream.IsFFmpegRun()) return Fail(504, "fragment_not_ready");
  fprintf(stderr, "webapi: stream %s: the transcoder ended without the fragment asked for\n",
          stream.GetStreamID().c_str());
  NoteFailure(stream, kTranscoderExited);
  return Fail(502, kTranscoderExited);
}

int StreamHls(const std::string& id, const Query& query) {
  LibOrvoVTE::HttpLiveStream stream(id);
  if (!SessionExists(stream)) return Fail(404, "stream_not_found");
  TouchAccess(stream);
  if (Key(query, "last_error") == "1") return AnswerLastFailure(stream);
  const std::string fragment = Key(query, "fragment_id");
  if (fragment.empty()) {
    const std::string playlist =
        stream.GetMainfest(Key(query, "playlist_type"), Key(query, "subtitle_id"));
    if (playlist.empty()) return Fail(404, "playlist_not_found");
    return SendFile(playlist, "application/vnd.apple.mpegurl");
  }
  if (Key(query, "hls_header") == "1") stream.EnableHLSHeader();
  if (!stream.Transcoding(fragment)) return FailStart("HLS", stream);
  const std::string segment = stream.ReadFragment(fragment);
  if (segment.empty()) return FailFragment(stream);
  return SendFile(segment, "video/mp2t",
                  Env("WEBAPI_BREAK_SEGMENTS") == "1" ? kBrokenSegmentBytes : 0);
}

int StreamSmooth(const std::string& id, const Query& query) {
  LibOrvoVTE::SmoothStream stream(id);
  if (!SessionExists(stream)) return Fail(404, "stream_not_found");
  TouchAccess(stream);
  if (Key(query, "last_error") == "1") return AnswerLastFailure(stream);
  const std::string fragment = Key(query, "fragment_id");
  if (fragment.empty()) return SendFile(stream.GetMainfest(), "text/xml");
  if (!stream.Transcoding(fragment)) return FailStart("SS", stream);
  // Once its run has ended, the library names what exists as all there is.
  const std::string file = stream.ReadFragment(fragment);
  struct stat info;
  if (file.empty() || stat(file.c_str(), &info) != 0) return FailFragment(stream);
  return SendFile(file, "video/mp4");
}

}  // namespace

int ListFiles() {
  Json::Value files(Json::arrayValue);
  for (const std::string& name : PlayableFiles()) files.append(name);
  Json::Value body;
  body["files"] = files;
  return AnswerJson(body);
}

int OpenStream(const Query& query) {
  const std::string format = Key(query, "type");
  const std::string type = StreamType(format);
  if (type.empty()) return Fail(400, "unknown_type");
  const std::string path = MediaPath(Key(query, "file"));
  if (path.empty()) return Fail(400, "bad_file_name");
  // Looked for as the library looks, with root rights: media may belong to
  // any user, and the request runs as the web server's.
  if (!LibOrvoVTE::VerifyFileExist(path, 0)) return Fail(404, "file_not_found");
  const std::string profile =
      Key(query, "profile").empty() ? DefaultProfile(type) : Key(query, "profile");
  const std::string device = Key(query, "device").empty() ? kDefaultDevice : Key(query, "device");

  // An id of the web API's own that nobody can guess from the file or the
  // time.
  Json::Value session;
  session["stream_id"] = RandomStreamId();
  if (session["stream_id"].asString().empty()) return Fail(500, "no_random_source");
  const std::string id =
      VTEStream::VTE_Init(path, type, session, ProfileFile(type), profile, device, 0);
  if (id.empty()) return Fail(422, "open_failed");
  if (id == LibOrvoVTE::kTransSpaceNotEnough) return Fail(507, id);

  const std::string audio = Key(query, "audio");
  Json::Value params;
  params["url"] = kStreamPath;
  params["format"] = format;
  if (Key(query, "hls_header") == "1") params["hls_header"] = true;
  Json::Value body;
  body["id"] = id;
  if (type == "HLS") {
    LibOrvoVTE::HttpLiveStream stream(id);
    Json::Value subtitles;
    if (!Key(query, "subtitle").empty()) {
      subtitles["url"] = kSubtitlePath;
      subtitles["id"] = Key(query, "file");
      subtitles["subtitle_id"] = Key(query, "subtitle");
    }
    if (!stream.Init(params, subtitles, audio, Key(query, "audio_format"))) {
      return FailOpen(stream.GetErrorString());
    }
    body["url"] = stream.GetStreamURL(params);
  } else if (type == "SS") {
    LibOrvoVTE::SmoothStream stream(id);
    if (!stream.Init(params, Json::Value(), audio, "")) return FailOpen(stream.GetErrorString());
    // The manifest's form of the URL is XML-escaped; the client gets it plain.
    std::string url = stream.GetStreamURL(params);
    for (size_t at = url.find("&amp;"); at != std::string::npos; at = url.find("&amp;", at + 1)) {
      url.replace(at, 5, "&");
    }
    body["url"] = url;
  } else {
    std::string code;
    if (!CheckAnchor(type, id, audio, &code)) return FailOpen(code);
    body["url"] = std::string(kStreamPath) + "?format=" + format + "&id=" + id +
                  (audio.empty() ? "" : "&audio=" + audio);
    // A player seeks a progressive stream itself: it needs the length of the
    // whole and, for a byte range, the rate the library turns bytes into
    // seconds by.
    LibOrvoVTE::VTEMetaData source(id, type);
    if (source.LoadMetaData()) body["duration"] = source.GetDuration();
    if (type == "HTTP") body["bytes_per_second"] = LibOrvoVTE::HttpStream(id).GetTransBitRate() / 8;
  }
  return AnswerJson(body);
}

int Stream(const Query& query) {
  const std::string type = StreamType(Key(query, "format"));
  const std::string id = Key(query, "id");
  if (type.empty() || id.empty()) return Fail(400, "bad_request");
  if (type == "HLS") return StreamHls(id, query);
  if (type == "SS") return StreamSmooth(id, query);
  return StreamProgressive(type, id, query);
}

int CloseStream(const Query& query) {
  const std::string type = StreamType(Key(query, "format"));
  const std::string id = Key(query, "id");
  if (type.empty() || id.empty()) return Fail(400, "bad_request");
  bool closed = false;
  if (type == "HLS") {
    LibOrvoVTE::HttpLiveStream stream(id);
    closed = SessionExists(stream) && stream.Close();
  } else if (type == "SS") {
    LibOrvoVTE::SmoothStream stream(id);
    closed = SessionExists(stream) && stream.Close();
  } else {
    CloseRuns(type, id);
    const std::unique_ptr<LibOrvoVTE::DirectStream> stream = Progressive(type, id);
    closed = SessionExists(*stream) && stream->Close();
  }
  if (!closed) return Fail(404, "stream_not_found");
  Json::Value body;
  body["closed"] = id;
  return AnswerJson(body);
}

}  // namespace webapi
