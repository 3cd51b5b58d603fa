#pragma once
// The one-line progress display of a running transfer: shown on a terminal only, redrawn a few
// times a second, erased before the summary.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>

namespace quill::rilltool {

class ProgressLine {
 public:
  // Draws on `stream` only when it is a terminal.
  explicit ProgressLine(std::FILE* stream);

  // Bytes and chunks done so far, out of the totals known so far. Thread-safe; redraws at most
  // five times a second.
  void update(std::uint64_t bytes, std::uint64_t chunks, std::uint64_t chunksTotal);
  // Erases the line.
  void finish();

  double seconds() const;

 private:
  std::FILE* stream_;
  bool enabled_;
  std::mutex mutex_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point last_{};
  bool drawn_ = false;
};

}  // namespace quill::rilltool
