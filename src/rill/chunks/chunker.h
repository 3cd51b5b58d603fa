#pragma once
// Content-defined chunking (FastCDC with a gear hash, normalisation level 2, plain low-bit masks).
// Identical bytes give identical cut points wherever they occur, which is what makes stores
// deduplicate.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace quill::rill {

// The three chunk sizes in bytes. Every manifest records them, so a reader knows how it was cut.
struct ChunkerParams {
  std::uint64_t min = 1048576;   // no cut before this many bytes
  std::uint64_t avg = 4194304;   // target size: sets the masks and the switch point
  std::uint64_t max = 16777216;  // a cut is forced at this size

  bool operator==(const ChunkerParams&) const = default;
};

// The reason `params` cannot be used (the sizes must satisfy min <= avg <= max and max > 0, so that
// every chunk has at least one byte and "no cut before min" holds), or nothing when they are fine.
std::optional<std::string> checkChunkerParams(const ChunkerParams& params);

// The masks derived from `avg`: with bits the smallest b where 2^b >= avg (0 for avg 0 or 1),
// strict = 2^(bits+2) - 1 (all ones from 64 bits up) and loose = 2^(bits-2) - 1 (0 below 2 bits).
struct ChunkMasks {
  std::uint64_t strict = 0;
  std::uint64_t loose = 0;
};
ChunkMasks chunkMasks(std::uint64_t avg);

// Finds the cut point in `data[0, len)`, where len is all that is available: the remainder of a
// file, or at least `max` bytes of it. Returns the length of the first chunk (1 to len; 0 only
// when len is 0). Requires checkChunkerParams(params) to be fine.
std::uint64_t findCutPoint(const std::uint8_t* data, std::uint64_t len,
                           const ChunkerParams& params);

// The same search over a stream that arrives in pieces of any size: feeding a file piece by piece
// and calling finish() at its end gives exactly the cuts of findCutPoint over the whole file.
// Holds no bytes, only the position in the current chunk and the rolling hash.
// Not thread-safe; use one per stream.
class CutFinder {
 public:
  // Requires checkChunkerParams(params) to be fine.
  explicit CutFinder(const ChunkerParams& params);

  // Continues the current chunk with data[0, size). Returns how many of these bytes complete the
  // chunk (a cut right after them; the next chunk starts there), or nothing when every byte
  // belongs to the current chunk and it goes on. Call again with the remaining bytes after a cut.
  std::optional<std::size_t> next(const std::uint8_t* data, std::size_t size);

  // The stream ended: true when a non-empty chunk was open (its end is a cut). Starts afresh.
  bool finish();

 private:
  void startChunk();

  std::uint64_t min_;
  std::uint64_t normal_;  // switch from the strict to the loose mask
  std::uint64_t max_;
  ChunkMasks masks_;
  std::uint64_t position_ = 0;  // bytes of the current chunk so far
  std::uint64_t hash_ = 0;
};

}  // namespace quill::rill
