#pragma once
// A file without a name, for bytes written once and then read back, such as an answer too large
// to keep in memory: it disappears with its last descriptor, also when the process dies.

#include <filesystem>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace quill::store {

namespace fs = std::filesystem;

class ScratchFile {
 public:
  // Opens the file in `dir` (which must exist); see ok().
  explicit ScratchFile(const fs::path& dir);
  // Closes the file unless it was released.
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  // False when the file could not be opened or a write failed; every later write then fails.
  bool ok() const { return fd_.valid() && !failed_; }
  // Appends `bytes` (buffered).
  bool write(std::string_view bytes);
  // Writes out what is buffered.
  bool flush();
  // The descriptor, now the caller's (after a successful flush, it holds every byte written);
  // -1 when the file is not ok().
  int release();

 private:
  base::UniqueFd fd_;
  bool failed_ = false;
  std::string buffer_;
};

}  // namespace quill::store
