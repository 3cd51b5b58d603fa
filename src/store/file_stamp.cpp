#include "store/file_stamp.h"

#include <sys/stat.h>

namespace quill::store {

namespace {

constexpr std::int64_t nanoseconds(const timespec& t) {
  return static_cast<std::int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

FileStamp stampFrom(const struct stat& st) {
  return FileStamp{static_cast<std::uint64_t>(st.st_ino), nanoseconds(st.st_mtim),
                   nanoseconds(st.st_ctim), static_cast<std::int64_t>(st.st_size),
                   S_ISREG(st.st_mode)};
}

}  // namespace

std::optional<FileStamp> stampOf(const std::filesystem::path& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return stampFrom(st);
}

std::optional<FileStamp> stampOfFd(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return std::nullopt;
  return stampFrom(st);
}

}  // namespace quill::store
