#include "rill/providers/prefixed_provider.h"

#include <utility>

namespace quill::rill {

PrefixedProvider::PrefixedProvider(std::string prefix, StorageProviderPtr inner)
    : prefix_(std::move(prefix)), inner_(std::move(inner)) {}

bool PrefixedProvider::put(const std::string& key, std::string_view body, std::string* error) {
  return inner_->put(prefix_ + key, body, error);
}

bool PrefixedProvider::get(const std::string& key, std::string& body, std::string* error,
                               std::uint64_t maxBytes) {
  return inner_->get(prefix_ + key, body, error, maxBytes);
}

std::optional<ObjectInfo> PrefixedProvider::exists(const std::string& key, std::string* error) {
  return inner_->exists(prefix_ + key, error);
}

std::optional<std::vector<ObjectEntry>> PrefixedProvider::list(const std::string& prefix,
                                                               std::string* error) {
  auto entries = inner_->list(prefix_ + prefix, error);
  if (!entries) return std::nullopt;
  std::vector<ObjectEntry> stripped;
  stripped.reserve(entries->size());
  for (ObjectEntry& entry : *entries) {
    if (!entry.key.starts_with(prefix_)) continue;
    stripped.push_back({entry.key.substr(prefix_.size()), entry.size});
  }
  return stripped;
}

bool PrefixedProvider::remove(const std::string& key, std::string* error) {
  return inner_->remove(prefix_ + key, error);
}

}  // namespace quill::rill
