#include "rill/providers/encrypted_provider.h"

#include <sodium.h>

#include <span>
#include <utility>

#include "base/hex.h"
#include "base/process_init.h"

namespace quill::rill {

EncryptedProvider::EncryptedProvider(const EncryptionKey& key, StorageProviderPtr inner)
    : key_(key), inner_(std::move(inner)) {
  base::initializeLibraries();  // libsodium's random source and fastest implementations
}

EncryptedProvider::~EncryptedProvider() { sodium_memzero(key_.data(), key_.size()); }

Result<bool> EncryptedProvider::put(const std::string& key, std::string_view body) {
  return inner_->put(key, sealObject(body, key_));
}

Result<std::string> EncryptedProvider::get(const std::string& key, std::uint64_t maxBytes) {
  const std::uint64_t sealedMax =
      maxBytes > kAnySize - kSealedOverhead ? kAnySize : maxBytes + kSealedOverhead;
  const auto sealed = inner_->get(key, sealedMax);
  if (!sealed) return sealed.failure();
  OpenedObject opened = openObject(sealed.value(), key_);
  if (opened.ok) return std::move(opened.plain);
  return Failure(opened.error == OpenError::kNotSealed
                     ? key + ": not an encrypted object (wrong store, or written without a key)"
                     : key + ": decryption failed (wrong key, or the object is corrupt)");
}

Result<ObjectInfo> EncryptedProvider::exists(const std::string& key) { return inner_->exists(key); }

Result<std::vector<ObjectEntry>> EncryptedProvider::list(const std::string& prefix) {
  return inner_->list(prefix);
}

Result<bool> EncryptedProvider::remove(const std::string& key) { return inner_->remove(key); }

std::string EncryptedProvider::chunkKey(const std::string& chunkId) const {
  std::uint8_t digest[32];
  crypto_generichash(digest, sizeof digest, reinterpret_cast<const unsigned char*>(chunkId.data()),
                     chunkId.size(), key_.data(), key_.size());
  return defaultChunkKey(base::toHex(std::span<const std::uint8_t>(digest)));
}

}  // namespace quill::rill
