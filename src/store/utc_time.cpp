#include "store/utc_time.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <ctime>

namespace quill::store {

namespace {

constexpr const char* kInvalid = "invalid";

}  // namespace

std::string nowUtcText() {
  const auto now = std::chrono::system_clock::now();
  return formatUtc(static_cast<std::int64_t>(std::chrono::system_clock::to_time_t(now)));
}

std::string formatUtc(std::int64_t epochSeconds) {
  const std::time_t seconds = static_cast<std::time_t>(epochSeconds);
  std::tm parts{};
  if (gmtime_r(&seconds, &parts) == nullptr) return kInvalid;

  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (length == 0) return kInvalid;
  return std::string(text, length);
}

std::optional<std::int64_t> parseUtc(std::string_view text) { return readUtc(text).seconds; }

ParsedUtc readUtc(std::string_view text) {
  ParsedUtc parsed;
  const std::string terminated(text);  // sscanf needs a NUL-terminated string
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  const int read = std::sscanf(terminated.c_str(), "%d-%d-%dT%d:%d:%d", &year, &month, &day, &hour,
                               &minute, &second);
  if (read != 6) return parsed;
  parsed.sixNumbers = true;
  // The tm offsets below must not overflow an int.
  if (year < INT_MIN + 1900 || month == INT_MIN) return parsed;

  std::tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;

  // -1 is also the valid answer for 1969-12-31T23:59:59, so errno tells the two apart.
  errno = 0;
  const std::time_t seconds = timegm(&parts);
  if (seconds == -1 && errno != 0) return parsed;
  parsed.seconds = static_cast<std::int64_t>(seconds);
  return parsed;
}

}  // namespace quill::store
