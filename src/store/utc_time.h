#pragma once
// Time stamps inside documents: UTC text "%Y-%m-%dT%H:%M:%SZ", e.g. "2026-05-01T09:30:00Z".

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quill::store {

// The current time; "invalid" if the conversion fails.
std::string nowUtcText();

// `epochSeconds` as UTC text; "invalid" if the conversion fails.
std::string formatUtc(std::int64_t epochSeconds);

// Reads six integers with the pattern "%d-%d-%dT%d:%d:%d" (the trailing Z is not checked) and
// converts them as UTC. `sixNumbers` tells an unreadable text from one whose numbers do not make a
// time; `seconds` is set only when both steps succeed.
struct ParsedUtc {
  bool sixNumbers = false;
  std::optional<std::int64_t> seconds;
};
ParsedUtc readUtc(std::string_view text);

// readUtc(text).seconds.
std::optional<std::int64_t> parseUtc(std::string_view text);

}  // namespace quill::store
