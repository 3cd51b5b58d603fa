#pragma once
// Plain file reads and writes that retry what the system leaves to the caller (short transfers,
// interrupted calls), and reads bounded by what the caller expects.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace quill::base {

// Writes all of `bytes` to `fd` at `offset`. False on the first error (errno tells).
bool writeAllAt(int fd, std::string_view bytes, std::uint64_t offset);

// Reads the whole regular file at `path` into `out` when it has at most `maxBytes`; false when it
// cannot be opened or read, or is longer (then it is not read).
bool readFileLimited(const std::filesystem::path& path, std::uint64_t maxBytes, std::string& out);

}  // namespace quill::base
