#pragma once
// The pieces of a write that survives a power cut: a temporary name of its own beside the target,
// a flush of the file's bytes before it is renamed into place, and a flush of the directory after.

#include <filesystem>
#include <string_view>

namespace quill::store {

namespace fs = std::filesystem;

// A fresh name in `target`'s directory: "<target name>.<random>.tmp". No two writers (threads or
// processes) draw the same one, and listings skip it by its extension.
fs::path temporaryBeside(const fs::path& target);

// Whether `fileName` has the form temporaryBeside gives: "<name>.<random>.tmp".
bool isTemporaryName(std::string_view fileName);

// Writes all of `bytes` to `fd`, retrying short writes. False on the first error.
bool writeAll(int fd, std::string_view bytes);

// Flushes the file open at `fd` (its bytes and its size) to the disk.
bool syncFile(int fd);

// Flushes the entries of the directory open at `dirFd`, or at `dir` (empty: the current one): a
// name created, renamed or removed in it survives a power cut once this returns true.
bool syncDirectory(int dirFd);
bool syncDirectory(const fs::path& dir);

// Creates `dir` and its missing ancestors, flushing each parent that gained an entry. True when
// `dir` is a directory afterwards (an empty `dir` is the current one).
bool makeDirectories(const fs::path& dir);

}  // namespace quill::store
