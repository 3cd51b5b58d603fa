#include "rill/chunks/chunk_id.h"

#include <blake3.h>

#include <algorithm>
#include <span>

#include "base/hex.h"

namespace quill::rill {

std::string chunkId(const std::uint8_t* bytes, std::size_t size) {
  blake3_hasher hasher;
  blake3_hasher_init(&hasher);
  blake3_hasher_update(&hasher, bytes, size);
  std::uint8_t digest[BLAKE3_OUT_LEN];
  blake3_hasher_finalize(&hasher, digest, sizeof digest);
  return base::toHex(std::span<const std::uint8_t>(digest));
}

std::string chunkId(std::string_view bytes) {
  return chunkId(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

bool isChunkId(std::string_view text) {
  return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

}  // namespace quill::rill
