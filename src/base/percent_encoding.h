#pragma once
// Percent-encoding (RFC 3986) of text in URLs and forms.

#include <optional>
#include <string>
#include <string_view>

namespace quill::base {

// Keeps ASCII letters, digits, '-', '.', '_' and '~' (and '/' when `keepSlash`); every other byte
// becomes '%' and two upper-case hexadecimal digits. This suits query and form values, bucket
// names and signed S3 paths alike (object keys keep '/').
std::string percentEncode(std::string_view text, bool keepSlash = false);

// Decodes %XX escapes (either letter case); with `plusIsSpace` also "+" as a space (query
// strings). Returns nullopt for a malformed escape ("%", "%4", "%zz").
std::optional<std::string> percentDecode(std::string_view text, bool plusIsSpace);

}  // namespace quill::base
