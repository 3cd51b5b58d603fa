#pragma once
// Request-target decoding.

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace quill::http {

// Splits "a=1&b=x%20y" into decoded pairs; the first occurrence of a name wins, a name without
// "=" has an empty value. Returns nullopt when any part is malformed.
std::optional<std::map<std::string, std::string, std::less<>>> parseQuery(std::string_view query);

// Splits a request target ("/path?query") into its decoded path and query. Returns false when
// the target does not start with "/" or either part is malformed.
bool splitTarget(std::string_view target, std::string& path,
                 std::map<std::string, std::string, std::less<>>& query);

}  // namespace quill::http
