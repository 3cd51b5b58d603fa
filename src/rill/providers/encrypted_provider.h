#pragma once
// Seals every object body with a 32-byte key ("RILLENC1" layout) and hides chunk ids behind keyed
// names, so a store without the key reveals neither content nor which chunks it holds.

#include "rill/providers/sealed_object.h"
#include "rill/providers/storage_provider.h"

namespace quill::rill {

// put seals the body and stores it under the same key. get fails with
// "<key>: not an encrypted object (wrong store, or written without a key)" or
// "<key>: decryption failed (wrong key, or the object is corrupt)". exists, list and remove pass
// through (sizes are those of the sealed objects, 48 bytes more than the plaintext).
// chunkKey is "chunks/" + d[0..2] + "/" + d, d the hexadecimal keyed BLAKE2b (32 bytes, keyed with
// the same key) of the chunk id text.
class EncryptedProvider final : public StorageProvider {
 public:
  EncryptedProvider(const EncryptionKey& key, StorageProviderPtr inner);
  ~EncryptedProvider() override;  // wipes the key
  EncryptedProvider(const EncryptedProvider&) = delete;
  EncryptedProvider& operator=(const EncryptedProvider&) = delete;

  Result<bool> put(const std::string& key, std::string_view body) override;
  Result<std::string> get(const std::string& key, std::uint64_t maxBytes = kAnySize) override;
  Result<ObjectInfo> exists(const std::string& key) override;
  Result<std::vector<ObjectEntry>> list(const std::string& prefix) override;
  Result<bool> remove(const std::string& key) override;
  std::string chunkKey(const std::string& chunkId) const override;

 private:
  EncryptionKey key_;
  StorageProviderPtr inner_;
};

}  // namespace quill::rill
