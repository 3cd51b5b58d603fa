#pragma once
// Answers "is this chunk stored?" from one listing of "chunks/" instead of one request per chunk,
// so a nightly run over a data directory that barely changed costs a few listing pages, not a
// request for every chunk it holds.
//
// Only sound while nothing else deletes chunks from the store: a run holds the data directory's
// lock, which keeps this server's prunes away, and no other server may use the same bucket and
// prefix. A chunk the listing does not show is absent; one that appears later (put through this
// store) is remembered.

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "rill/storage_provider.h"

namespace quill::backup {

// `exists` of a key under "chunks/" lists "chunks/" once (a failed listing is the failure of
// that call, and the next call lists again) and answers from the listing and the puts since;
// every other call passes through to `inner`.
class ListedChunksStore final : public rill::StorageProvider {
 public:
  explicit ListedChunksStore(rill::StorageProviderPtr inner) : inner_(std::move(inner)) {}

  bool put(const std::string& key, std::string_view body, std::string* error = nullptr) override;
  bool get(const std::string& key, std::string& body, std::string* error = nullptr) override;
  std::optional<rill::ObjectInfo> exists(const std::string& key,
                                         std::string* error = nullptr) override;
  std::optional<std::vector<rill::ObjectEntry>> list(const std::string& prefix,
                                                     std::string* error = nullptr) override;
  bool remove(const std::string& key, std::string* error = nullptr) override;
  std::string chunkKey(const std::string& chunkId) const override;

 private:
  rill::StorageProviderPtr inner_;
  std::mutex mutex_;
  std::optional<std::unordered_map<std::string, std::int64_t>> chunks_;  // key -> stored size
};

}  // namespace quill::backup
