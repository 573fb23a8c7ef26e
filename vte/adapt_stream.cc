#include "vte/adapt_stream.h"

#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <exception>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "vte/session_tree.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

using librh::machine::kFindProgram;
using librh::machine::kRemoveProgram;

constexpr char kAccessStatusFile[] = "access_status";

// The URL goes verbatim into the Smooth manifest, which is XML.
constexpr char kSmoothFormat[] = "SS";
constexpr char kHlsFormat[] = "HLS";

// `params[key]` when `params` is an object holding `key`; null otherwise, so
// a caller never indexes a value of the wrong kind (jsoncpp would throw).
const Json::Value* Member(const Json::Value& params, const char* key) {
  if (!params.isObject()) return nullptr;
  return params.find(key, key + strlen(key));
}

const Json::Value* StringMember(const Json::Value& params, const char* key) {
  const Json::Value* value = Member(params, key);
  return value != nullptr && value->isString() ? value : nullptr;
}

std::string NonEmptyString(const Json::Value& params, const char* key) {
  const Json::Value* value = StringMember(params, key);
  return value != nullptr ? value->asString() : "";
}

}  // namespace

AdaptStream::AdaptStream(const std::string& streamId, const std::string& format)
    : VTEStream(streamId, format) {}

AdaptStream::~AdaptStream() = default;

bool AdaptStream::Close() { return CloseStreamCommon(); }

bool AdaptStream::InitAdaptStream(const Json::Value& params, const std::string& audioId) {
  try {
    const Json::Value* force = Member(params, "force_open_vte");
    const bool forceOpen = force != nullptr && force->isBool() && force->asBool();
    if (!InitStreamCommon(audioId, forceOpen)) return false;
    return !NonEmptyString(params, "url").empty();
  } catch (const std::exception&) {
    return false;
  }
}

std::string AdaptStream::GetStreamURL(const Json::Value& params) const {
  try {
    const std::string url = NonEmptyString(params, "url");
    const std::string format = NonEmptyString(params, "format");
    if (url.empty() || format.empty() || type_.empty() || streamId_.empty()) return "";

    const std::string separator = type_ == kSmoothFormat ? "&amp;" : "&";
    std::string text = url + "?format=" + format + separator + "id=" + streamId_;
    const auto appendString = [&](const char* key) {
      if (const Json::Value* value = StringMember(params, key)) {
        text += separator + key + "=" + value->asString();
      }
    };
    appendString("api");
    const Json::Value* version = Member(params, "version");
    const std::string versionText = version ? LibReelhall::IntegerText(*version) : "";
    if (!versionText.empty()) text += separator + "version=" + versionText;
    appendString("method");
    const Json::Value* header = Member(params, "hls_header");
    if (header != nullptr && header->isBool() && header->asBool()) {
      text += separator + "hls_header=1";
    }
    appendString("token");
    appendString("_sid");
    appendString("OrvoToken");
    appendString("sharing_id");
    // A line break or other control character in a client's value would end
    // the playlist or manifest line early and smuggle in lines of its own.
    return HasControlCharacter(text) ? "" : text;
  } catch (const std::exception&) {
    return "";
  }
}

bool AdaptStream::SeekingHandler() const {
  if (streamId_.empty() || type_.empty()) return false;
  SaveMonitorPid(0, true);
  // The volume directory itself, found the checked way: find then follows
  // no link, neither the session's nor one planted among its files.
  const session::Entry entry = session::Inspect(type_, streamId_);
  if (!session::Usable(entry) || entry.dir.empty()) return false;
  const char* pattern = type_ == kHlsFormat ? "slice*" : "smooth";
  // -prune: find must not descend into a directory it has just removed,
  // which it would report as a failure.
  const char* const argv[] = {kFindProgram, entry.dir.c_str(), "-name", pattern,      "-prune",
                              "-exec",      kRemoveProgram,    "-rf",   "{}",         ";",
                              nullptr};
  return OLIBCExecv(kFindProgram, argv, 1) == 0;
}

bool AdaptStream::IsClosed() const {
  const session::Entry entry = session::Inspect(type_, streamId_);
  return entry.kind != session::Entry::kMade || entry.dir.empty();
}

bool AdaptStream::VTEIsTimeout(unsigned long seconds) const {
  if (streamId_.empty()) return false;
  struct stat info;
  if (stat(GetVTEFileFullPath(kAccessStatusFile).c_str(), &info) != 0) return false;
  const long long idle = static_cast<long long>(time(nullptr)) - info.st_mtime;
  return idle >= 0 && static_cast<unsigned long long>(idle) >= seconds;
}

}  // namespace LibOrvoVTE
