// The parts of a CGI request that the web API reads: the web server's
// environment, the query (parsed by toolkit/query.h) and the Range header.
#pragma once

#include <map>
#include <string>

namespace webapi {

// The web server's environment variable `name`, "" when unset.
std::string Env(const char* name);

// Moves the client's request headers (the HTTP_* variables) out of the
// environment, so that nothing this request starts (a transcoder above all)
// inherits them; RequestHeader reads them afterwards.
void TakeRequestHeaders();
// The request header whose CGI variable is `name` ("HTTP_RANGE"), "" when
// the client sent none.
std::string RequestHeader(const std::string& name);

using Query = std::map<std::string, std::string>;
// The value of `name` in `query`, "" when absent.
std::string Key(const Query& query, const char* name);

// A single byte range of a resource `length` bytes long (RFC 7233).
struct ByteRange {
  enum Kind { kWhole, kPart, kUnsatisfiable } kind = kWhole;
  long long first = 0;
  long long last = 0;  // inclusive
};

// Resolves a Range header against `length` (0 when the length is not known:
// then only "bytes=N-" can be served, up to the end). An absent, malformed or
// multi-range header asks for the whole resource; a range that starts at or
// beyond the end is unsatisfiable.
ByteRange ResolveRange(const std::string& header, long long length);

// The body of every error answer: {"error":"<code>"} with the code escaped
// for JSON.
std::string ErrorBody(const std::string& code);

}  // namespace webapi
