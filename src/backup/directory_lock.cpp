#include "backup/directory_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace quill::backup {

namespace {

int lockWithRetry(int fd, int operation) {
  int rc;
  do {
    rc = ::flock(fd, operation);
  } while (rc != 0 && errno == EINTR);
  return rc;
}

}  // namespace

base::Result<DirectoryLock> DirectoryLock::acquire(const std::filesystem::path& dir,
                                                   const std::function<void()>& onWait) {
  const auto failed = [&dir] {
    const int cause = errno;
    return base::Failure::fromErrno("cannot lock " + dir.string() + ": " + std::strerror(cause),
                                    cause);
  };
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return failed();
  DirectoryLock lock{base::UniqueFd(fd)};
  if (lockWithRetry(fd, LOCK_EX | LOCK_NB) == 0) return lock;
  if (errno != EWOULDBLOCK) return failed();
  if (onWait) onWait();
  if (lockWithRetry(fd, LOCK_EX) != 0) return failed();
  return lock;
}

}  // namespace quill::backup
