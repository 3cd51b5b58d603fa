#pragma once
// Writes that survive a power cut: a file's bytes are flushed before it is renamed into place, and
// its directory is flushed after, so a reader sees the old file or the new one, never a torn one.

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "base/result.h"

namespace quill::base {

// Writes all of `bytes` to `fd` at its current position, retrying short writes. False on the first
// error (errno tells).
bool writeAll(int fd, std::string_view bytes);

// Flushes the file open at `fd` (its bytes and its size) to the disk.
bool syncFile(int fd);

// Flushes the entries of the directory open at `dirFd`, or at `dir` (empty: the current one): a
// name created, renamed or removed in it survives a power cut once this returns true.
bool syncDirectory(int dirFd);
bool syncDirectory(const std::filesystem::path& dir);

// Replaces `name` in the directory open at `dirFd` with `bytes`: writes them to the new file
// `temporary` in that directory (created with `mode`; an existing file or link of that name fails
// the write), flushes it, renames it onto `name` and flushes the directory. On success `name` holds
// `bytes` and survives a power cut. On failure the temporary is gone, `name` is as it was (unless
// only the last flush failed), and the Failure carries the errno of the step that failed, with
// the reason "<step> failed for <temporary or name>: <errno text>".
Result<bool> replaceFileAt(int dirFd, const std::string& name, const std::string& temporary,
                           std::string_view bytes, mode_t mode);

}  // namespace quill::base
