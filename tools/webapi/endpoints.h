// The web API's endpoints other than the subtitle proxy (docs/webapi.md).
#pragma once

#include "tools/webapi/http_request.h"

namespace webapi {

// files: the playable files of the media folder.
int ListFiles();
// open: creates and opens a stream; {"id","url"} or {"error"}.
int OpenStream(const Query& query);
// stream: playlists, manifests, segments, fragments and progressive bytes.
int Stream(const Query& query);
// close: ends a stream and whatever it still runs.
int CloseStream(const Query& query);

}  // namespace webapi
