#pragma once
// What tells one version of a file from another without reading it.

#include <cstdint>
#include <filesystem>
#include <optional>

namespace quill::store {

// A rename onto a path changes the inode; an edit in place changes the times or the size.
struct FileStamp {
  std::uint64_t inode = 0;
  std::int64_t modifiedNs = 0;
  std::int64_t changedNs = 0;
  std::int64_t size = 0;
  bool regular = false;

  bool operator==(const FileStamp&) const = default;
};

// The stamp of the file at `path` (symbolic links followed), or nullopt when it cannot be stat'ed.
std::optional<FileStamp> stampOf(const std::filesystem::path& path);
// The stamp of the open file `fd`, or nullopt.
std::optional<FileStamp> stampOfFd(int fd);

}  // namespace quill::store
