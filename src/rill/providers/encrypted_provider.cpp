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

bool EncryptedProvider::put(const std::string& key, std::string_view body, std::string* error) {
  return inner_->put(key, sealObject(body, key_), error);
}

bool EncryptedProvider::get(const std::string& key, std::string& body, std::string* error,
                                std::uint64_t maxBytes) {
  std::string sealed;
  const std::uint64_t sealedMax =
      maxBytes > kAnySize - kSealedOverhead ? kAnySize : maxBytes + kSealedOverhead;
  if (!inner_->get(key, sealed, error, sealedMax)) return false;
  OpenedObject opened = openObject(sealed, key_);
  if (!opened.ok) {
    return fail(error,
                opened.error == OpenError::kNotSealed
                    ? key + ": not an encrypted object (wrong store, or written without a key)"
                    : key + ": decryption failed (wrong key, or the object is corrupt)");
  }
  body = std::move(opened.plain);
  return true;
}

std::optional<ObjectInfo> EncryptedProvider::exists(const std::string& key, std::string* error) {
  return inner_->exists(key, error);
}

std::optional<std::vector<ObjectEntry>> EncryptedProvider::list(const std::string& prefix,
                                                                std::string* error) {
  return inner_->list(prefix, error);
}

bool EncryptedProvider::remove(const std::string& key, std::string* error) {
  return inner_->remove(key, error);
}

std::string EncryptedProvider::chunkKey(const std::string& chunkId) const {
  std::uint8_t digest[32];
  crypto_generichash(digest, sizeof digest, reinterpret_cast<const unsigned char*>(chunkId.data()),
                     chunkId.size(), key_.data(), key_.size());
  return defaultChunkKey(base::toHex(std::span<const std::uint8_t>(digest)));
}

}  // namespace quill::rill
