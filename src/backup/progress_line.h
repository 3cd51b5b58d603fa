#pragma once
// The progress of a backup or restore on a terminal: one line, redrawn a few times a second, erased
// before the result lines. Nothing at all when the stream is not a terminal.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>

namespace quill::backup {

class ProgressLine {
 public:
  // Draws on `stream` only when it is a terminal.
  explicit ProgressLine(std::FILE* stream);
  ~ProgressLine() { finish(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // Chunks and bytes done so far; `bytesTotal` 0 when not known yet. Thread-safe.
  void update(std::uint64_t chunks, std::uint64_t bytes, std::uint64_t bytesTotal = 0);
  // Erases the line.
  void finish();

 private:
  std::FILE* stream_;
  bool enabled_;
  std::mutex mutex_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point last_{};
  bool drawn_ = false;
};

}  // namespace quill::backup
