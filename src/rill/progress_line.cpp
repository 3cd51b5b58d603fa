#include "rill/progress_line.h"

#include <unistd.h>

namespace quill::rill {

namespace {

constexpr auto kRedrawPeriod = std::chrono::milliseconds(200);
constexpr double kMiB = 1048576.0;

double mebibytes(std::uint64_t bytes) { return static_cast<double>(bytes) / kMiB; }

}  // namespace

ProgressLine::ProgressLine(std::FILE* stream)
    : stream_(stream), enabled_(::isatty(::fileno(stream)) == 1) {}

double ProgressLine::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void ProgressLine::update(const ProgressCounts& counts) {
  if (!enabled_) return;
  std::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (now - last_ < kRedrawPeriod) return;
  last_ = now;
  std::fprintf(stream_, "\r\033[K  %.1f MiB", mebibytes(counts.bytes));
  if (counts.bytesTotal > 0) {
    std::fprintf(
        stream_, " of %.1f MiB (%.0f%%)", mebibytes(counts.bytesTotal),
        100.0 * static_cast<double>(counts.bytes) / static_cast<double>(counts.bytesTotal));
  }
  std::fprintf(stream_, ", %llu", static_cast<unsigned long long>(counts.chunks));
  if (counts.chunksTotal > 0) {
    std::fprintf(stream_, "/%llu", static_cast<unsigned long long>(counts.chunksTotal));
  }
  const double elapsed = seconds();
  std::fprintf(stream_, " chunk(s), %.1f MiB/s",
               elapsed > 0 ? mebibytes(counts.bytes) / elapsed : 0.0);
  std::fflush(stream_);
  drawn_ = true;
}

void ProgressLine::finish() {
  std::lock_guard lock(mutex_);
  if (!drawn_) return;
  std::fputs("\r\033[K", stream_);
  std::fflush(stream_);
  drawn_ = false;
}

}  // namespace quill::rill
