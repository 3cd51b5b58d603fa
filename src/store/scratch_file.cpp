#include "store/scratch_file.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/durable_file.h"
#include "store/durable_file.h"

namespace quill::store {

namespace {

constexpr std::size_t kBufferSize = 256 * 1024;

int openUnnamed(const fs::path& dir) {
  const int fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  // File systems without unnamed files: a fresh name, removed at once.
  const fs::path named = temporaryBeside(dir / "scratch");
  const int namedFd = ::open(named.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (namedFd >= 0) ::unlink(named.c_str());
  return namedFd;
}

}  // namespace

ScratchFile::ScratchFile(const fs::path& dir) : fd_(openUnnamed(dir)) {}

bool ScratchFile::write(std::string_view bytes) {
  if (!ok()) return false;
  buffer_.append(bytes);
  return buffer_.size() < kBufferSize || flush();
}

bool ScratchFile::flush() {
  if (!ok()) return false;
  failed_ = !base::writeAll(fd_.get(), buffer_);
  buffer_.clear();
  return !failed_;
}

int ScratchFile::release() {
  if (!ok()) return -1;
  return fd_.release();
}

}  // namespace quill::store
