#pragma once
// A store held in memory: the reference behaviour for tests of everything built on providers.

#include <map>
#include <mutex>

#include "rill/providers/storage_provider.h"

namespace quill::rill {

// Behaves like a bucket: get of a missing key fails with "GET <key> -> not found", remove of a
// missing key succeeds, list returns keys in ascending byte order. Thread-safe.
class MemoryProvider final : public StorageProvider {
 public:
  Result<bool> put(const std::string& key, std::string_view body) override;
  Result<std::string> get(const std::string& key, std::uint64_t maxBytes = kAnySize) override;
  Result<ObjectInfo> exists(const std::string& key) override;
  Result<std::vector<ObjectEntry>> list(const std::string& prefix) override;
  Result<bool> remove(const std::string& key) override;

  // Number of objects held.
  std::size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> objects_;
};

}  // namespace quill::rill
