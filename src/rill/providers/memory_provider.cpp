#include "rill/providers/memory_provider.h"

#include "base/http_client.h"

namespace quill::rill {

bool MemoryProvider::put(const std::string& key, std::string_view body, std::string*) {
  std::lock_guard lock(mutex_);
  objects_[key] = std::string(body);
  return true;
}

bool MemoryProvider::get(const std::string& key, std::string& body, std::string* error,
                             std::uint64_t maxBytes) {
  std::lock_guard lock(mutex_);
  const auto it = objects_.find(key);
  if (it == objects_.end()) return fail(error, "GET " + key + " -> not found");
  if (it->second.size() > maxBytes) {
    return fail(error, "GET " + key + ": " + base::tooLarge(maxBytes));
  }
  body = it->second;
  return true;
}

std::optional<ObjectInfo> MemoryProvider::exists(const std::string& key, std::string*) {
  std::lock_guard lock(mutex_);
  const auto it = objects_.find(key);
  if (it == objects_.end()) return ObjectInfo{};
  return ObjectInfo{true, static_cast<std::int64_t>(it->second.size())};
}

std::optional<std::vector<ObjectEntry>> MemoryProvider::list(const std::string& prefix,
                                                             std::string*) {
  std::lock_guard lock(mutex_);
  std::vector<ObjectEntry> entries;
  for (auto it = objects_.lower_bound(prefix);
       it != objects_.end() && it->first.starts_with(prefix); ++it) {
    entries.push_back({it->first, static_cast<std::int64_t>(it->second.size())});
  }
  return entries;
}

bool MemoryProvider::remove(const std::string& key, std::string*) {
  std::lock_guard lock(mutex_);
  objects_.erase(key);
  return true;
}

std::size_t MemoryProvider::size() const {
  std::lock_guard lock(mutex_);
  return objects_.size();
}

}  // namespace quill::rill
