#include "tests/support/log_capture.h"

#include "platform/log.h"

namespace orvotest {

LogCapture::LogCapture() {
  librh::log::SetSinkForTesting(
      [this](int priority, const std::string& text) { lines_.push_back({priority, text}); });
}

LogCapture::~LogCapture() { librh::log::SetSinkForTesting({}); }

bool LogCapture::Has(int priority, const std::string& text) const {
  for (const LoggedLine& line : lines_) {
    if (line.priority == priority && line.text == text) return true;
  }
  return false;
}

bool LogCapture::Contains(const std::string& fragment) const {
  for (const LoggedLine& line : lines_) {
    if (line.text.find(fragment) != std::string::npos) return true;
  }
  return false;
}

std::string LogCapture::Dump() const {
  std::string all;
  for (const LoggedLine& line : lines_) {
    all += std::to_string(line.priority) + " " + line.text + "\n";
  }
  return all;
}

}  // namespace orvotest
