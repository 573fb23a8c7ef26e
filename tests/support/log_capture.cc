#include "tests/support/log_capture.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/log.h"
#include "platform/machine_root.h"

namespace orvotest {

LogCapture::LogCapture(Source source) : source_(source) {
  if (source_ == kThisProcess) {
    librh::log::SetSinkForTesting(
        [this](int priority, const std::string& text) { lines_.push_back({priority, text}); });
    return;
  }
  file_ = librh::machine::Resolve(librh::log::kLogFile);
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(file_).parent_path(), ignored);
  std::ofstream(file_, std::ios::app).flush();
  // The monitors and transcoders of a test may run as another user.
  chmod(file_.c_str(), 0666);
  start_ = std::filesystem::file_size(file_, ignored);
}

LogCapture::~LogCapture() {
  if (source_ == kThisProcess) librh::log::SetSinkForTesting({});
}

const std::vector<LoggedLine>& LogCapture::Lines() const {
  if (source_ == kThisProcess) return lines_;
  lines_.clear();
  std::ifstream in(file_);
  in.seekg(start_);
  // "<time> <pid> <priority> <tag>:<line> <message>"
  for (std::string line, time, pid, priority, text; std::getline(in, line);) {
    std::istringstream fields(line);
    std::getline(fields >> time >> pid >> priority >> std::ws, text);
    lines_.push_back({librh::log::PriorityFromName(priority), text});
  }
  return lines_;
}

}  // namespace orvotest
