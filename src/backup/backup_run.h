#pragma once
// The backup operations on a data directory, as the server and the commands run them: each loads
// backup.json afresh, opens the backup store, and (run and prune) holds the data directory's lock
// while it changes the store.

#include <filesystem>
#include <functional>
#include <string>

#include "backup/backup_config.h"
#include "backup/snapshot_check.h"
#include "backup/snapshots.h"
#include "base/result.h"
#include "rill/providers/storage_provider.h"

namespace quill::backup {

namespace fs = std::filesystem;

// Builds the store for loaded settings; the default opens the bucket (openBackupStore). Tests hand
// in stores of their own.
using StoreOpener = std::function<base::Result<rill::StorageProviderPtr>(const BackupConfig&)>;

struct RunHooks {
  StoreOpener openStore;         // empty: openBackupStore
  std::function<void()> onWait;  // another run or prune holds the lock
  std::function<void(const rill::PublishProgress&)> progress;
  std::function<void(const std::string&)> onRemoved;  // a snapshot pruned after the run
};

struct RunReport {
  std::string snapshot;
  RunStats stats;
  // Empty when backup-state.json was written, else "cannot write <path>".
  std::string unrecorded;
};

// The store described by `config`: openStore when given, else openBackupStore.
base::Result<rill::StorageProviderPtr> openStoreFor(const BackupConfig& config,
                                                    const StoreOpener& openStore);

// One snapshot of `dataDir`, in this order: load backup.json, once (its text; backup-state.json is
// not touched), open the store (the key message; not recorded either), lock the directory, name the
// snapshot (`name`, or the current UTC time when empty), publish it, and prune to the schedule's
// `keep` as loaded when that is at least 1. The outcome is recorded in backup-state.json: a failed publish
// with ok false and its text; a failed prune with ok true and "backup ok; prune failed: <text>",
// which still returns the report. When the record cannot be written, a failure's text ends in
// " (not recorded: cannot write <path>)" and a report's `unrecorded` says so.
base::Result<RunReport> runBackup(const fs::path& dataDir, const std::string& name,
                                  const RunHooks& hooks = {});
// The same with backup.json already loaded, by a caller that had to read it first.
base::Result<RunReport> runBackup(const fs::path& dataDir, const BackupConfig& config,
                                  const std::string& name, const RunHooks& hooks = {});

// Prunes the store of `dataDir`'s backup.json to `keep` snapshots, holding the directory's lock.
// Fails with the loader's or key text, or pruneSnapshots' messages. With `dryRun` nothing is
// deleted and the result says what would go.
base::Result<PruneResult> pruneBackups(const fs::path& dataDir, int keep,
                                       const RunHooks& hooks = {}, bool dryRun = false);

// checkSnapshots on the store of `dataDir`'s backup.json, holding the directory's lock so that no
// prune of this server deletes under it. Fails with the loader's or key text, or the listing's.
base::Result<CheckReport> checkBackups(
    const fs::path& dataDir, bool readData, const RunHooks& hooks = {},
    const std::function<void(const CheckProgress&)>& progress = {});

}  // namespace quill::backup
