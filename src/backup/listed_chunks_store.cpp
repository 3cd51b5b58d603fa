#include "backup/listed_chunks_store.h"

namespace quill::backup {

namespace {

bool isChunkKey(const std::string& key) { return key.starts_with("chunks/"); }

}  // namespace

bool ListedChunksStore::put(const std::string& key, std::string_view body, std::string* error) {
  if (!inner_->put(key, body, error)) return false;
  std::lock_guard lock(mutex_);
  // The size as stored is unknown here (a layer below may seal the body); -1 says so.
  if (chunks_ && isChunkKey(key)) chunks_->insert_or_assign(key, -1);
  return true;
}

bool ListedChunksStore::get(const std::string& key, std::string& body, std::string* error) {
  return inner_->get(key, body, error);
}

std::optional<rill::ObjectInfo> ListedChunksStore::exists(const std::string& key,
                                                          std::string* error) {
  if (!isChunkKey(key)) return inner_->exists(key, error);
  std::lock_guard lock(mutex_);
  if (!chunks_) {
    auto entries = inner_->list("chunks/", error);
    if (!entries) return std::nullopt;
    chunks_.emplace();
    for (const rill::ObjectEntry& entry : *entries) chunks_->emplace(entry.key, entry.size);
  }
  const auto found = chunks_->find(key);
  if (found == chunks_->end()) return rill::ObjectInfo{false, -1};
  return rill::ObjectInfo{true, found->second};
}

std::optional<std::vector<rill::ObjectEntry>> ListedChunksStore::list(const std::string& prefix,
                                                                      std::string* error) {
  return inner_->list(prefix, error);
}

bool ListedChunksStore::remove(const std::string& key, std::string* error) {
  if (!inner_->remove(key, error)) return false;
  std::lock_guard lock(mutex_);
  if (chunks_) chunks_->erase(key);
  return true;
}

std::string ListedChunksStore::chunkKey(const std::string& chunkId) const {
  return inner_->chunkKey(chunkId);
}

}  // namespace quill::backup
