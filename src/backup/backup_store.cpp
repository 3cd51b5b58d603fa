#include "backup/backup_store.h"

#include <sodium.h>

#include <memory>

#include "rill/encrypted_provider.h"
#include "rill/encryption_key.h"
#include "rill/prefixed_provider.h"
#include "rill/s3_provider.h"

namespace quill::backup {

rill::Result<rill::StorageProviderPtr> openBackupStore(const rill::S3Settings& s3,
                                                       const std::string& keyArgument) {
  auto key = rill::resolveEncryptionKey(keyArgument);
  if (!key) return rill::Failure{key.error()};
  rill::StorageProviderPtr store = std::make_unique<rill::S3Provider>(s3);
  if (!s3.prefix.empty()) {
    store = std::make_unique<rill::PrefixedProvider>(s3.prefix, std::move(store));
  }
  auto sealed = std::make_unique<rill::EncryptedProvider>(key.value(), std::move(store));
  sodium_memzero(key.value().data(), key.value().size());
  return rill::StorageProviderPtr(std::move(sealed));
}

}  // namespace quill::backup
