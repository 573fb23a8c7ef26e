#include "subtitle/subtitle.h"

#include <glob.h>
#include <unistd.h>

#include <cstring>

#include "platform/run_as.h"

namespace librh {
namespace subtitle {
namespace {

constexpr char kLogTag[] = "subtitle";
// Operators match the privilege failure lines on this line number.
constexpr int kRunAsLogLine = 112;

// The order decides which file a client sees first: SubRip is the format
// players handle best, so it leads.
constexpr const char* kSubtitlePatterns[] = {
    "*.[sS][rR][tT]", "*.[sS][sS][aA]", "*.[aA][sS][sS]", "*.[sS][mM][iI]", "*.[sS][aA][mM][iI]",
};

// Containers whose demuxers hand text tracks over with usable timing.
constexpr const char* kEmbeddedSubtitleContainers[] = {
    "matroska,webm",
    "mov,mp4,m4a,3gp,3g2,mj2",
};

// Image subtitles (PGS, VobSub) cannot become WebVTT text.
constexpr const char* kTextSubtitleCodecs[] = {"subrip", "ssa", "ass", "mov_text"};

template <size_t N>
bool IsOneOf(const std::string& word, const char* const (&list)[N]) {
  for (const char* entry : list) {
    if (word == entry) return true;
  }
  return false;
}

}  // namespace

Json::Value PathInfo(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t dot = path.rfind('.');
  const size_t dot2 = (dot == std::string::npos || dot == 0) ? std::string::npos
                                                               : path.rfind('.', dot - 1);
  const bool hasSlash = slash != std::string::npos;

  Json::Value info(Json::objectValue);
  info["dirname"] = hasSlash ? path.substr(0, slash) : path;
  info["basename"] = hasSlash ? path.substr(slash + 1) : path;
  info["extension"] = "";
  info["language"] = "";
  // Without a slash there is no known start of the base name, so no dot can
  // be told apart from one in a directory name: such paths get no extension.
  const bool hasExtension = dot != std::string::npos && hasSlash && slash < dot;
  if (hasExtension) {
    info["extension"] = path.substr(dot + 1);
    if (dot2 != std::string::npos && slash < dot2) {
      info["language"] = path.substr(dot2 + 1, dot - dot2 - 1);
    }
  }
  info["filename"] = hasExtension ? path.substr(slash + 1, dot - slash - 1) : info["basename"];
  return info;
}

int GetExternalSubtitleImp(const std::string& videoPath, Json::Value& out) {
  if (videoPath.empty()) return -1;
  const Json::Value info = PathInfo(videoPath);
  const std::string dirname = info["dirname"].asString();
  // glob then yields bare names to compare with the prefix. A failure is not
  // fatal: the names found must still begin with the video's file name.
  if (chdir(dirname.c_str()) != 0) {
  }
  const std::string prefix = info["filename"].asString() + ".";

  for (const char* pattern : kSubtitlePatterns) {
    glob_t found;
    memset(&found, 0, sizeof(found));
    if (glob(pattern, GLOB_NOESCAPE, nullptr, &found) == 0) {
      for (size_t i = 0; i < found.gl_pathc; ++i) {
        const char* name = found.gl_pathv[i];
        // Movie2.srt belongs to another video than Movie.mkv.
        if (strncmp(name, prefix.c_str(), prefix.size()) != 0) continue;
        if (access(name, R_OK) != 0) continue;
        out.append(dirname + "/" + name);
      }
    }
    globfree(&found);
  }
  return 0;
}

int GetExternalSubtitle(const std::string& videoPath, Json::Value& out) {
  // RunAs logs a refused switch and a failed restore itself, at the levels
  // and with the line operators know.
  RunAs asRoot(0, 0, kLogTag, kRunAsLogLine);
  if (!asRoot) return -1;
  return GetExternalSubtitleImp(videoPath, out);
}

bool IsAllowEmbaddedSubtitleContiner(const std::string& container) {
  return IsOneOf(container, kEmbeddedSubtitleContainers);
}

bool IsTextBaseSubtitleCodec(const std::string& codec) {
  return IsOneOf(codec, kTextSubtitleCodecs);
}

}  // namespace subtitle
}  // namespace librh
