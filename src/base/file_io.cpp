#include "base/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"

namespace quill::base {

bool writeAllAt(int fd, std::string_view bytes, std::uint64_t offset) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::pwrite(fd, bytes.data() + done, bytes.size() - done,
                               static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

bool readFileLimited(const std::filesystem::path& path, std::uint64_t maxBytes, std::string& out) {
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st {};
  if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<std::uint64_t>(st.st_size) > maxBytes) {
    return false;
  }
  std::string text(static_cast<std::size_t>(st.st_size), '\0');
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::read(fd.get(), text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  text.resize(done);
  out = std::move(text);
  return true;
}

}  // namespace quill::base
