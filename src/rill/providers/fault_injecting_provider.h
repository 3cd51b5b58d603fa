#pragma once
// Wraps a provider and injects the faults a real store or network shows, so tests can see how the
// code above a provider copes: a failing Nth call, corrupted bytes, lost listing entries.

#include <array>
#include <mutex>
#include <optional>

#include "rill/providers/storage_provider.h"

namespace quill::rill {

class FaultInjectingProvider final : public StorageProvider {
 public:
  enum class Operation { kPut, kGet, kExists, kList, kRemove };

  explicit FaultInjectingProvider(StorageProviderPtr inner);

  // The `n`-th call (counting from 1, from now) of `operation` fails with
  // "injected failure: <operation> <key>" and does not reach the wrapped provider. 0 disarms.
  void failNth(Operation operation, int n);
  // Every body that get returns has its last byte flipped.
  void corruptGets(bool on);
  // Listings leave out entries whose key contains `text` (empty: none).
  void dropListEntriesContaining(std::string text);

  Result<bool> put(const std::string& key, std::string_view body) override;
  Result<std::string> get(const std::string& key, std::uint64_t maxBytes = kAnySize) override;
  Result<ObjectInfo> exists(const std::string& key) override;
  Result<std::vector<ObjectEntry>> list(const std::string& prefix) override;
  Result<bool> remove(const std::string& key) override;
  std::string chunkKey(const std::string& chunkId) const override;

 private:
  // The failure when this call of `operation` is the one to fail.
  std::optional<Failure> injected(Operation operation, const std::string& key);

  StorageProviderPtr inner_;
  std::mutex mutex_;
  std::array<int, 5> countdown_{};  // per operation: calls until the failure, 0 = none
  bool corruptGets_ = false;
  std::string dropText_;
};

}  // namespace quill::rill
