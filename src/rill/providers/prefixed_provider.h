#pragma once
// Puts every key of a wrapped provider under a fixed prefix, so several stores can share a bucket.

#include "rill/providers/storage_provider.h"

namespace quill::rill {

// put/get/exists/remove use prefix + key. `list` lists prefix + the given prefix and strips the
// prefix from the keys it returns. Chunk keys are the default ones, relative to the prefix.
class PrefixedProvider final : public StorageProvider {
 public:
  PrefixedProvider(std::string prefix, StorageProviderPtr inner);

  Result<bool> put(const std::string& key, std::string_view body) override;
  Result<std::string> get(const std::string& key, std::uint64_t maxBytes = kAnySize) override;
  Result<ObjectInfo> exists(const std::string& key) override;
  Result<std::vector<ObjectEntry>> list(const std::string& prefix) override;
  Result<bool> remove(const std::string& key) override;

 private:
  std::string prefix_;
  StorageProviderPtr inner_;
};

}  // namespace quill::rill
