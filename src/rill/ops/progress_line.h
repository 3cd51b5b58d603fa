#pragma once
// The one-line progress display of a long transfer (publish, pull, backup, restore): shown on a
// terminal only, redrawn a few times a second, erased before the result lines. Nothing at all is
// written when the stream is not a terminal.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "rill/ops/publish.h"
#include "rill/ops/pull.h"

namespace quill::rill {

// What a progress line shows; a total of 0 is not known (yet).
struct ProgressCounts {
  std::uint64_t bytes = 0;
  std::uint64_t bytesTotal = 0;
  std::uint64_t chunks = 0;
  std::uint64_t chunksTotal = 0;
};

// The line for `counts` after `elapsed` seconds, without the redraw codes: bytes (and, with a
// total, "of <total> (<n>%)"), chunks (with their total when known), the average rate and, with a
// byte total, the time left at that rate: "  1.2 GiB of 3.4 GiB (35%), 120/340 chunk(s),
// 35.0 MiB/s, 1m05s left".
std::string progressText(const ProgressCounts& counts, double elapsed);

// A publish's counts: chunk and byte totals only once its scan is over, so that a total shown
// never grows.
ProgressCounts publishCounts(const PublishProgress& p);
// A pull's counts, its totals known from the start.
ProgressCounts pullCounts(const PullProgress& p);

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
