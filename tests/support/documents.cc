#include "tests/support/documents.h"

#include <gtest/gtest.h>

#include <memory>

namespace orvotest {

Json::Value ParseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    ADD_FAILURE() << errors << " in " << text;
    return Json::Value();
  }
  return value;
}

std::string JsonLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

}  // namespace orvotest
