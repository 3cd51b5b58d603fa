#include "progress_line.h"

#include <unistd.h>

namespace quill::rilltool {

ProgressLine::ProgressLine(std::FILE* stream)
    : stream_(stream), enabled_(::isatty(::fileno(stream)) == 1) {}

double ProgressLine::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void ProgressLine::update(std::uint64_t bytes, std::uint64_t chunks, std::uint64_t chunksTotal) {
  if (!enabled_) return;
  std::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (now - last_ < std::chrono::milliseconds(200)) return;
  last_ = now;
  const double mib = static_cast<double>(bytes) / 1048576.0;
  const double elapsed = seconds();
  std::fprintf(stream_, "\r\033[K%.1f MiB, chunks %llu/%llu, %.1f MiB/s", mib,
               static_cast<unsigned long long>(chunks),
               static_cast<unsigned long long>(chunksTotal), elapsed > 0 ? mib / elapsed : 0.0);
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

}  // namespace quill::rilltool
