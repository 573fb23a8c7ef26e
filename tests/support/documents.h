// Metadata documents written by hand in tests.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "metadata/video_metadata.h"

namespace orvotest {

// Null, and a gtest failure, when `text` is not JSON.
inline Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  if (Json::Reader().parse(text, value)) return value;
  ADD_FAILURE() << "not JSON: " << text;
  return Json::Value();
}

// One line with keys sorted that tells 25 from 25.0 and "25".
inline std::string JsonLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

// Metadata holding `doc` as a probe or another process's session file left
// it; from JSON text, "" leaves nothing loaded.
class DocumentMetaData : public LibOrvoVTE::VideoMetaData {
 public:
  explicit DocumentMetaData(const Json::Value& doc, bool isLoaded = true) {
    document = doc;
    loaded = isLoaded;
  }
  explicit DocumentMetaData(const std::string& text)
      : DocumentMetaData(text.empty() ? Json::Value() : ParseJson(text), !text.empty()) {}
};

}  // namespace orvotest
