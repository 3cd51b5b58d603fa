#pragma once
// A pull's target directory, changed only through descriptors opened below it, one path segment at
// a time and never through a link: a link planted in the tree (to a directory outside it, or to a
// file elsewhere) is replaced, never written through.

#include <filesystem>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "rill/result.h"

namespace quill::rill {

class TargetTree {
 public:
  // Opens `root`, creating it and its parents when missing (the root itself is the caller's
  // choice, so a link there is followed). Fails with "cannot open <root>".
  static Result<TargetTree> open(const std::filesystem::path& root);

  const std::filesystem::path& root() const { return root_; }
  // `relative` (forward slashes) below the root, for messages and for reading.
  std::filesystem::path pathOf(std::string_view relative) const;

  // The directory `relative` (empty: the root), created one segment at a time as needed. A link or
  // a file where a directory belongs is removed and replaced by one: the build's paths win. Fails
  // with "cannot open <path>".
  Result<base::UniqueFd> directory(std::string_view relative) const;

  // Moves the file `name` of the directory `fromFd` to `relative`, replacing the file or link
  // there. A directory in the way is removed when it holds nothing but empty directories;
  // otherwise fails with "cannot replace directory <path> with a file (it holds other files)".
  // A failed move gives "'<path>' is in use - could not replace it (<reason>)".
  Result<bool> install(int fromFd, const std::string& name, std::string_view relative) const;

  // Removes `relative` when it is a regular file (links and directories stay), then each
  // directory above it that is left empty. Nothing is followed; a path that leads through a link
  // is left alone.
  void removeFile(std::string_view relative) const;

  // Flushes the directory `relative` so that names created or moved in it survive a power cut.
  bool syncDirectory(std::string_view relative) const;

 private:
  TargetTree(std::filesystem::path root, base::UniqueFd fd)
      : root_(std::move(root)), fd_(std::move(fd)) {}

  std::filesystem::path root_;
  base::UniqueFd fd_;
};

}  // namespace quill::rill
