#include "rill/providers/storage_provider.h"

namespace quill::rill {

std::string defaultChunkKey(std::string_view chunkId) {
  return "chunks/" + std::string(chunkId.substr(0, 2)) + "/" + std::string(chunkId);
}

std::string StorageProvider::chunkKey(const std::string& chunkId) const {
  return defaultChunkKey(chunkId);
}

}  // namespace quill::rill
