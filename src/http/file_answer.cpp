#include "http/file_answer.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "http/json.h"

namespace quill::http {

namespace {

constexpr std::array<const char*, 7> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

std::optional<std::uint64_t> decimal(std::string_view text) {
  std::uint64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// Whether an If-None-Match list names `etag` (weak comparison: W/ is ignored), or is "*".
bool noneMatchHits(std::string_view list, std::string_view etag) {
  if (trimmed(list) == "*") return true;
  while (!list.empty()) {
    const auto comma = list.find(',');
    std::string_view tag = trimmed(list.substr(0, comma));
    if (tag.starts_with("W/")) tag.remove_prefix(2);
    if (!etag.empty() && tag == etag) return true;
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  return false;
}

// Whether the client's copy, as its conditions describe it, is current.
bool notModified(const Request& req, const FileFacts& facts) {
  if (auto noneMatch = req.headers.find("if-none-match")) {
    return noneMatchHits(*noneMatch, facts.etag);
  }
  auto since = parseHttpDate(req.header("if-modified-since"));
  return since && facts.modified <= *since;
}

// Whether If-Range (when sent) still names this file: its strong tag, or exactly its time.
bool rangeStillApplies(const Request& req, const FileFacts& facts) {
  auto ifRange = req.headers.find("if-range");
  if (!ifRange) return true;
  if (!facts.stable) return false;
  const std::string_view value = trimmed(*ifRange);
  if (value.starts_with("\"")) return !facts.etag.empty() && value == facts.etag;
  auto date = parseHttpDate(value);
  return date && *date == facts.modified;
}

}  // namespace

std::string httpDate(std::time_t when) {
  std::tm tm{};
  ::gmtime_r(&when, &tm);
  char text[40];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT",
                kDays[static_cast<std::size_t>(tm.tm_wday) % 7], tm.tm_mday,
                kMonths[static_cast<std::size_t>(tm.tm_mon) % 12], tm.tm_year + 1900, tm.tm_hour,
                tm.tm_min, tm.tm_sec);
  return text;
}

std::optional<std::time_t> parseHttpDate(std::string_view text) {
  // "Sun, 06 Nov 1994 08:49:37 GMT": fixed width, so each field sits at a known place.
  if (text.size() != 29 || text.substr(3, 2) != ", " || text.substr(25) != " GMT") {
    return std::nullopt;
  }
  auto number = [&](std::size_t at, std::size_t width) { return decimal(text.substr(at, width)); };
  auto day = number(5, 2), year = number(12, 4), hour = number(17, 2), minute = number(20, 2),
       second = number(23, 2);
  if (!day || !year || !hour || !minute || !second || text[7] != ' ' || text[11] != ' ' ||
      text[16] != ' ' || text[19] != ':' || text[22] != ':') {
    return std::nullopt;
  }
  std::tm tm{};
  tm.tm_mon = -1;
  for (std::size_t m = 0; m < kMonths.size(); ++m) {
    if (text.substr(8, 3) == kMonths[m]) tm.tm_mon = static_cast<int>(m);
  }
  if (tm.tm_mon < 0 || *day < 1 || *day > 31 || *hour > 23 || *minute > 59 || *second > 60) {
    return std::nullopt;
  }
  tm.tm_mday = static_cast<int>(*day);
  tm.tm_year = static_cast<int>(*year) - 1900;
  tm.tm_hour = static_cast<int>(*hour);
  tm.tm_min = static_cast<int>(*minute);
  tm.tm_sec = static_cast<int>(*second);
  return ::timegm(&tm);
}

std::optional<ByteRange> requestedRange(std::string_view header, std::uint64_t size) {
  if (!header.starts_with("bytes=")) return std::nullopt;
  const std::string_view range = trimmed(header.substr(6));
  const auto dash = range.find('-');
  if (range.find(',') != std::string_view::npos || dash == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view from = trimmed(range.substr(0, dash));
  const std::string_view to = trimmed(range.substr(dash + 1));
  const ByteRange none{1, 0};
  if (from.empty()) {  // the last n bytes
    auto suffix = decimal(to);
    if (!suffix) return std::nullopt;
    if (*suffix == 0 || size == 0) return none;
    return ByteRange{size - std::min(*suffix, size), size - 1};
  }
  auto first = decimal(from);
  auto last = to.empty() ? std::optional<std::uint64_t>(UINT64_MAX) : decimal(to);
  if (!first || !last || *last < *first) return std::nullopt;
  if (*first >= size) return none;
  return ByteRange{*first, std::min(*last, size - 1)};
}

Response answerFile(const Request& req, Response whole, const FileFacts& facts) {
  whole.withHeader("Accept-Ranges", "bytes");
  if (facts.stable) {
    if (!facts.etag.empty()) whole.withHeader("ETag", facts.etag);
    whole.withHeader("Last-Modified", httpDate(facts.modified));
    if (notModified(req, facts)) {
      Response current;
      current.status = 304;
      for (const auto& [name, value] : whole.headers) {
        if (name == "ETag" || name == "Last-Modified" || name == "Accept-Ranges") {
          current.withHeader(name, value);
        }
      }
      return current;
    }
  }
  if (req.method != "GET" || req.headOnly || !rangeStillApplies(req, facts)) return whole;
  auto range = requestedRange(req.header("range"), facts.size);
  if (!range) return whole;
  if (range->first > range->last) {
    return errorResponse(416, "requested range not satisfiable")
        .withHeader("Content-Range", "bytes */" + std::to_string(facts.size));
  }
  whole.status = 206;
  whole.fileOffset = range->first;
  whole.fileLength = range->last - range->first + 1;
  whole.withHeader("Content-Range", "bytes " + std::to_string(range->first) + "-" +
                                        std::to_string(range->last) + "/" +
                                        std::to_string(facts.size));
  return whole;
}

}  // namespace quill::http
