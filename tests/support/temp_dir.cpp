#include "support/temp_dir.h"

#include <stdlib.h>

#include <string>
#include <system_error>

namespace quill::test {

TempDir::TempDir() : TempDir(std::filesystem::temp_directory_path()) {}

TempDir::TempDir(const std::filesystem::path& parent) {
  std::string pattern = (parent / "quill-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

}  // namespace quill::test
