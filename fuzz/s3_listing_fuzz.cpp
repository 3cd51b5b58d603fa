// The listing parser on arbitrary bytes from a store: it either fails with its own message or
// returns entries that keep its promises.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "rill/transport/s3_listing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view xml(reinterpret_cast<const char*>(data), size);
  const auto page = quill::rill::parseListPage(xml);
  if (!page) {
    if (!page.error().starts_with("malformed listing: ")) std::abort();
    return 0;
  }
  for (const auto& entry : page.value().entries) {
    if (entry.size < 0) std::abort();
  }
  if (page.value().truncated && page.value().nextToken.empty()) std::abort();
  return 0;
}
