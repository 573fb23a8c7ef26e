// Small helpers shared by every stream kind: short marker files, a
// privileged existence test, string splitting, process signalling and the
// codec name table.
#pragma once

extern "C" {
#include <libavcodec/codec_id.h>
}

#include <string>
#include <vector>

namespace LibOrvoVTE {

// Whether `path` exists, tested with root rights so files in other users'
// directories are seen. retries = N makes N+1 tests, sleeping a second after
// each failed one. False for an empty path or when root rights are refused.
bool VerifyFileExist(const std::string& path, unsigned int retries);

// The content of a short text file (at most 4096 bytes, up to the first NUL);
// "" on any failure.
std::string ReadFile(const std::string& path);

// Replaces `path` with `content`. False, writing nothing, for an empty path or
// empty content.
bool SaveFile(const std::string& path, const std::string& content);

// Whether `text` holds a control character (below 0x20, NUL included, or
// DEL): what a client's value must not carry into a file name or a line.
bool HasControlCharacter(const std::string& text);

// The non-empty tokens of `text` separated by any character of `delimiters`.
std::vector<std::string> StringExplode(const std::string& text, const std::string& delimiters);

// Default-formatted text of a value (6 significant digits for float).
template <typename T>
std::string ToString(T value);
extern template std::string ToString<unsigned int>(unsigned int);
extern template std::string ToString<float>(float);

// The system's name for a codec ("mpeg2" and "flv1" where libavcodec differs),
// "" for a codec it does not know or a negative id.
std::string GetCodecName(AVCodecID id);

}  // namespace LibOrvoVTE
