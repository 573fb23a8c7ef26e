// An unlinked temporary file through which a child process hands its
// parent a text. Unlike a pipe it has no end to wait for, so the processes
// the child starts (monitors, transcoders) cannot hold the answer back, and
// it is gone with its last descriptor.
#pragma once

#include <string>

namespace toolkit {

class AnswerFile {
 public:
  // A file in `directory` ("" for the system's temporary directory).
  explicit AnswerFile(const std::string& directory = "");
  ~AnswerFile();
  AnswerFile(const AnswerFile&) = delete;
  AnswerFile& operator=(const AnswerFile&) = delete;

  // Replaces the content; in the child.
  bool Write(const std::string& text) const;
  // The content; in the parent, once the child has ended.
  std::string Read() const;

 private:
  int fd_ = -1;
};

}  // namespace toolkit
