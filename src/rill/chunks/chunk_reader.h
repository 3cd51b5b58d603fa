#pragma once
// Reads one chunk's bytes back from a file and checks them against the chunk id, for a publish
// that uploads what it scanned and for a pull that reuses what a directory already holds.

#include <cstdint>
#include <filesystem>
#include <string>

#include "rill/result.h"

namespace quill::rill {

// The `length` bytes at `offset` of `file` when their chunk id is `id`. Fails with
// "cannot read chunk bytes from <file>" (unopenable, or shorter than the range) or
// "chunk hash mismatch reading <file> (file changed under us?)".
Result<std::string> readChunkAt(const std::filesystem::path& file, std::uint64_t offset,
                                std::uint64_t length, const std::string& id);

}  // namespace quill::rill
