#pragma once
// An exclusive lock on a directory itself (flock on the directory, not a lock file in it, so the
// lock adds nothing to what a snapshot of the directory records). Every backup run and every prune
// of a data directory holds it: a sweep then never runs while a publish has found chunks present
// but not yet written the manifest that keeps them alive.
//
// flock locks belong to an open file description, so two holders in one process exclude each
// other as two processes do. The lock goes when the holder is destroyed or its process dies.

#include <filesystem>
#include <functional>
#include <utility>

#include "base/result.h"
#include "base/unique_fd.h"

namespace quill::backup {

class DirectoryLock {
 public:
  // Locks `dir`. When another holder has it, calls `onWait` once, then blocks until it is free.
  // Fails with "cannot lock <dir>: <reason>".
  static base::Result<DirectoryLock> acquire(const std::filesystem::path& dir,
                                             const std::function<void()>& onWait = {});

  DirectoryLock(DirectoryLock&& other) noexcept = default;
  DirectoryLock& operator=(DirectoryLock&&) = delete;

 private:
  explicit DirectoryLock(base::UniqueFd fd) : fd_(std::move(fd)) {}
  base::UniqueFd fd_;  // closing the last descriptor releases the lock
};

}  // namespace quill::backup
