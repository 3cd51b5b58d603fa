#pragma once
// The store every backup operation talks to: the bucket, under the prefix, sealed with the key.

#include <string>

#include "base/result.h"
#include "rill/transport/s3_settings.h"
#include "rill/providers/storage_provider.h"

namespace quill::backup {

// An EncryptedProvider over a PrefixedProvider of `s3.prefix` (an empty prefix adds nothing) over
// an S3Provider.
// `keyArgument` is a key file path or the key's hexadecimal text, the file tried first. A key that
// does not resolve builds nothing and fails with "key file <path> is missing" (an argument that is
// not key text and names no file), "cannot read key file <path>: <reason>" (a file there that
// cannot be opened), or else "encryption key must be 64 hex chars (or a file containing them)".
base::Result<rill::StorageProviderPtr> openBackupStore(const rill::S3Settings& s3,
                                                       const std::string& keyArgument);

// The refusal of a set-up whose bucket and prefix already hold snapshots that `keyArgument` cannot
// read: "bucket '<bucket>' already holds <n> snapshot(s) this key cannot read (another server's?)
// - use another bucket or prefix". Empty when there are none, or when the bucket cannot be listed
// (the set-up's own probe judges reachability).
std::string foreignSnapshots(const rill::S3Settings& s3, const std::string& keyArgument);

}  // namespace quill::backup
