#include "http/url.h"

namespace quill::http {

namespace {
int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

std::optional<std::string> percentDecode(std::string_view text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+' && plusIsSpace) {
      out.push_back(' ');
      continue;
    }
    if (c != '%') {
      out.push_back(c);
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    int hi = hexValue(text[i + 1]);
    int lo = hexValue(text[i + 2]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out.push_back(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  return out;
}

std::optional<std::map<std::string, std::string, std::less<>>> parseQuery(std::string_view query) {
  std::map<std::string, std::string, std::less<>> params;
  while (!query.empty()) {
    std::size_t amp = query.find('&');
    std::string_view pair = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    if (pair.empty()) continue;
    std::size_t eq = pair.find('=');
    auto name = percentDecode(pair.substr(0, eq), true);
    auto value = percentDecode(eq == std::string_view::npos ? "" : pair.substr(eq + 1), true);
    if (!name || !value) return std::nullopt;
    params.emplace(std::move(*name), std::move(*value));
  }
  return params;
}

bool splitTarget(std::string_view target, std::string& path,
                 std::map<std::string, std::string, std::less<>>& query) {
  if (target.empty() || target.front() != '/') return false;
  const std::size_t q = target.find('?');
  auto decodedPath = percentDecode(target.substr(0, q), false);
  auto decodedQuery = parseQuery(q == std::string_view::npos ? "" : target.substr(q + 1));
  if (!decodedPath || !decodedQuery) return false;
  path = std::move(*decodedPath);
  query = std::move(*decodedQuery);
  return true;
}

}  // namespace quill::http
