#include "base/durable_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/unique_fd.h"

namespace quill::base {

namespace {

Failure stepFailed(const char* step, const std::string& name, int errnoValue) {
  return Failure::fromErrno(
      std::string(step) + " failed for " + name + ": " + std::strerror(errnoValue), errnoValue);
}

}  // namespace

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

bool syncFile(int fd) { return ::fdatasync(fd) == 0; }

bool syncDirectory(int dirFd) { return ::fsync(dirFd) == 0; }

bool syncDirectory(const std::filesystem::path& dir) {
  // A bare file name's directory is the current one.
  const std::filesystem::path path = dir.empty() ? std::filesystem::path(".") : dir;
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && syncDirectory(fd.get());
}

Result<bool> replaceFileAt(int dirFd, const std::string& name, const std::string& temporary,
                           std::string_view bytes, mode_t mode) {
  UniqueFd fd(::openat(dirFd, temporary.c_str(),
                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!fd) return stepFailed("create", temporary, errno);
  // The bytes reach the disk before the rename, so a power cut never leaves an empty or torn file
  // under the real name.
  const char* step = nullptr;
  if (!writeAll(fd.get(), bytes)) {
    step = "write";
  } else if (!syncFile(fd.get())) {
    step = "flush";
  } else if (!fd.close()) {
    step = "close";
  } else if (::renameat(dirFd, temporary.c_str(), dirFd, name.c_str()) != 0) {
    step = "rename";
  }
  if (step) {
    const int cause = errno;
    ::unlinkat(dirFd, temporary.c_str(), 0);
    return stepFailed(step, temporary, cause);
  }
  // Until the directory is flushed the rename itself may be lost.
  if (!syncDirectory(dirFd)) return stepFailed("directory flush", name, errno);
  return true;
}

}  // namespace quill::base
