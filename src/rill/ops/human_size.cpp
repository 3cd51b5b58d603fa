#include "rill/ops/human_size.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>

namespace quill::rill {

std::string humanBytes(std::uint64_t bytes) {
  static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024.0;
  std::size_t unit = 0;
  // 1023.95 would print as "1024.0": move up a unit before that.
  while (value >= 1023.95 && unit + 1 < std::size(kUnits)) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string humanRate(std::uint64_t bytes, double seconds) {
  if (!(seconds > 0)) return "0 B/s";
  const double rate = static_cast<double>(bytes) / seconds;
  return humanBytes(rate >= 1.8e19 ? UINT64_MAX : static_cast<std::uint64_t>(rate)) + "/s";
}

std::string humanDuration(double seconds) {
  const double rounded = std::ceil(std::max(seconds, 0.0));
  const auto total = rounded >= 3.6e9 ? 3'600'000'000ULL : static_cast<unsigned long long>(rounded);
  char text[32];
  if (total < 60) {
    std::snprintf(text, sizeof text, "%llus", total);
  } else if (total < 3600) {
    std::snprintf(text, sizeof text, "%llum%02llus", total / 60, total % 60);
  } else {
    std::snprintf(text, sizeof text, "%lluh%02llum", total / 3600, total / 60 % 60);
  }
  return text;
}

}  // namespace quill::rill
