// Query strings as browsers and players send them.
#pragma once

#include <map>
#include <string>

namespace toolkit {

// RFC 3986 percent-decoding; with `plusIsSpace` (form encoding, as browsers
// send query strings) "+" becomes a blank. A "%" not followed by two hex
// digits is kept as it is, so a malformed request still names something.
std::string PercentDecode(const std::string& text, bool plusIsSpace);

// "a=1&b=x%20y" as {a: "1", b: "x y"}. Keys and values are decoded (form
// encoding); a key without "=" has the empty value; the last of repeated
// keys wins. A value may itself hold "=" (Smooth fragment names do:
// "Fragments(video=0)").
std::map<std::string, std::string> ParseQuery(const std::string& query);

}  // namespace toolkit
