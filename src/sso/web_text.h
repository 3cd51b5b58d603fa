#pragma once
// Text that goes into HTML, and the parts of a provider URL.

#include <optional>
#include <string>
#include <string_view>

namespace quill::sso {

// Replaces &, <, >, " and ' with character references, so any text is inert inside HTML.
std::string htmlEscape(std::string_view text);

// "http(s)://host[:port]" and the path after it ("" when there is none).
struct UrlParts {
  std::string origin;
  std::string path;
};

// Splits an absolute http or https URL; nullopt when `url` is not one (other scheme, no host,
// bad port).
std::optional<UrlParts> splitUrl(std::string_view url);

}  // namespace quill::sso
