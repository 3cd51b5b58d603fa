// The manifest reader on arbitrary bytes from a store: it fails with its own messages or returns a
// manifest that keeps the promises a pull relies on (sizes bounded by the chunker, chunks adding up
// to each file), and what it returns reads back the same after writing it out.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "rill/chunks/manifest.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quill::rill;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto manifest = parseManifest(text);
  if (!manifest) {
    if (!manifest.error().starts_with("manifest parse error: ") &&
        manifest.error() != "unsupported manifest schema") {
      std::abort();
    }
    return 0;
  }
  const Manifest& m = manifest.value();
  if (m.chunker.min < kMinChunkerSize || m.chunker.max > kMaxChunkerSize ||
      m.chunker.min > m.chunker.avg || m.chunker.avg > m.chunker.max) {
    std::abort();
  }
  for (const ScannedFile& file : m.tree.files) {
    std::uint64_t covered = 0;
    for (const ChunkRef& chunk : file.chunks) {
      if (chunk.n == 0 || chunk.n > m.chunker.max) std::abort();
      covered += chunk.n;
    }
    if (covered != file.size) std::abort();
  }
  const auto again = parseManifest(serializeManifest(m));
  if (!again || again.value().tree.files != m.tree.files) std::abort();
  return 0;
}
