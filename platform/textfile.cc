
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/olibc.h"
#include "platform/whole_file.h"

namespace {

// Configuration files here are a few kilobytes; a bound keeps a wrong path
// (a device, a huge log) from being read whole.
constexpr size_t kMaxFileBytes = 1 << 20;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string Trim(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && IsBlank(text[begin])) ++begin;
  while (end > begin && IsBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

// A value written as "..." loses its quotes; anything after the closing quote
// (usually a trailing comment) is not part of it.
std::string Unquote(const std::string& value) {
  if (value.empty() || value[0] != '"') return value;
  size_t close = value.find('"', 1);
  if (close == std::string::npos) return value.substr(1);
  return value.substr(1, close - 1);
}

// Looks `key` up in the text of a key=value file. False when no line has it.
bool FindValue(const std::string& text, const std::string& key, std::string* value) {
  size_t pos = 0;
  while (pos < text.size()) {
    size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    std::string line = Trim(text.substr(pos, eol - pos));
    pos = eol + 1;
    if (line.empty() || line[0] == '#') continue;
    size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    if (Trim(line.substr(0, equals)) != key) continue;
    *value = Unquote(Trim(line.substr(equals + 1)));
    // Callers get the value as a C string: it ends at a NUL in the file.
    value->resize(std::min(value->size(), value->find('\0')));
    return true;
  }
  return false;
}

// -1 (error slot and errno set) when the file cannot be read; otherwise 1
// when the key is present, 0 when it is not.
int LookUp(const char* file, const char* key, std::string* value) {
  if (file == nullptr || key == nullptr || key[0] == '\0') {
    errno = EINVAL;
    OLIBCErrSet(EINVAL);
    return -1;
  }
  std::string content;
  if (!librh::ReadWholeFile(file, &content, kMaxFileBytes)) {
    OLIBCErrSet(errno);
    return -1;
  }
  return FindValue(content, key, value) ? 1 : 0;
}

}  // namespace

int OLIBCFileGetKeyValue(const char* file, const char* key, char* value, int size, int flags) {
  if (value == nullptr || size < 1) {
    errno = EINVAL;
    OLIBCErrSet(EINVAL);
    return -1;
  }
  value[0] = '\0';
  std::string found;
  int looked = LookUp(file, key, &found);
  if (looked <= 0) return looked;
  size_t length = std::min(found.size(), static_cast<size_t>(size) - 1);
  memcpy(value, found.data(), length);
  value[length] = '\0';
  return static_cast<int>(length);
}

int OLIBCFileCheckKeyValue(const char* file, const char* key, const char* value, int flags) {
  if (value == nullptr) {
    errno = EINVAL;
    OLIBCErrSet(EINVAL);
    return -1;
  }
  std::string found;
  int looked = LookUp(file, key, &found);
  if (looked <= 0) return looked;
  return found == value ? 1 : 0;
}

int OLIBCReadPidFile(const char* path) {
  std::string content;
  if (path == nullptr || !librh::ReadWholeFile(path, &content, kMaxFileBytes)) {
    OLIBCErrSet(path == nullptr ? EINVAL : errno);
    return -1;
  }
  std::string text = Trim(content.substr(0, content.find('\n')));
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) {
    return -1;
  }
  int pid = std::stoi(text);
  return pid > 0 ? pid : -1;
}
