#include "http/request.h"

#include <strings.h>

namespace quill::http {

bool isLoopbackAddress(std::string_view address) {
  return address == "::1" || address.starts_with("127.") || address.starts_with("::ffff:127.");
}

namespace {
bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}
}  // namespace

void Headers::add(std::string name, std::string value) {
  fields_.emplace_back(std::move(name), std::move(value));
}

std::optional<std::string_view> Headers::find(std::string_view name) const {
  for (const auto& [key, value] : fields_) {
    if (equalsIgnoreCase(key, name)) return std::string_view(value);
  }
  return std::nullopt;
}

std::optional<std::string_view> Request::param(std::string_view name) const {
  auto it = query.find(name);
  if (it == query.end()) return std::nullopt;
  return std::string_view(it->second);
}

const std::string& Request::segment() const {
  static const std::string empty;
  return segments.empty() ? empty : segments.front();
}

}  // namespace quill::http
