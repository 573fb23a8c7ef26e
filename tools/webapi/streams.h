// The library's streams as the web API names, opens and keeps them.
#pragma once

#include <memory>
#include <string>

#include "vte/http_stream.h"
#include "vte/liborvovte.h"

namespace webapi {

// The path the stream URLs point at.
inline constexpr char kStreamPath[] = "/api/stream";

// "HLS", "SS", "HTTP" or "WEBM" for the client's "hls", "ss", "http",
// "webm"; "" for anything else.
std::string StreamType(const std::string& format);

// The profile file of `type` in WEBAPI_PROFILE_DIR, and the profile taken
// when the client names none.
std::string ProfileFile(const std::string& type);
std::string DefaultProfile(const std::string& type);

// The progressive stream class of `type` ("HTTP" or "WEBM") for `id`.
std::unique_ptr<LibOrvoVTE::DirectStream> Progressive(const std::string& type,
                                                      const std::string& id);

// 32 hex digits from the kernel's random source; "" when it gives none.
std::string RandomStreamId();

// Whether the session of `stream` exists.
bool SessionExists(const LibOrvoVTE::VTEStream& stream);

// A client request keeps the session alive: the monitors end a stream that
// no request has touched for a while.
void TouchAccess(const LibOrvoVTE::VTEStream& stream);

// The web API's own codes for a transcoder that ended, or stayed silent,
// before its first bytes.
inline constexpr char kTranscoderExited[] = "transcoder_exited";
inline constexpr char kTranscoderSilent[] = "transcoder_silent";

// Answers a stream that could not be opened or started, with the library's
// or the web API's error code ("" when there was none).
int FailOpen(const std::string& code);

// A player sees a failed response only as a network or media error, never
// its body: the code is noted in the session, and "last_error=1" asks for
// it afterwards (answered by AnswerLastFailure).
void NoteFailure(const LibOrvoVTE::VTEStream& stream, const std::string& code);
int AnswerLastFailure(const LibOrvoVTE::VTEStream& stream);

}  // namespace webapi
