#pragma once
// The one-line progress display of a long transfer (publish, pull, backup, restore): shown on a
// terminal only, redrawn a few times a second, erased before the result lines. Nothing at all is
// written when the stream is not a terminal.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>

namespace quill::rill {

// What a progress line shows; a total of 0 is not known (yet).
struct ProgressCounts {
  std::uint64_t bytes = 0;
  std::uint64_t bytesTotal = 0;
  std::uint64_t chunks = 0;
  std::uint64_t chunksTotal = 0;
};

class ProgressLine {
 public:
  // Draws on `stream` only when it is a terminal.
  explicit ProgressLine(std::FILE* stream);
  ~ProgressLine() { finish(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // The counts so far, with the rate since construction. Thread-safe; redraws at most five times
  // a second.
  void update(const ProgressCounts& counts);
  // Seconds since construction.
  double seconds() const;
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

}  // namespace quill::rill
