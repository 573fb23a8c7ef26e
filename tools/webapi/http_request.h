// The parts of a CGI request that the web API reads, as pure functions of
// the texts the web server hands over (QUERY_STRING, HTTP_RANGE).
#pragma once

#include <map>
#include <string>

namespace webapi {

// RFC 3986 percent-decoding; with `plusIsSpace` (form encoding, as browsers
// send query strings) "+" becomes a blank. A "%" not followed by two hex
// digits is kept as it is, so a malformed request still names something.
std::string PercentDecode(const std::string& text, bool plusIsSpace);

// "a=1&b=x%20y" as {a: "1", b: "x y"}. Keys and values are decoded; a key
// without "=" has the empty value; the last of repeated keys wins. A value
// may itself hold "=" (Smooth fragment names do: "Fragments(video=0)").
std::map<std::string, std::string> ParseQuery(const std::string& query);

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
