#include "vte/utils/md5.h"

#include <openssl/md5.h>
#include <stdio.h>

#include "platform/log.h"

namespace LibReelhall {
namespace {

constexpr char kLogTag[] = "md5";

}  // namespace

std::string GetMD5(const std::string& data) {
  unsigned char digest[MD5_DIGEST_LENGTH];
  // The one-shot MD5() is deprecated in OpenSSL 3 but still shipped; the
  // digest it makes is what stream ids and cached names were built from.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  MD5(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest);
#pragma GCC diagnostic pop
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * MD5_DIGEST_LENGTH);
  for (unsigned char byte : digest) {
    hex += kHex[byte >> 4];
    hex += kHex[byte & 0x0f];
  }
  return hex;
}

std::string GetFileMD5(const std::string& path) {
  FILE* file = fopen(path.c_str(), "re");
  if (file == nullptr) {
    librh::log::Write(LOG_ERR, kLogTag, 22, "failed to open file");
    return "";
  }
  std::string content;
  char chunk[8192];
  size_t count;
  while ((count = fread(chunk, 1, sizeof(chunk), file)) > 0) content.append(chunk, count);
  const bool failed = ferror(file) != 0;
  fclose(file);
  if (failed) {
    librh::log::Write(LOG_ERR, kLogTag, 30, "failed to read content");
    return "";
  }
  return GetMD5(content);
}

}  // namespace LibReelhall
