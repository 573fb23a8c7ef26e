// Plays the media server's subtitle service for the demo and the reference
// web API: it answers the URLs of an HLS stream's subtitle playlists with
// WebVTT for the requested time window, converted with ffmpeg from a subtitle
// file beside the video or from a text track embedded in it. It is the
// caller's side of subtitles; the engine only writes the playlists.
//
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
// It prints the WebVTT and exits 0, or says why on stderr and exits 1. Bad
// usage exits 2.
extern "C" {
#include <libavutil/log.h>
}

#include <stdio.h>
#include <stdlib.h>

#include <cctype>
#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "metadata/video_metadata.h"
#include "subtitle/subtitle.h"
#include "toolkit/child_process.h"
#include "toolkit/query.h"

namespace {

constexpr int kOk = 0;
constexpr int kRefused = 1;
constexpr int kUsage = 2;
constexpr char kProgram[] = "subtitle-service";

// A conversion of a whole subtitle file takes well under a second; a stuck
// ffmpeg must not hold the request for ever.
constexpr std::chrono::seconds kConversionTimeout{60};

struct Options {
  std::map<std::string, std::string> media;
  std::string ffmpeg = "ffmpeg";
  std::string target;  // --request
};

struct Response {
  int status;
  std::string body;
};

int Usage() {
  fprintf(stderr,
          "usage: %s [--media ID=PATH]... [--ffmpeg PROGRAM] --request TARGET\n"
          "\n"
          "Answers subtitle playlist URLs (\"<path>?id=ID&subtitle_id=...&output_webvtt=true\n"
          "&webvtt_start_time=S&webvtt_end_time=E\") with WebVTT cues of that window,\n"
          "from a subtitle file beside video ID or one of its embedded text tracks.\n"
          "\n"
          "  --media ID=PATH    the video that the id ID names (repeatable)\n"
          "  --ffmpeg PROGRAM   the ffmpeg to convert with (default: ffmpeg in PATH)\n"
          "  --request TARGET   print the answer to one request target and exit\n",
          kProgram);
  return kUsage;
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (i + 1 >= argc) return false;
    const std::string value = argv[++i];
    if (word == "--media") {
      const size_t equals = value.find('=');
      if (equals == 0 || equals == std::string::npos || equals + 1 == value.size()) return false;
      options.media[value.substr(0, equals)] = value.substr(equals + 1);
    } else if (word == "--ffmpeg") {
      options.ffmpeg = value;
    } else if (word == "--request") {
      options.target = value;
    } else {
      return false;
    }
  }
  return !options.target.empty();
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
  return toolkit::RunProgram(words, kConversionTimeout, &webvtt) == 0;
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
  const size_t mark = target.find('?');
  std::map<std::string, std::string> query =
      toolkit::ParseQuery(mark == std::string::npos ? "" : target.substr(mark + 1));
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
    default: return "Internal Server Error";
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) return Usage();
  // libavformat's notes on a video's other tracks would bury the one line
  // that says why a request was refused.
  av_log_set_level(AV_LOG_ERROR);
  const Response response = Answer(options, options.target);
  if (response.status != 200) {
    fprintf(stderr, "%s: %d %s: %s", kProgram, response.status, Reason(response.status),
            response.body.c_str());
    return kRefused;
  }
  const bool written =
      fwrite(response.body.data(), 1, response.body.size(), stdout) == response.body.size();
  return fflush(stdout) == 0 && written ? kOk : kRefused;
}
