#pragma once
// The snapshot engine over a backup store: a snapshot is a Rill publish of the whole data
// directory under a channel named after the snapshot. List, prune (with the sweep of chunks no
// manifest names) and restore work on the same store. None of these take the data directory's
// lock; the callers in backup_run.h do.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "rill/ops/publish.h"
#include "rill/ops/pull.h"
#include "rill/providers/storage_provider.h"

namespace quill::backup {

namespace fs = std::filesystem;

// "snap-" followed by the UTC time, "snap-%Y%m%d-%H%M%S".
std::string snapshotNameAt(std::chrono::system_clock::time_point when);

// A name beginning with "snap-" and exactly 20 characters long (the digits are not checked).
bool isSnapshotName(std::string_view name);

struct RunStats {
  std::uint64_t files = 0;
  std::uint64_t chunks = 0;          // distinct chunks of the snapshot
  std::uint64_t alreadyPresent = 0;  // found in the store, not uploaded
  std::uint64_t uploaded = 0;        // new chunks
  std::uint64_t bytes = 0;           // total size of the files
  std::uint64_t storedBytes = 0;     // bytes written for the new chunks, compressed and sealed
};

// Publishes `dataDir` as channel `name` to `store`, a sealing (encrypted) store, compressed,
// never forced. The snapshot holds every regular file but the work in progress of
// DataDir::isWorkInProgress, and follows the links of DataDir::isVolumeLink as directories; a file
// that changes or vanishes during the run is taken as it was when it was read, or left out. Fails
// with the publisher's messages ("cannot reach store: ...", "channel '<name>' already published
// (use --force to overwrite)", ...). The manifest is written last, so a snapshot that lists names
// only chunks already stored.
base::Result<RunStats> publishSnapshot(
    rill::StorageProvider& store, const fs::path& dataDir, const std::string& name,
    const std::function<void(const rill::PublishProgress&)>& progress = {});

// The snapshot names in the store, oldest first. Other channels are ignored. Fails with the
// provider's listing reason.
base::Result<std::vector<std::string>> listSnapshots(rill::StorageProvider& store);

// The manifest of snapshot `name`, as stored and checked.
base::Result<rill::Manifest> readSnapshotManifest(rill::StorageProvider& store,
                                                  const std::string& name);

struct PruneResult {
  std::uint64_t kept = 0;
  std::uint64_t removed = 0;
  std::uint64_t sweptChunks = 0;
  std::uint64_t sweptBytes = 0;
};

// Keeps the newest `keep` snapshots. With `keep` below 1, succeeds and does nothing. Otherwise
// first reads every manifest under "channels/" (of every channel): one this key cannot read means
// the bucket holds what this server did not write (another server's snapshots, a damaged object),
// so nothing is deleted ("refusing to prune ...: <reason>"). Then deletes the oldest surplus
// snapshots in ascending order (`onRemoved` after each) and sweeps: reads every manifest again and
// deletes every chunk none of them names. Fails with "list: <reason>", "delete <name>: <reason>"
// (snapshots deleted before it stay deleted) or "gc: <reason>"; a manifest that cannot be read
// aborts the sweep before any delete. With `dryRun`, deletes nothing and reports (and passes to
// `onRemoved`) what would go.
base::Result<PruneResult> pruneSnapshots(
    rill::StorageProvider& store, int keep,
    const std::function<void(const std::string&)>& onRemoved = {}, bool dryRun = false);

// The snapshots in `store` whose manifest does not open with the store's key, oldest first.
// Fails with the listing reason.
base::Result<std::vector<std::string>> unreadableSnapshots(rill::StorageProvider& store);

struct RestoreStats {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
};

// Pulls snapshot `name` into `target` (created when missing), every chunk verified against its
// hash, then creates the standard record directories a snapshot cannot record when empty. Fails
// with "no snapshot <name> in the bucket" when its manifest is not there, else with the pull's
// text.
base::Result<RestoreStats> restoreSnapshot(
    rill::StorageProvider& store, const std::string& name, const fs::path& target,
    const std::function<void(const rill::PullProgress&)>& progress = {});

// True when `dir` does not exist or is an empty directory.
bool isMissingOrEmpty(const fs::path& dir);

}  // namespace quill::backup
