#include "rill/chunks/chunk_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"
#include "rill/chunks/chunk_id.h"

namespace quill::rill {

Result<std::string> readChunkAt(const std::filesystem::path& file, std::uint64_t offset,
                                std::uint64_t length, const std::string& id) {
  const Failure unreadable{"cannot read chunk bytes from " + file.string()};
  const base::UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return unreadable;
  std::string bytes(length, '\0');
  std::uint64_t done = 0;
  while (done < length) {
    const ssize_t got =
        ::pread(fd.get(), bytes.data() + done, length - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<std::uint64_t>(got);
  }
  if (done != length) return unreadable;
  if (chunkId(bytes) != id) {
    return Failure{"chunk hash mismatch reading " + file.string() + " (file changed under us?)"};
  }
  return bytes;
}

}  // namespace quill::rill
