#pragma once
// A fresh directory under the system temporary directory (or under `parent`, for example on
// another file system), removed with everything in it. The path is empty when it could not be made.

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace quill::test {

class TempDir {
 public:
  explicit TempDir(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string pattern = (parent / "quill-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace quill::test
