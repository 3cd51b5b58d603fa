#include "rill/ops/progress_line.h"

#include <unistd.h>

#include <algorithm>

#include "rill/ops/human_size.h"

namespace quill::rill {

namespace {

constexpr auto kRedrawPeriod = std::chrono::milliseconds(200);

}  // namespace

std::string progressText(const ProgressCounts& counts, double elapsed) {
  // Built by appending: GCC 12 at -O3 misjudges "literal" + std::string temporaries.
  std::string text = "  ";
  text += humanBytes(counts.bytes);
  const bool knowsTotal = counts.bytesTotal > 0;
  if (knowsTotal) {
    const double fraction = std::min(
        1.0, static_cast<double>(counts.bytes) / static_cast<double>(counts.bytesTotal));
    text += " of ";
    text += humanBytes(counts.bytesTotal);
    text += " (";
    text += std::to_string(static_cast<int>(100.0 * fraction));
    text += "%)";
  }
  text += ", ";
  text += std::to_string(counts.chunks);
  if (counts.chunksTotal > 0) {
    text += "/";
    text += std::to_string(counts.chunksTotal);
  }
  text += " chunk(s), ";
  text += humanRate(counts.bytes, elapsed);
  if (knowsTotal && counts.bytes > 0 && elapsed > 0) {
    const double remaining =
        static_cast<double>(counts.bytesTotal - std::min(counts.bytes, counts.bytesTotal));
    text += ", ";
    text += humanDuration(remaining * elapsed / static_cast<double>(counts.bytes));
    text += " left";
  }
  return text;
}

ProgressCounts publishCounts(const PublishProgress& p) {
  if (!p.scanned) return {.bytes = p.bytesDone, .chunks = p.chunksDone};
  return {.bytes = p.bytesDone,
          .bytesTotal = p.bytesFound,
          .chunks = p.chunksDone,
          .chunksTotal = p.chunksFound};
}

ProgressCounts pullCounts(const PullProgress& p) {
  return {.bytes = p.bytesDone,
          .bytesTotal = p.bytesTotal,
          .chunks = p.chunksDone,
          .chunksTotal = p.chunksTotal};
}

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
  const std::string text = progressText(counts, seconds());
  std::fprintf(stream_, "\r\033[K%s", text.c_str());
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
