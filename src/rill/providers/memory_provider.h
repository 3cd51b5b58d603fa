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
  bool put(const std::string& key, std::string_view body, std::string* error = nullptr) override;
  bool get(const std::string& key, std::string& body, std::string* error = nullptr,
           std::uint64_t maxBytes = kAnySize) override;
  std::optional<ObjectInfo> exists(const std::string& key, std::string* error = nullptr) override;
  std::optional<std::vector<ObjectEntry>> list(const std::string& prefix,
                                               std::string* error = nullptr) override;
  bool remove(const std::string& key, std::string* error = nullptr) override;

  // Number of objects held.
  std::size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> objects_;
};

}  // namespace quill::rill
