#pragma once
// The store every backup operation talks to: the bucket, under the prefix, sealed with the key.

#include <string>

#include "rill/result.h"
#include "rill/s3_settings.h"
#include "rill/storage_provider.h"

namespace quill::backup {

// An EncryptedProvider over a PrefixedProvider of `s3.prefix` (an empty prefix adds nothing) over
// an S3Provider.
// `keyArgument` is a key file path or the key's hexadecimal text, the file tried first; a key that
// does not resolve fails with "encryption key must be 64 hex chars (or a file containing them)"
// and builds nothing.
rill::Result<rill::StorageProviderPtr> openBackupStore(const rill::S3Settings& s3,
                                                       const std::string& keyArgument);

}  // namespace quill::backup
