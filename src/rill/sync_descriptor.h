#pragma once
// The sync descriptor of a Rill channel: presigned links to its manifest, signature and chunks,
// which a server hands to clients so that they download straight from the bucket.

#include <json/value.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "rill/manifest.h"
#include "rill/pull_source.h"
#include "rill/result.h"
#include "rill/s3_client.h"

namespace quill::rill {

// `manifest_url` and `manifest_sig_url` (presigned GETs of the manifest and signature keys of
// `channel`), `build`, `created` and `channel` copied from `manifest`, and `chunks` (every chunk id
// of the manifest's files -> a presigned GET of its default chunk key); links valid `ttlSeconds`.
Json::Value buildSyncDescriptor(const S3Client& bucket, const std::string& channel,
                                const Manifest& manifest, std::int64_t ttlSeconds);

// The links of a descriptor as a server answered it. Fails with "sync descriptor: <what>".
Result<PresignedLinks> parseSyncDescriptor(std::string_view text);

}  // namespace quill::rill
