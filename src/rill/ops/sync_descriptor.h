#pragma once
// The sync descriptor of a Rill channel: presigned links to its manifest, signature and chunks,
// which a server hands to clients so that they download straight from the bucket.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "rill/chunks/manifest.h"
#include "rill/ops/pull_source.h"
#include "rill/result.h"
#include "rill/transport/s3_client.h"

namespace quill::rill {

// A descriptor longer than this is neither written nor read: about 250,000 chunk links, far more
// than a build of ordinary chunk sizes has, and little enough that a client holds it comfortably.
inline constexpr std::uint64_t kMaxSyncDescriptorBytes = 128 * 1024 * 1024;

// Takes the descriptor's text piece by piece; false stops the writing.
using TextSink = std::function<bool(std::string_view)>;

// Writes the descriptor of `manifest` to `out` as indented JSON (two spaces, `"name" : value`,
// members in ascending order) with a final newline: `build`, `channel` and `created` copied from
// `manifest`, `chunks` (every chunk id of the manifest's files -> a presigned GET of its default
// chunk key), `manifest_sig_url` and `manifest_url` (presigned GETs of the manifest and signature
// keys of `channel`); links valid `ttlSeconds`. One link is held at a time, so the cost is the
// manifest's, not the descriptor's. Fails with "sync descriptor larger than <n> bytes" (after
// `maxBytes` were written) or "cannot write sync descriptor" when `out` refused a piece.
Result<std::uint64_t> writeSyncDescriptor(const S3Client& bucket, const std::string& channel,
                                          const Manifest& manifest, std::int64_t ttlSeconds,
                                          const TextSink& out,
                                          std::uint64_t maxBytes = kMaxSyncDescriptorBytes);

// The links of a descriptor as a server answered it. Never throws; fails with
// "sync descriptor: <what>" (text over kMaxSyncDescriptorBytes, not JSON, nested too deep, not an
// object, a member missing or of the wrong type).
Result<PresignedLinks> parseSyncDescriptor(std::string_view text);

}  // namespace quill::rill
