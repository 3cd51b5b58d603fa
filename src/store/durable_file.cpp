#include "store/durable_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <vector>

#include "base/durable_file.h"
#include "store/random.h"

namespace quill::store {

namespace {

constexpr std::size_t kTemporaryTagLength = 12;

}  // namespace

fs::path temporaryBeside(const fs::path& target) {
  fs::path tmp = target;
  tmp += '.';
  tmp += randomString(kTemporaryTagLength);
  tmp += ".tmp";
  return tmp;
}

bool isTemporaryName(std::string_view fileName) {
  constexpr std::string_view kSuffix = ".tmp";
  if (!fileName.ends_with(kSuffix)) return false;
  fileName.remove_suffix(kSuffix.size());
  if (fileName.size() < kTemporaryTagLength + 2) return false;
  const std::string_view tag = fileName.substr(fileName.size() - kTemporaryTagLength);
  const bool alphanumeric = std::all_of(tag.begin(), tag.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  });
  return alphanumeric && fileName[fileName.size() - kTemporaryTagLength - 1] == '.';
}

bool makeDirectories(const fs::path& dir) {
  std::error_code ec;
  if (dir.empty() || fs::is_directory(dir, ec)) return true;
  // Outermost missing ancestor first, so each mkdir's parent exists.
  std::vector<fs::path> missing;
  for (fs::path p = dir; !p.empty() && !fs::exists(p, ec); p = p.parent_path()) {
    missing.push_back(p);
    if (p == p.parent_path()) break;
  }
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    if (::mkdir(it->c_str(), 0777) != 0 && errno != EEXIST) return false;
    if (!base::syncDirectory(it->parent_path())) return false;
  }
  return fs::is_directory(dir, ec);
}

}  // namespace quill::store
