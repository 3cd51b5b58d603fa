#include "rill/ops/target_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

namespace quill::rill {

namespace fs = std::filesystem;

namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The segments of a relative path; empty segments (none in a checked path) are dropped.
std::vector<std::string> segmentsOf(std::string_view relative) {
  std::vector<std::string> segments;
  std::size_t start = 0;
  while (start < relative.size()) {
    const std::size_t end = std::min(relative.find('/', start), relative.size());
    if (end > start) segments.emplace_back(relative.substr(start, end - start));
    start = end + 1;
  }
  return segments;
}

// Opens the directory `name` in `parent`, creating it, or replacing a link or file there.
base::UniqueFd openOrMakeDirectory(int parent, const std::string& name) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    base::UniqueFd fd(::openat(parent, name.c_str(), kDirFlags));
    if (fd) return fd;
    if (errno == ELOOP || errno == ENOTDIR) {
      // A link (never followed) or a file stands where the build has a directory.
      if (::unlinkat(parent, name.c_str(), 0) != 0 && errno != ENOENT) return {};
    } else if (errno != ENOENT) {
      return {};
    }
    if (::mkdirat(parent, name.c_str(), 0755) != 0 && errno != EEXIST) return {};
  }
  return {};
}

// Removes the directory `name` of `parent` when it holds nothing but empty directories.
bool removeEmptyTree(int parent, const std::string& name) {
  base::UniqueFd fd(::openat(parent, name.c_str(), kDirFlags));
  if (!fd) return false;
  const int listFd = ::dup(fd.get());
  DIR* dir = listFd >= 0 ? ::fdopendir(listFd) : nullptr;
  if (!dir) {
    if (listFd >= 0) ::close(listFd);
    return false;
  }
  std::vector<std::string> children;
  bool onlyDirectories = true;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string child = entry->d_name;
    if (child == "." || child == "..") continue;
    struct stat st {};
    if (::fstatat(fd.get(), child.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode)) {
      onlyDirectories = false;
      break;
    }
    children.push_back(child);
  }
  ::closedir(dir);
  if (!onlyDirectories) return false;
  for (const std::string& child : children) {
    if (!removeEmptyTree(fd.get(), child)) return false;
  }
  return ::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0;
}

}  // namespace

Result<TargetTree> TargetTree::open(const fs::path& root) {
  std::error_code ec;
  fs::create_directories(root, ec);
  base::UniqueFd fd(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return Failure{"cannot open " + root.string()};
  return TargetTree(root, std::move(fd));
}

fs::path TargetTree::pathOf(std::string_view relative) const {
  return relative.empty() ? root_ : root_ / fs::path(std::string(relative));
}

Result<base::UniqueFd> TargetTree::directory(std::string_view relative) const {
  base::UniqueFd current(::dup(fd_.get()));
  if (!current) return Failure{"cannot open " + pathOf(relative).string()};
  for (const std::string& segment : segmentsOf(relative)) {
    current = openOrMakeDirectory(current.get(), segment);
    if (!current) return Failure{"cannot open " + pathOf(relative).string()};
  }
  return current;
}

Result<bool> TargetTree::install(int fromFd, const std::string& name,
                                 std::string_view relative) const {
  const fs::path at = pathOf(relative);
  const std::size_t slash = relative.rfind('/');
  const std::string_view parentPath =
      slash == std::string_view::npos ? std::string_view() : relative.substr(0, slash);
  const std::string base(slash == std::string_view::npos ? relative : relative.substr(slash + 1));
  auto parent = directory(parentPath);
  if (!parent) return Failure{parent.error()};
  struct stat st {};
  if (::fstatat(parent.value().get(), base.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISDIR(st.st_mode) && !removeEmptyTree(parent.value().get(), base)) {
    return Failure{"cannot replace directory " + at.string() + " with a file (it holds other files)"};
  }
  if (::renameat(fromFd, name.c_str(), parent.value().get(), base.c_str()) != 0) {
    // Appended piece by piece: GCC 12 misreads "'" + std::string as an overlapping copy.
    std::string reason(1, '\'');
    reason.append(at.string()).append("' is in use - could not replace it (");
    return Failure{reason.append(std::strerror(errno)).append(")")};
  }
  return true;
}

void TargetTree::removeFile(std::string_view relative) const {
  std::vector<std::string> segments = segmentsOf(relative);
  if (segments.empty()) return;
  std::vector<base::UniqueFd> chain;
  chain.emplace_back(::dup(fd_.get()));
  for (std::size_t i = 0; i + 1 < segments.size(); ++i) {
    base::UniqueFd next(::openat(chain.back().get(), segments[i].c_str(), kDirFlags));
    if (!next) return;  // gone already, or a link: nothing of ours below it
    chain.push_back(std::move(next));
  }
  struct stat st {};
  if (::fstatat(chain.back().get(), segments.back().c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISREG(st.st_mode) || ::unlinkat(chain.back().get(), segments.back().c_str(), 0) != 0) {
    return;
  }
  // Directories the file leaves empty go with it, from the deepest up; the first that still holds
  // something ends it.
  for (std::size_t i = chain.size() - 1; i > 0; --i) {
    if (::unlinkat(chain[i - 1].get(), segments[i - 1].c_str(), AT_REMOVEDIR) != 0) return;
  }
}

bool TargetTree::syncDirectory(std::string_view relative) const {
  auto dir = directory(relative);
  return dir && ::fsync(dir.value().get()) == 0;
}

}  // namespace quill::rill
