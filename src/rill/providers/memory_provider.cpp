#include "rill/providers/memory_provider.h"

#include "base/http_client.h"

namespace quill::rill {

Result<bool> MemoryProvider::put(const std::string& key, std::string_view body) {
  std::lock_guard lock(mutex_);
  objects_[key] = std::string(body);
  return true;
}

Result<std::string> MemoryProvider::get(const std::string& key, std::uint64_t maxBytes) {
  std::lock_guard lock(mutex_);
  const auto it = objects_.find(key);
  if (it == objects_.end()) return Failure::fromStatus("GET " + key + " -> not found", 404);
  if (it->second.size() > maxBytes) return Failure("GET " + key + ": " + base::tooLarge(maxBytes));
  return it->second;
}

Result<ObjectInfo> MemoryProvider::exists(const std::string& key) {
  std::lock_guard lock(mutex_);
  const auto it = objects_.find(key);
  if (it == objects_.end()) return ObjectInfo{};
  return ObjectInfo{true, static_cast<std::int64_t>(it->second.size())};
}

Result<std::vector<ObjectEntry>> MemoryProvider::list(const std::string& prefix) {
  std::lock_guard lock(mutex_);
  std::vector<ObjectEntry> entries;
  for (auto it = objects_.lower_bound(prefix);
       it != objects_.end() && it->first.starts_with(prefix); ++it) {
    entries.push_back({it->first, static_cast<std::int64_t>(it->second.size())});
  }
  return entries;
}

Result<bool> MemoryProvider::remove(const std::string& key) {
  std::lock_guard lock(mutex_);
  objects_.erase(key);
  return true;
}

std::size_t MemoryProvider::size() const {
  std::lock_guard lock(mutex_);
  return objects_.size();
}

}  // namespace quill::rill
