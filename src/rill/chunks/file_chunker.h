#pragma once
// Cuts one file into content-defined chunks and names each by its chunk id.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "rill/chunks/chunker.h"
#include "rill/result.h"

namespace quill::rill {

// One cut of a file.
struct Chunk {
  std::uint64_t offset = 0;  // position in the file
  std::uint64_t length = 0;
  std::string hash;  // the chunk id of bytes [offset, offset + length)

  bool operator==(const Chunk&) const = default;
};

// The chunks of the file at `path`, in file order; an empty file has none. The file is streamed in
// blocks of 1 MiB: memory stays at most 8 blocks whatever the file or chunk size (chunks are hashed
// incrementally, never held whole). Files of 8 MiB and more are hashed on a second thread while
// the calling thread searches the cut points: the result is identical, and the time close to that
// of the cut-point search alone.
// Fails with "cannot open <path>" or "read error on <path>". Requires valid `params`.
Result<std::vector<Chunk>> chunkFile(const std::filesystem::path& path,
                                     const ChunkerParams& params);

}  // namespace quill::rill
