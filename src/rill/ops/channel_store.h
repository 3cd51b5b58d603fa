#pragma once
// Keeping a store tidy: forgetting a channel's build, and removing the chunks no manifest needs.

#include <cstdint>
#include <string>
#include <vector>

#include "rill/chunks/manifest.h"
#include "rill/result.h"
#include "rill/providers/storage_provider.h"

namespace quill::rill {

// Removes the channel's manifest and signature (missing ones are no error). Its chunks stay: other
// channels may share them; sweepChunks collects the orphans. Fails with "DELETE failed: <reason>".
Result<bool> deleteChannelBuild(StorageProvider& store, const std::string& channel);

// The manifests of every channel in the store (keys "channels/<name>/manifest.json"). Fails with
// "LIST failed: <reason>", "GET failed: <reason>" or "<key>: <parse message>": a sweep must not
// run on a partial picture.
Result<std::vector<Manifest>> readChannelManifests(StorageProvider& store);

struct SweepReport {
  std::uint64_t kept = 0;          // chunk objects still named by a manifest
  std::uint64_t removed = 0;       // chunk objects deleted
  std::uint64_t removedBytes = 0;  // their stored sizes, where the listing gave them
};

// Deletes every object under "chunks/" whose key is not the chunk key of a chunk in `live`.
// Fails with "LIST failed: <reason>" or "DELETE failed: <reason>"; chunks deleted before a
// failure stay deleted. With `dryRun`, only counts what would go.
Result<SweepReport> sweepChunks(StorageProvider& store, const std::vector<Manifest>& live,
                                bool dryRun = false);

}  // namespace quill::rill
