#include <iostream>

#include "metadata/video_metadata.h"
#include "tools/vtetool/command.h"
#include "vte/hls_subtitle_playlists.h"

namespace vtetool {
namespace {

// What an HLS stream opened with subtitle_id "all" would offer for the file,
// in the master playlist's order: one "<subtitle id>\t<name>" line each.
int Subtitles(const Arguments& arguments) {
  const std::string& path = arguments[0];
  LibOrvoVTE::VideoMetaData media;
  if (!media.LoadFile(path)) {
    std::cerr << "vtetool: subtitles: " << path
              << ": no such file, or not media that libavformat can analyse" << std::endl;
    return kFailed;
  }
  Json::Value tracks(Json::arrayValue);
  if (!media.GetSubtitleTrackInfo(tracks)) tracks = Json::Value(Json::arrayValue);
  std::vector<LibOrvoVTE::hls::SubtitleEntry> entries =
      LibOrvoVTE::hls::ExternalSubtitleEntries(path);
  for (const auto& entry : LibOrvoVTE::hls::InternalSubtitleEntries(media.GetContainer(), tracks)) {
    entries.push_back(entry);
  }
  for (const auto& entry : entries) std::cout << entry.first << "\t" << entry.second << "\n";
  return kOk;
}

const CommandRegistration kSubtitles({"subtitles", "<file>",
                                      "list the subtitles an HLS stream offers for a file", 1, 1,
                                      Subtitles});

}  // namespace
}  // namespace vtetool
