#pragma once
// The owner of one file descriptor: closes it when it goes, never twice.

#include <unistd.h>

#include <utility>

namespace quill::base {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }

  // Closes the descriptor held (if any) and holds `fd` instead.
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  // Gives up ownership: returns the descriptor held (-1 when none) without closing it.
  int release() { return std::exchange(fd_, -1); }
  // Closes now and reports whether close succeeded (a delayed write error shows here).
  bool close() {
    const int fd = std::exchange(fd_, -1);
    return fd < 0 || ::close(fd) == 0;
  }

 private:
  int fd_ = -1;
};

}  // namespace quill::base
