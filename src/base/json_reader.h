#pragma once
// The one JSON reader for bytes from outside (request bodies, documents on disk, manifests, answers
// of remote services). It never throws: text that is too large, nested too deep or not JSON is a
// failure with a one-line reason, so a hostile peer can cost at most the bytes it sent.

#include <json/value.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quill::base {

struct JsonLimits {
  std::size_t maxBytes = 64 * 1024 * 1024;  // longer text is refused unread
  unsigned maxDepth = 64;                   // arrays and objects nested deeper are refused
};

// Parses `text` as one JSON value (comments and trailing text refused). On failure returns nothing
// and, when `reason` is given, sets it to the parser's first message, "too large" or "nested too
// deep".
std::optional<Json::Value> parseJson(std::string_view text, std::string* reason = nullptr,
                                     const JsonLimits& limits = {});

// The same, for text that must be an object: anything else fails with "not a JSON object".
std::optional<Json::Value> parseJsonObject(std::string_view text, std::string* reason = nullptr,
                                           const JsonLimits& limits = {});

}  // namespace quill::base
