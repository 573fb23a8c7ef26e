// The subtitle playlists' window URLs, answered by the subtitle service
// (WEBAPI_SUBTITLE_SERVICE) run for the one request.
#pragma once

#include "tools/webapi/http_request.h"

namespace webapi {

// The path the subtitle playlists point at.
inline constexpr char kSubtitlePath[] = "/api/subtitle";

// Answers with the service's WebVTT for the file the "id" key names.
int Subtitle(const Query& query);

}  // namespace webapi
