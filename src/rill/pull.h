#pragma once
// Pulling a channel's build into a directory: fetch and check the manifest, reuse the chunks the
// directory already holds, download and verify the rest, and put each file in place whole.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "rill/manifest.h"
#include "rill/pull_source.h"
#include "rill/result.h"

namespace quill::rill {

// Where a running pull stands; handed to the progress callback.
struct PullProgress {
  std::uint64_t chunksDone = 0;
  std::uint64_t chunksTotal = 0;  // chunks of the files that need writing
  std::uint64_t bytesDone = 0;
  std::uint64_t bytesTotal = 0;
  std::uint64_t downloaded = 0;       // chunks fetched from the source
  std::uint64_t downloadedBytes = 0;  // object bytes fetched
  std::uint64_t reused = 0;           // chunks copied from files already in the directory
};

struct PullOptions {
  std::string channel;
  std::string verifyKey;           // hexadecimal public key; empty: no verification required
  std::size_t networkThreads = 0;  // chunks fetched at once (each holds one); 0: 4 per core
  // Called from worker threads after each chunk, one call at a time.
  std::function<void(const PullProgress&)> progress;
};

struct PullReport {
  Manifest manifest;
  PullProgress totals;
  std::uint64_t unchangedFiles = 0;  // files already in place with the manifest's chunks
};

// The manifest of `options.channel` from `source`, checked: parsed (its messages), for the
// requested channel ("manifest is for channel '<found>', not '<requested>'"), every path safe
// ("unsafe path in manifest: <path>"), and, with a verify key, signed
// ("channel '<channel>' has no signature but verification is required", or the messages of
// verifyManifest).
Result<Manifest> fetchCheckedManifest(PullSource& source, const PullOptions& options);

// Pulls `options.channel` into `target` (created when missing). Files the directory already holds
// with exactly the manifest's chunks are left alone. The others are assembled in path + ".part"
// from chunks found in the directory (re-hashed before use) or fetched and decoded (the messages of
// decodeChunk and of the source), then size-checked ("size mismatch for <path>") and renamed over
// the target ("'<path>' is in use - could not replace it (<reason>)"). Write failures give
// "write failed for <path>", open failures "cannot open <path>". Stops at the first failure,
// leaving completed files in place and the ".part" files of the others, which a later pull reuses.
// Files of the directory that the manifest does not name are not touched.
Result<PullReport> pullChannel(PullSource& source, const std::filesystem::path& target,
                               const PullOptions& options);

}  // namespace quill::rill
