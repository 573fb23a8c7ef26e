// Reading the members of a probed track (one object of the metadata's
// track lists), shared by both halves of ArgumentHelper. Not installed.
#pragma once

#include <json/json.h>

#include <string>

namespace LibOrvoVTE {
namespace track_members {

// The text of a scalar member, "" when the track is no object or the member
// is missing or not a scalar. Ids are stored as text by some probes and as
// numbers by others; as text they compare alike.
inline std::string MemberText(const Json::Value& track, const char* key) {
  if (!track.isObject() || !track.isMember(key)) return "";
  const Json::Value& value = track[key];
  if (value.isArray() || value.isObject()) return "";
  return value.asString();
}

}  // namespace track_members
}  // namespace LibOrvoVTE
