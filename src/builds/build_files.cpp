#include "builds/build_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>
#include <vector>

#include "base/durable_file.h"
#include "base/unique_fd.h"
#include "store/durable_file.h"

namespace quill::builds {

namespace {

using Fd = base::UniqueFd;

std::vector<std::string> splitPath(const std::string& path) {
  std::vector<std::string> segments;
  std::size_t start = 0;
  for (std::size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1) {
    segments.push_back(path.substr(start, slash - start));
  }
  segments.push_back(path.substr(start));
  return segments;
}

// The directory `name` inside `parent`, refusing a link. With `create`, a missing directory is
// made first and its parent flushed.
Fd openDirectoryBelow(const Fd& parent, const std::string& name, bool create) {
  if (create) {
    if (::mkdirat(parent.get(), name.c_str(), 0777) == 0) {
      if (!base::syncDirectory(parent.get())) return Fd();
    } else if (errno != EEXIST) {
      return Fd();
    }
  }
  return Fd(::openat(parent.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// The directory that holds `<buildDir>/files/<path>`, every step below the build refusing links.
// Sets `leaf` to the path's last segment.
Fd openParentOf(const fs::path& buildDir, const std::string& path, bool create, std::string& leaf) {
  if (create && !store::makeDirectories(buildDir)) return Fd();
  Fd dir(::open(buildDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir) return dir;
  dir = openDirectoryBelow(dir, "files", create);
  std::vector<std::string> segments = splitPath(path);
  leaf = segments.back();
  segments.pop_back();
  for (const std::string& segment : segments) {
    if (!dir) return dir;
    dir = openDirectoryBelow(dir, segment, create);
  }
  return dir;
}

}  // namespace

bool placeBuildFile(const fs::path& buildDir, const std::string& path, const fs::path& source) {
  std::string leaf;
  const Fd parent = openParentOf(buildDir, path, true, leaf);
  if (!parent) return false;
  {
    const Fd file(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file || !base::syncFile(file.get())) return false;
  }
  // renameat replaces a link at the target rather than writing through it.
  if (::renameat(AT_FDCWD, source.c_str(), parent.get(), leaf.c_str()) != 0) return false;
  return base::syncDirectory(parent.get());
}

int openBuildFile(const fs::path& buildDir, const std::string& path) {
  std::string leaf;
  const Fd parent = openParentOf(buildDir, path, false, leaf);
  if (!parent) return -1;
  Fd file(::openat(parent.get(), leaf.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st {};
  if (!file || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return file.release();
}

http::FileFacts buildFileFacts(int fd, bool finalized) {
  http::FileFacts facts;
  struct stat st {};
  if (::fstat(fd, &st) != 0) return facts;
  facts.size = static_cast<std::uint64_t>(st.st_size);
  facts.modified = st.st_mtim.tv_sec;
  facts.stable = finalized;
  if (!finalized) return facts;
  char tag[80];
  std::snprintf(tag, sizeof tag, "\"%llx-%llx-%llx.%lx\"",
                static_cast<unsigned long long>(st.st_ino),
                static_cast<unsigned long long>(st.st_size),
                static_cast<unsigned long long>(st.st_mtim.tv_sec),
                static_cast<unsigned long>(st.st_mtim.tv_nsec));
  facts.etag = tag;
  return facts;
}

}  // namespace quill::builds
