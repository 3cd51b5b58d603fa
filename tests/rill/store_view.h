#pragma once
// A view of a store the test owns, so that every provider a test builds sees the same objects.
// `before` hears of each operation and key (from any thread) before the store does: a test acts
// at a chosen moment, say rewrites a file or publishes too.

#include <functional>
#include <mutex>

#include "rill/providers/storage_provider.h"

namespace quill::rill::test {

class StoreView final : public StorageProvider {
 public:
  using Hook = std::function<void(std::string_view operation, const std::string& key)>;
  explicit StoreView(StorageProvider& inner, Hook before = {})
      : inner_(inner), before_(std::move(before)) {}

  Result<bool> put(const std::string& key, std::string_view body) override {
    return at("put", key).put(key, body);
  }
  Result<std::string> get(const std::string& key, std::uint64_t maxBytes) override {
    return at("get", key).get(key, maxBytes);
  }
  Result<ObjectInfo> exists(const std::string& key) override { return at("exists", key).exists(key); }
  Result<std::vector<ObjectEntry>> list(const std::string& key) override {
    return at("list", key).list(key);
  }
  Result<bool> remove(const std::string& key) override { return at("remove", key).remove(key); }
  std::string chunkKey(const std::string& id) const override { return inner_.chunkKey(id); }

 private:
  StorageProvider& at(std::string_view operation, const std::string& key) {
    if (before_) before_(operation, key);
    return inner_;
  }

  StorageProvider& inner_;
  Hook before_;
};

// Runs `action` once, on the first `operation` on a key with `prefix` (and `suffix`).
inline StoreView::Hook once(std::string_view operation, std::string prefix,
                            std::function<void()> action, std::string suffix = "") {
  auto fired = std::make_shared<std::once_flag>();
  return [=, op = std::string(operation)](std::string_view called, const std::string& key) {
    if (action && called == op && key.starts_with(prefix) && key.ends_with(suffix)) {
      std::call_once(*fired, action);
    }
  };
}

}  // namespace quill::rill::test
