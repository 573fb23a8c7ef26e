// Metadata documents written by hand in tests: JSON text in, the library's
// metadata object out, and one canonical line to compare documents by.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>
#include <string>

#include "metadata/video_metadata.h"

namespace orvotest {

// `text` parsed; a gtest failure (and null) when it is not JSON.
inline Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  std::string errors;
  std::istringstream in(text);
  if (Json::parseFromStream(Json::CharReaderBuilder(), in, &value, &errors)) return value;
  ADD_FAILURE() << errors << " in " << text;
  return Json::Value();
}

// `value` on one line, keys sorted, integers and reals told apart (25 vs
// 25.0), strings and numbers too.
inline std::string JsonLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

// Metadata holding `document` as a probe (or another process's session
// file) would have left it; `loaded` as the object would say.
class DocumentMetaData : public LibOrvoVTE::VideoMetaData {
 public:
  explicit DocumentMetaData(const Json::Value& doc, bool isLoaded = true) {
    document = doc;
    loaded = isLoaded;
  }
  // From JSON text; "" leaves nothing loaded.
  explicit DocumentMetaData(const std::string& text)
      : DocumentMetaData(text.empty() ? Json::Value() : ParseJson(text), !text.empty()) {}
};

}  // namespace orvotest
