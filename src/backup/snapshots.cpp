#include "backup/snapshots.h"

#include <algorithm>
#include <ctime>

#include "backup/backup_texts.h"
#include "rill/ops/channel_store.h"
#include "rill/chunks/manifest.h"
#include "rill/ops/pull_source.h"
#include "rill/providers/sealed_object.h"
#include "store/data_dir.h"
#include "store/utc_time.h"

namespace quill::backup {

namespace {

constexpr std::string_view kSnapshotPrefix = "snap-";
constexpr std::size_t kSnapshotNameLength = 20;
constexpr std::string_view kChannelsPrefix = "channels/";
constexpr std::string_view kManifestSuffix = "/manifest.json";

// The documents of the data directory that hold secrets (credentials, keys): restored owner-only.
bool holdsSecrets(std::string_view path) {
  return path == "rill.json" || path == "backup.json" || path == "sso.json" ||
         path == "backup.key" || path.ends_with(".key");
}

}  // namespace

std::string snapshotNameAt(std::chrono::system_clock::time_point when) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
  std::tm tm{};
  ::gmtime_r(&seconds, &tm);
  char name[32];
  std::strftime(name, sizeof name, "snap-%Y%m%d-%H%M%S", &tm);
  return name;
}

bool isSnapshotName(std::string_view name) {
  return name.size() == kSnapshotNameLength && name.starts_with(kSnapshotPrefix);
}

base::Result<RunStats> publishSnapshot(
    rill::StorageProvider& store, const fs::path& dataDir, const std::string& name,
    const std::function<void(const rill::PublishProgress&)>& progress) {
  rill::PublishOptions options;
  options.channel = name;
  options.build = name;
  options.created = store::nowUtcText();
  options.compress = true;
  options.progress = progress;
  // The server writes while the run reads: uploads in progress and document temporaries are left
  // out, and a file that changes or vanishes meanwhile is taken as it was or not at all.
  options.scan.skip = store::DataDir::isWorkInProgress;
  options.scan.followLink = store::DataDir::isVolumeLink;
  options.scan.tolerant = true;
  auto report = rill::publishDirectory(store, dataDir, options);
  if (!report) return base::Failure{report.error()};
  const rill::ScanStats& scan = report.value().manifest.tree.stats;
  RunStats stats;
  stats.files = scan.files;
  stats.chunks = scan.unique_chunks;
  stats.uploaded = report.value().uploaded;
  stats.alreadyPresent = report.value().present;
  stats.bytes = scan.total_bytes;
  // What reached the bucket: every object the publisher stored was sealed on the way.
  stats.storedBytes = report.value().storedBytes + stats.uploaded * rill::kSealedOverhead;
  return stats;
}

base::Result<std::vector<std::string>> listSnapshots(rill::StorageProvider& store) {
  const auto entries = store.list(std::string(kChannelsPrefix));
  if (!entries) return entries.failure();
  std::vector<std::string> names;
  for (const rill::ObjectEntry& entry : entries.value()) {
    const std::string& key = entry.key;
    if (key.size() < kChannelsPrefix.size() + kManifestSuffix.size() + 1 ||
        !key.starts_with(kChannelsPrefix) || !key.ends_with(kManifestSuffix)) {
      continue;
    }
    std::string name = key.substr(kChannelsPrefix.size(),
                                  key.size() - kChannelsPrefix.size() - kManifestSuffix.size());
    if (isSnapshotName(name)) names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

base::Result<rill::Manifest> readSnapshotManifest(rill::StorageProvider& store,
                                                  const std::string& name) {
  rill::StorePullSource source(store, name);
  rill::PullOptions options;
  options.channel = name;
  return rill::fetchCheckedManifest(source, options);
}

base::Result<PruneResult> pruneSnapshots(rill::StorageProvider& store, int keep,
                                         const std::function<void(const std::string&)>& onRemoved,
                                         bool dryRun) {
  PruneResult result;
  if (keep < 1) return result;
  auto names = listSnapshots(store);
  if (!names) return base::Failure{"list: " + names.error()};
  // Counting or deleting around a manifest we cannot read would count another server's
  // snapshots as ours, and the sweep would stop half-way: refuse while nothing is gone yet.
  auto before = rill::readChannelManifests(store);
  if (!before) return base::Failure{text::kPruneUnreadable + before.error()};
  const std::size_t count = names.value().size();
  const std::size_t surplus = count > static_cast<std::size_t>(keep) ? count - keep : 0;
  const std::vector<std::string> doomed(names.value().begin(),
                                        names.value().begin() + static_cast<long>(surplus));
  for (const std::string& name : doomed) {
    if (!dryRun) {
      auto deleted = rill::deleteChannelBuild(store, name);
      if (!deleted) return base::Failure{"delete " + name + ": " + deleted.error()};
    }
    ++result.removed;
    if (onRemoved) onRemoved(name);
  }
  result.kept = count - result.removed;
  auto live = dryRun ? std::move(before) : rill::readChannelManifests(store);
  if (!live) return base::Failure{"gc: " + live.error()};
  if (dryRun) {
    std::erase_if(live.value(), [&doomed](const rill::Manifest& m) {
      return std::find(doomed.begin(), doomed.end(), m.channel) != doomed.end();
    });
  }
  auto swept = rill::sweepChunks(store, live.value(), dryRun);
  if (!swept) return base::Failure{"gc: " + swept.error()};
  result.sweptChunks = swept.value().removed;
  result.sweptBytes = swept.value().removedBytes;
  return result;
}

base::Result<std::vector<std::string>> unreadableSnapshots(rill::StorageProvider& store) {
  auto names = listSnapshots(store);
  if (!names) return base::Failure{names.error()};
  std::vector<std::string> unreadable;
  for (const std::string& name : names.value()) {
    if (!readSnapshotManifest(store, name)) unreadable.push_back(name);
  }
  return unreadable;
}

base::Result<RestoreStats> restoreSnapshot(
    rill::StorageProvider& store, const std::string& name, const fs::path& target,
    const std::function<void(const rill::PullProgress&)>& progress) {
  const auto manifest = store.exists(rill::manifestKey(name));
  if (!manifest) return manifest.failure();
  if (!manifest.value().present) return base::Failure{"no snapshot " + name + " in the bucket"};
  rill::StorePullSource source(store, name);
  rill::PullOptions options;
  options.channel = name;
  options.progress = progress;
  options.ownerOnly = holdsSecrets;
  auto report = rill::pullChannel(source, target, options);
  rill::removePullState(target);
  if (!report) return base::Failure{report.error()};
  if (auto prepared = store::DataDir(target).prepare(); !prepared) return prepared.failure();
  const rill::ScanStats& scan = report.value().manifest.tree.stats;
  return RestoreStats{scan.files, scan.total_bytes};
}

bool isMissingOrEmpty(const fs::path& dir) {
  std::error_code ec;
  if (!fs::exists(dir, ec)) return !ec;
  return fs::is_directory(dir, ec) && fs::is_empty(dir, ec) && !ec;
}

}  // namespace quill::backup
