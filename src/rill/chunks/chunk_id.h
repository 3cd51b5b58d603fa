#pragma once
// Chunk ids: the lower-case hexadecimal BLAKE3 digest (32 bytes) of a chunk's bytes.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quill::rill {

// The 64-character chunk id of `bytes`.
std::string chunkId(std::string_view bytes);
std::string chunkId(const std::uint8_t* bytes, std::size_t size);

// True when `text` has the form of a chunk id: 64 lower-case hexadecimal characters.
bool isChunkId(std::string_view text);

}  // namespace quill::rill
