#pragma once
// Base64url (RFC 4648 section 5): the alphabet of JSON Web Tokens and PKCE challenges.

#include <optional>
#include <string>
#include <string_view>

namespace quill::base {

// Encodes without "=" padding.
std::string base64urlEncode(std::string_view bytes);

// Decodes unpadded (or "="-padded) input; nullopt for a character outside the alphabet or an
// impossible length.
std::optional<std::string> base64urlDecode(std::string_view text);

}  // namespace quill::base
