#include "sso/web_text.h"

#include <cctype>

namespace quill::sso {

std::string htmlEscape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out.push_back(c);
    }
  }
  return out;
}

std::optional<UrlParts> splitUrl(std::string_view url) {
  std::size_t schemeEnd = 0;
  if (url.starts_with("https://")) {
    schemeEnd = 8;
  } else if (url.starts_with("http://")) {
    schemeEnd = 7;
  } else {
    return std::nullopt;
  }
  const std::size_t pathStart = url.find_first_of("/?#", schemeEnd);
  const std::string_view authority =
      url.substr(schemeEnd, pathStart == std::string_view::npos ? url.npos : pathStart - schemeEnd);
  if (authority.empty() || authority.find('@') != std::string_view::npos) return std::nullopt;
  // A port, when present, is 1 to 5 digits after the last ":" (outside an IPv6 literal).
  const std::size_t colon = authority.rfind(':');
  const std::size_t bracket = authority.rfind(']');
  if (colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket)) {
    const std::string_view port = authority.substr(colon + 1);
    if (colon == 0 || port.empty() || port.size() > 5) return std::nullopt;
    for (char c : port) {
      if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
    }
  }
  for (char c : authority) {
    if (static_cast<unsigned char>(c) <= ' ') return std::nullopt;
  }
  UrlParts parts;
  parts.origin = std::string(url.substr(0, schemeEnd + authority.size()));
  if (pathStart != std::string_view::npos) parts.path = std::string(url.substr(pathStart));
  return parts;
}

}  // namespace quill::sso
