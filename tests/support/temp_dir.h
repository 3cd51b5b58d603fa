#pragma once
// A fresh directory under the system temporary directory, removed with everything in it.

#include <filesystem>

namespace quill::test {

class TempDir {
 public:
  TempDir();
  // A fresh directory in `parent` instead (for example on another file system); the path is empty
  // when it could not be made.
  explicit TempDir(const std::filesystem::path& parent);
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace quill::test
