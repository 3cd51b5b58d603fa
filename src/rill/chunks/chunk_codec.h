#pragma once
// How a chunk is stored: one zstd frame (compressed, or of raw blocks when compression would not
// pay), or the plain bytes; and how a stored object is turned back into a verified chunk.

#include <string>
#include <string_view>

#include "rill/result.h"
#include "rill/chunks/tree_scan.h"

namespace quill::rill {

inline constexpr int kChunkCompressionLevel = 12;

// The object stored for `chunk`. Without `compress` the bytes themselves. With it, one zstd frame:
// compressed at level 12 when a cheap trial on samples of the chunk shows the bytes shrink, and
// otherwise (random or already compressed data) a frame of raw blocks, so that level 12 is not
// spent in vain; either way the object is never larger than the raw frame, which is the chunk plus
// 3 bytes per 128 KiB block and 9 bytes of frame header. Thread-safe.
std::string encodeChunk(std::string_view chunk, bool compress);

// The largest object encodeChunk makes of a chunk of `length` bytes (its raw frame): what a reader
// may accept from a store for that chunk before it decodes anything.
std::uint64_t maxChunkObjectSize(std::uint64_t length);

// The same raw frame that encodeChunk falls back to: every decoder reads it.
std::string rawZstdFrame(std::string_view chunk);

// The chunk `expected` names, recovered from its stored object: a zstd frame (magic 28 B5 2F FD)
// that decompresses to bytes of id `expected.h`, or else raw bytes of that id. Fails with
// "chunk <id> failed to decode/verify (corrupt or tampered)" or "chunk size mismatch for <id>".
// Never allocates more than the expected length for the decoded bytes.
Result<std::string> decodeChunk(std::string_view object, const ChunkRef& expected);

}  // namespace quill::rill
