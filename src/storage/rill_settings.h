#pragma once
// The bucket settings of Rill channels: `rill.json` in the data directory.

#include <filesystem>

#include "base/result.h"
#include "rill/s3_client.h"
#include "store/data_dir.h"

namespace quill::storage {

inline constexpr const char* kNotConfigured =
    "rill storage not configured (missing data-dir rill.json)";
inline constexpr const char* kIncomplete =
    "rill.json missing endpoint/bucket/access_key/secret_key";

std::filesystem::path rillSettingsPath(const store::DataDir& data);

// The stored settings, read afresh. Fails with kNotConfigured when the file is missing or does not
// parse, kIncomplete when a required member is missing; an absent region reads as "auto".
base::Result<rill::S3Settings> readRillSettings(const store::DataDir& data);

// Writes `rill.json` with `schema_version` 1 and the five settings, atomically, readable by its
// owner only (it holds the secret key). False on failure.
bool writeRillSettings(const store::DataDir& data, const rill::S3Settings& settings);

}  // namespace quill::storage
