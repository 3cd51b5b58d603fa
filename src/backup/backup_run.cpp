#include "backup/backup_run.h"

#include "backup/backup_state.h"
#include "backup/backup_store.h"
#include "backup/backup_texts.h"
#include "backup/directory_lock.h"

namespace quill::backup {

namespace {

struct OpenedBackup {
  BackupConfig config;
  rill::StorageProviderPtr store;
};

base::Result<OpenedBackup> openBackup(BackupConfig config, const StoreOpener& openStore) {
  auto store = openStoreFor(config, openStore);
  if (!store) return store.failure();
  return OpenedBackup{std::move(config), std::move(store).value()};
}

base::Result<OpenedBackup> openBackup(const fs::path& dataDir, const StoreOpener& openStore) {
  auto config = loadBackupConfig(backupConfigPath(dataDir));
  if (!config) return config.failure();
  return openBackup(std::move(config).value(), openStore);
}

}  // namespace

base::Result<rill::StorageProviderPtr> openStoreFor(const BackupConfig& config,
                                                    const StoreOpener& openStore) {
  if (openStore) return openStore(config);
  return openBackupStore(config.s3, config.keyFile);
}

base::Result<RunReport> runBackup(const fs::path& dataDir, const std::string& name,
                                  const RunHooks& hooks) {
  auto config = loadBackupConfig(backupConfigPath(dataDir));
  if (!config) return config.failure();
  return runBackup(dataDir, config.value(), name, hooks);
}

base::Result<RunReport> runBackup(const fs::path& dataDir, const BackupConfig& config,
                                  const std::string& name, const RunHooks& hooks) {
  auto opened = openBackup(config, hooks.openStore);
  if (!opened) return opened.failure();

  auto lock = DirectoryLock::acquire(dataDir, hooks.onWait);
  const std::string snapshot =
      name.empty() ? snapshotNameAt(std::chrono::system_clock::now()) : name;
  // The record is how the server and its users learn the outcome: a run that cannot write it
  // says so itself.
  const auto record = [&](bool ok, const std::string& error) {
    if (writeBackupState(dataDir, snapshot, ok, error)) return std::string();
    return "cannot write " + backupStatePath(dataDir).string();
  };
  const auto failed = [&](const std::string& error) {
    const std::string unrecorded = record(false, error);
    if (unrecorded.empty()) return base::Failure{error};
    return base::Failure{error + " (" + text::kNotRecorded + unrecorded + ")"};
  };
  if (!lock) return failed(lock.error());
  rill::StorageProvider& store = *opened.value().store;
  auto stats = publishSnapshot(store, dataDir, snapshot, hooks.progress);
  if (!stats) return failed(stats.error());
  std::string error;
  const int keep = opened.value().config.schedule.keep;
  if (keep >= 1) {
    auto pruned = pruneSnapshots(store, keep, hooks.onRemoved);
    if (!pruned) error = text::kPruneFailedAfterBackup + pruned.error();
  }
  return RunReport{snapshot, stats.value(), record(true, error)};
}

base::Result<PruneResult> pruneBackups(const fs::path& dataDir, int keep, const RunHooks& hooks,
                                       bool dryRun) {
  auto opened = openBackup(dataDir, hooks.openStore);
  if (!opened) return base::Failure{opened.error()};
  auto lock = DirectoryLock::acquire(dataDir, hooks.onWait);
  if (!lock) return base::Failure{lock.error()};
  return pruneSnapshots(*opened.value().store, keep, hooks.onRemoved, dryRun);
}

base::Result<CheckReport> checkBackups(const fs::path& dataDir, bool readData,
                                       const RunHooks& hooks,
                                       const std::function<void(const CheckProgress&)>& progress) {
  auto opened = openBackup(dataDir, hooks.openStore);
  if (!opened) return base::Failure{opened.error()};
  auto lock = DirectoryLock::acquire(dataDir, hooks.onWait);
  if (!lock) return base::Failure{lock.error()};
  return checkSnapshots(*opened.value().store, readData, progress);
}

}  // namespace quill::backup
