#include "http/url.h"

#include "base/percent_encoding.h"

namespace quill::http {

std::optional<std::map<std::string, std::string, std::less<>>> parseQuery(std::string_view query) {
  std::map<std::string, std::string, std::less<>> params;
  while (!query.empty()) {
    std::size_t amp = query.find('&');
    std::string_view pair = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    if (pair.empty()) continue;
    std::size_t eq = pair.find('=');
    auto name = base::percentDecode(pair.substr(0, eq), true);
    auto value = base::percentDecode(eq == std::string_view::npos ? "" : pair.substr(eq + 1), true);
    if (!name || !value) return std::nullopt;
    params.emplace(std::move(*name), std::move(*value));
  }
  return params;
}

bool splitTarget(std::string_view target, std::string& path,
                 std::map<std::string, std::string, std::less<>>& query) {
  if (target.empty() || target.front() != '/') return false;
  const std::size_t q = target.find('?');
  auto decodedPath = base::percentDecode(target.substr(0, q), false);
  auto decodedQuery = parseQuery(q == std::string_view::npos ? "" : target.substr(q + 1));
  if (!decodedPath || !decodedQuery) return false;
  path = std::move(*decodedPath);
  query = std::move(*decodedQuery);
  return true;
}

}  // namespace quill::http
