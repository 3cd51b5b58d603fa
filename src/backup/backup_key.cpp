#include "backup/backup_key.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>

#include "base/durable_file.h"
#include "base/hex.h"

namespace quill::backup {

std::string generateBackupKey() {
  std::array<std::uint8_t, 32> raw{};
  randombytes_buf(raw.data(), raw.size());
  std::string hex = base::toHex(raw);
  sodium_memzero(raw.data(), raw.size());
  return hex;
}

bool writeKeyFile(const std::filesystem::path& path, const std::string& keyHex) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  // O_CREAT's mode is filtered by the umask; set it outright.
  (void)::fchmod(fd, 0600);
  const bool written = base::writeAll(fd, keyHex + "\n") && base::syncFile(fd);
  if (::close(fd) != 0 || !written) {
    ::unlink(path.c_str());
    return false;
  }
  base::syncDirectory(path.parent_path());
  return true;
}

}  // namespace quill::backup
