#include "toolkit/answer_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

namespace toolkit {

AnswerFile::AnswerFile(const std::string& directory) {
  std::error_code unset;
  std::filesystem::path dir = directory;
  if (dir.empty()) dir = std::filesystem::temp_directory_path(unset);
  if (dir.empty()) dir = "/tmp";
  std::string name = (dir / "answer-XXXXXX").string();
  fd_ = mkostemp(name.data(), O_CLOEXEC);
  if (fd_ >= 0) unlink(name.c_str());
}

AnswerFile::~AnswerFile() {
  if (fd_ >= 0) close(fd_);
}

bool AnswerFile::Write(const std::string& text) const {
  if (fd_ < 0 || ftruncate(fd_, 0) != 0) return false;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t wrote = pwrite(fd_, text.data() + done, text.size() - done, done);
    if (wrote <= 0) return false;
    done += static_cast<size_t>(wrote);
  }
  return true;
}

std::string AnswerFile::Read() const {
  std::string text;
  char chunk[4096];
  ssize_t got;
  for (off_t at = 0; fd_ >= 0 && (got = pread(fd_, chunk, sizeof(chunk), at)) > 0; at += got) {
    text.append(chunk, static_cast<size_t>(got));
  }
  return text;
}

}  // namespace toolkit
