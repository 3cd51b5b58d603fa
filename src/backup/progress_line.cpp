#include "backup/progress_line.h"

#include <unistd.h>

namespace quill::backup {

namespace {

constexpr auto kRedrawPeriod = std::chrono::milliseconds(250);
constexpr double kMiB = 1048576.0;

}  // namespace

ProgressLine::ProgressLine(std::FILE* stream)
    : stream_(stream), enabled_(::isatty(::fileno(stream)) == 1) {}

void ProgressLine::update(std::uint64_t chunks, std::uint64_t bytes, std::uint64_t bytesTotal) {
  if (!enabled_) return;
  std::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (now - last_ < kRedrawPeriod) return;
  last_ = now;
  const double elapsed = std::chrono::duration<double>(now - start_).count();
  const double mib = static_cast<double>(bytes) / kMiB;
  std::fprintf(stream_, "\r\033[K  %llu chunk(s), %.1f MiB",
               static_cast<unsigned long long>(chunks), mib);
  if (bytesTotal > 0) {
    std::fprintf(stream_, " of %.1f MiB (%.0f%%)", static_cast<double>(bytesTotal) / kMiB,
                 100.0 * static_cast<double>(bytes) / static_cast<double>(bytesTotal));
  }
  std::fprintf(stream_, ", %.1f MiB/s", elapsed > 0 ? mib / elapsed : 0.0);
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

}  // namespace quill::backup
