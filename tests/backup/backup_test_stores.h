#pragma once
// Stores for backup tests: a view of a store the test owns (so every operation of a test, and the
// test itself, see the same objects), with an optional hook just before a manifest is written.

#include <functional>
#include <memory>
#include <string>

#include "rill/storage_provider.h"

namespace quill::backup::test {

class StoreView final : public rill::StorageProvider {
 public:
  explicit StoreView(rill::StorageProvider& inner, std::function<void()> beforeManifestPut = {})
      : inner_(inner), beforeManifestPut_(std::move(beforeManifestPut)) {}

  bool put(const std::string& key, std::string_view body, std::string* error) override {
    if (beforeManifestPut_ && key.ends_with("/manifest.json"))
      std::exchange(beforeManifestPut_, {})();
    return inner_.put(key, body, error);
  }
  bool get(const std::string& key, std::string& body, std::string* error,
           std::uint64_t maxBytes) override {
    return inner_.get(key, body, error, maxBytes);
  }
  std::optional<rill::ObjectInfo> exists(const std::string& key, std::string* error) override {
    return inner_.exists(key, error);
  }
  std::optional<std::vector<rill::ObjectEntry>> list(const std::string& prefix,
                                                     std::string* error) override {
    return inner_.list(prefix, error);
  }
  bool remove(const std::string& key, std::string* error) override {
    return inner_.remove(key, error);
  }
  std::string chunkKey(const std::string& chunkId) const override {
    return inner_.chunkKey(chunkId);
  }

 private:
  rill::StorageProvider& inner_;
  std::function<void()> beforeManifestPut_;  // called once
};

}  // namespace quill::backup::test
