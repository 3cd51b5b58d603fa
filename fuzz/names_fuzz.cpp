// The name and path rules on arbitrary bytes from requests and manifests: a name or path they
// accept can never leave the directory it is joined to.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "rill/chunks/manifest.h"
#include "store/names.h"

namespace {

// True when `path` has an empty, "." or ".." segment, starts at the root, or holds a backslash
// or a NUL: what no accepted path may contain.
bool escapes(std::string_view path) {
  if (path.empty() || path.front() == '/' || path.find('\\') != std::string_view::npos ||
      path.find('\0') != std::string_view::npos) {
    return true;
  }
  std::size_t start = 0;
  while (start <= path.size()) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string_view segment = path.substr(start, end - start);
    if (segment.empty() || segment == "." || segment == "..") return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (quill::store::isValidName(text) &&
      (text.size() > 128 || text.find('/') != std::string_view::npos || escapes(text))) {
    std::abort();
  }
  if (quill::store::isSafeRelativePath(text) && escapes(text)) std::abort();
  if (quill::rill::isSafeManifestPath(text) && escapes(text)) std::abort();
  return 0;
}
