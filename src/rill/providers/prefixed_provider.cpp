#include "rill/providers/prefixed_provider.h"

#include <utility>

namespace quill::rill {

PrefixedProvider::PrefixedProvider(std::string prefix, StorageProviderPtr inner)
    : prefix_(std::move(prefix)), inner_(std::move(inner)) {}

Result<bool> PrefixedProvider::put(const std::string& key, std::string_view body) {
  return inner_->put(prefix_ + key, body);
}

Result<std::string> PrefixedProvider::get(const std::string& key, std::uint64_t maxBytes) {
  return inner_->get(prefix_ + key, maxBytes);
}

Result<ObjectInfo> PrefixedProvider::exists(const std::string& key) {
  return inner_->exists(prefix_ + key);
}

Result<std::vector<ObjectEntry>> PrefixedProvider::list(const std::string& prefix) {
  auto entries = inner_->list(prefix_ + prefix);
  if (!entries) return entries.failure();
  std::vector<ObjectEntry> stripped;
  stripped.reserve(entries.value().size());
  for (ObjectEntry& entry : entries.value()) {
    if (!entry.key.starts_with(prefix_)) continue;
    stripped.push_back({entry.key.substr(prefix_.size()), entry.size});
  }
  return stripped;
}

Result<bool> PrefixedProvider::remove(const std::string& key) {
  return inner_->remove(prefix_ + key);
}

}  // namespace quill::rill
