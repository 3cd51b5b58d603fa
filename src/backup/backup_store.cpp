#include "backup/backup_store.h"

#include <sodium.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "backup/backup_texts.h"
#include "backup/snapshots.h"
#include "rill/providers/encrypted_provider.h"
#include "rill/providers/encryption_key.h"
#include "rill/providers/prefixed_provider.h"
#include "rill/providers/s3_provider.h"

namespace quill::backup {

namespace {

// Key text, perhaps mistyped (hexadecimal digits and blanks only), rather than a file name.
bool looksLikeKeyText(const std::string& argument) {
  return std::all_of(argument.begin(), argument.end(), [](unsigned char c) {
    return std::isxdigit(c) != 0 || std::isspace(c) != 0;
  });
}

// Why `argument` gave no key, in words a person can act on: a key file that is not there, or not
// readable by this account, is named as such; anything else gets the key-format message.
std::string keyProblem(const std::string& argument) {
  if (argument.empty() || looksLikeKeyText(argument)) return std::string(rill::kBadKeyMessage);
  std::error_code ec;
  if (!std::filesystem::exists(argument, ec) && !ec) return "key file " + argument + " is missing";
  std::ifstream file(argument, std::ios::binary);
  if (!file) return "cannot read key file " + argument + ": " + std::strerror(errno);
  return std::string(rill::kBadKeyMessage);
}

}  // namespace

base::Result<rill::StorageProviderPtr> openBackupStore(const rill::S3Settings& s3,
                                                       const std::string& keyArgument) {
  auto key = rill::resolveEncryptionKey(keyArgument);
  if (!key) return base::Failure{keyProblem(keyArgument)};
  rill::StorageProviderPtr store = std::make_unique<rill::S3Provider>(s3);
  if (!s3.prefix.empty()) {
    store = std::make_unique<rill::PrefixedProvider>(s3.prefix, std::move(store));
  }
  auto sealed = std::make_unique<rill::EncryptedProvider>(key.value(), std::move(store));
  sodium_memzero(key.value().data(), key.value().size());
  return rill::StorageProviderPtr(std::move(sealed));
}

std::string foreignSnapshots(const rill::S3Settings& s3, const std::string& keyArgument) {
  auto store = openBackupStore(s3, keyArgument);
  if (!store) return store.error();
  auto unreadable = unreadableSnapshots(*store.value());
  if (!unreadable || unreadable.value().empty()) return "";
  return "bucket '" + s3.bucket + "' already holds " + std::to_string(unreadable.value().size()) +
         text::kForeignSnapshots;
}

}  // namespace quill::backup
