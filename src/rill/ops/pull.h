#pragma once
// Pulling a channel's build into a directory: fetch and check the manifest, reuse the chunks the
// directory already holds, download and verify the rest, and put each file in place whole.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "rill/chunks/manifest.h"
#include "rill/ops/pull_source.h"
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
  // Files written readable by the owner only (0600): secrets, when a restore writes them.
  std::function<bool(std::string_view path)> ownerOnly;
  // Called from worker threads after each chunk, one call at a time.
  std::function<void(const PullProgress&)> progress;
};

struct PullReport {
  Manifest manifest;
  PullProgress totals;
  std::uint64_t unchangedFiles = 0;  // files already in place with the manifest's chunks
};

// The directory a pull keeps in its target for itself: files being assembled ("parts/") and the
// manifest it last installed. No build path can name it (such a manifest is refused), scans of the
// target pass it over, and a publish of the directory leaves it out.
inline constexpr std::string_view kPullStateDir = ".quillmoor-rill";

// The manifest of `options.channel` from `source`, checked. With a verify key the bytes are
// verified before anything in them is read ("channel '<channel>' has no signature but verification
// is required", or the messages of verifyManifest). Then it is parsed (its messages), checked to be
// for the requested channel ("manifest is for channel '<found>', not '<requested>'"), and every
// path must be safe and outside kPullStateDir ("unsafe path in manifest: <path>").
Result<Manifest> fetchCheckedManifest(PullSource& source, const PullOptions& options);

// Pulls `options.channel` into `target` (created when missing), in three steps:
// 1. Files the directory already holds with exactly the manifest's chunks are left alone. The
//    others are assembled in kPullStateDir from chunks found in the directory or in earlier,
//    interrupted pulls (re-hashed before use), or fetched and decoded (the messages of decodeChunk
//    and of the source), then size-checked ("size mismatch for <path>") and flushed. A failure
//    here stops the pull with the target as it was; a later pull reuses what was assembled.
// 2. Files that the previously installed manifest named and this one does not are removed (files
//    the pull never installed are left alone), with the directories they leave empty.
// 3. Each assembled file is moved into place ("'<path>' is in use - could not replace it
//    (<reason>)"), replacing a link or file there; a directory in the way goes when only empty
//    directories are left in it ("cannot replace directory <path> with a file (it holds other
//    files)"). Then the manifest is remembered.
// Nothing is written through a link found in the target. Write failures give
// "write failed for <path>", open failures "cannot open <path>".
Result<PullReport> pullChannel(PullSource& source, const std::filesystem::path& target,
                               const PullOptions& options);

// Removes kPullStateDir from `target`: for a restore, which pulls once into a new directory.
void removePullState(const std::filesystem::path& target);

}  // namespace quill::rill
