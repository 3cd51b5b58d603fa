#pragma once
// Request-target decoding.

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace quill::http {

// Decodes %XX escapes; with `plusIsSpace` also "+" as a space (query strings). Returns nullopt for
// a malformed escape ("%", "%4", "%zz").
std::optional<std::string> percentDecode(std::string_view text, bool plusIsSpace);

// Splits "a=1&b=x%20y" into decoded pairs; the first occurrence of a name wins, a name without
// "=" has an empty value. Returns nullopt when any part is malformed.
std::optional<std::map<std::string, std::string, std::less<>>> parseQuery(std::string_view query);

}  // namespace quill::http
