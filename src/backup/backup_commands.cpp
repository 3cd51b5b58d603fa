#include "backup/backup_commands.h"

#include "backup/backup_config.h"
#include "backup/backup_key.h"
#include "backup/backup_run.h"
#include "backup/backup_store.h"
#include "backup/backup_texts.h"
#include "backup/snapshot_check.h"
#include "backup/snapshots.h"
#include "base/process_init.h"
#include "rill/ops/progress_line.h"
#include "rill/transport/s3_client.h"
#include "store/documents.h"

namespace quill::backup {

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr const char* kKeyFileName = "quillmoord-backup.key";

int fail(std::ostream& err, const std::string& message) {
  err << message << "\n";
  return kFailed;
}

// The key file of `backup init` when --key is not given: beside the data directory, not in it.
fs::path defaultKeyPath(const fs::path& dataRoot) {
  fs::path dir = dataRoot.lexically_normal();
  if (!dir.has_filename()) dir = dir.parent_path();
  return dir.parent_path() / kKeyFileName;
}

std::function<void()> announceWait(std::ostream& err, const fs::path& dataRoot) {
  return [&err, dir = dataRoot.string()] {
    err << "waiting for the backup or prune already running on " << dir << "\n";
    err.flush();
  };
}

std::string quoted(unsigned long long value) { return std::to_string(value); }

}  // namespace

int backupInitCommand(Context& ctx, const BackupArguments& o, std::ostream& out,
                      std::ostream& err) {
  // A bucket of its own: the command never sets a prefix.
  rill::S3Settings s3 = o.bucket;
  s3.prefix.clear();
  if (!rill::isComplete(s3)) return fail(err, text::kInitNeeds);
  const fs::path root = ctx.data.root();
  const fs::path keyPath = fs::absolute(o.key.empty() ? defaultKeyPath(root) : fs::path(o.key));
  std::error_code ec;
  if (fs::exists(keyPath, ec)) {
    return fail(err, "key file " + keyPath.string() +
                         " already exists - refusing to overwrite (a replaced key makes every "
                         "existing snapshot unreadable)");
  }
  const std::string key = generateBackupKey();
  if (!writeKeyFile(keyPath, key)) return fail(err, "cannot write " + keyPath.string());

  const BackupConfig config{s3, keyPath.string(), {}};
  base::initializeLibraries();
  // Any answer at all shows that the endpoint is a store; only a transport failure refuses.
  const base::HttpResponse probe = rill::S3Client(config.s3).head("channels/");
  if (probe.status == 0) return fail(err, "cannot reach the backup bucket: " + probe.error);
  // A fresh key reads no snapshot already there; a bucket that cannot be listed is let through,
  // as the probe above lets any answer through.
  if (auto foreign = foreignSnapshots(config.s3, key); !foreign.empty()) {
    std::error_code removed;
    fs::remove(keyPath, removed);  // never used: nothing is sealed with it
    return fail(err, foreign);
  }
  const fs::path configFile = backupConfigPath(root);
  if (!writeBackupConfig(configFile, config))
    return fail(err, "cannot write " + configFile.string());

  out << "Backups configured: bucket '" << config.s3.bucket << "' at " << config.s3.endpoint
      << "\nEncryption key written to " << keyPath.string() << "\n\n  " << key
      << "\n\nSTORE THIS KEY SOMEWHERE SAFE (password manager). It is shown only now.\n"
         "Every snapshot is encrypted with it; without it a backup cannot be\n"
         "restored - not by you, not by us. Now run: quillmoord backup\n";
  return kOk;
}

int backupRunCommand(Context& ctx, std::ostream& out, std::ostream& err) {
  const fs::path root = ctx.data.root();
  rill::ProgressLine progress(stderr);
  RunHooks hooks;
  hooks.onWait = announceWait(err, root);
  hooks.progress = [&progress](const rill::PublishProgress& p) {
    progress.update(rill::publishCounts(p));
  };
  auto report = runBackup(root, "", hooks);
  progress.finish();
  if (!report) return fail(err, "backup failed: " + report.error());
  const RunStats& s = report.value().stats;
  out << "backup " << report.value().snapshot << ": " << s.chunks << " chunk(s), " << s.uploaded
      << " new (" << s.bytes << " bytes -> " << s.storedBytes << " stored, encrypted), "
      << s.alreadyPresent << " already in the bucket\n";
  // The snapshot is stored, but neither the server nor `backup list` users will learn of it.
  if (!report.value().unrecorded.empty()) {
    return fail(err, "backup " + report.value().snapshot + " " + text::kNotRecorded +
                         report.value().unrecorded);
  }
  return kOk;
}

int backupListCommand(Context& ctx, std::ostream& out, std::ostream& err) {
  auto config = loadBackupConfig(backupConfigPath(ctx.data.root()));
  if (!config) return fail(err, config.error());
  auto store = openBackupStore(config.value().s3, config.value().keyFile);
  if (!store) return fail(err, store.error());
  auto names = listSnapshots(*store.value());
  if (!names) return fail(err, "list: " + names.error());
  const std::string& bucket = config.value().s3.bucket;
  if (names.value().empty()) {
    out << "no snapshots in bucket '" << bucket << "'\n";
    return kOk;
  }
  for (const std::string& name : names.value()) {
    auto manifest = readSnapshotManifest(*store.value(), name);
    const std::string files = manifest ? quoted(manifest.value().tree.stats.files) : "?";
    const std::string bytes = manifest ? quoted(manifest.value().tree.stats.total_bytes) : "?";
    out << "  " << name << "  " << files << " file(s), " << bytes << " bytes\n";
  }
  out << names.value().size() << " snapshot(s) in bucket '" << bucket << "'\n";
  return kOk;
}

int backupPruneCommand(Context& ctx, const BackupArguments& args, std::ostream& out,
                       std::ostream& err) {
  const int keep = args.keep;
  if (keep < 1) return fail(err, text::kPruneNeedsKeep);
  const fs::path root = ctx.data.root();
  const bool dryRun = args.dryRun;
  RunHooks hooks;
  hooks.onWait = announceWait(err, root);
  hooks.onRemoved = [&out, dryRun](const std::string& name) {
    out << (dryRun ? "  would remove " : "  removed ") << name << "\n";
  };
  auto result = pruneBackups(root, keep, hooks, dryRun);
  if (!result) return fail(err, result.error());
  const PruneResult& r = result.value();
  if (dryRun) {
    out << "dry run, nothing deleted: would keep " << r.kept << " snapshot(s); remove "
        << r.removed << "; sweep " << r.sweptChunks << " chunk(s) (" << r.sweptBytes
        << " bytes)\n";
    return kOk;
  }
  out << "kept " << r.kept << " snapshot(s); removed " << r.removed << "; swept " << r.sweptChunks
      << " chunk(s) (" << r.sweptBytes << " bytes)\n";
  return kOk;
}

int backupCheckCommand(Context& ctx, const BackupArguments& args, std::ostream& out,
                       std::ostream& err) {
  const fs::path root = ctx.data.root();
  const bool readData = args.readData;
  rill::ProgressLine progress(stderr);
  RunHooks hooks;
  hooks.onWait = announceWait(err, root);
  auto report = checkBackups(root, readData, hooks, [&progress](const CheckProgress& p) {
    progress.update({.bytes = p.bytesDone,
                     .bytesTotal = p.bytesTotal,
                     .chunks = p.chunksDone,
                     .chunksTotal = p.chunksTotal});
  });
  progress.finish();
  if (!report) return fail(err, report.error());
  const CheckReport& r = report.value();
  for (const std::string& problem : r.problems) out << "  " << problem << "\n";
  const std::string checked = std::to_string(r.snapshots) + " snapshot(s), " +
                              std::to_string(r.chunks) + " chunk(s) checked" +
                              (readData ? " (data read and verified)" : "");
  if (r.problems.empty()) {
    out << checked << ": no problems found\n";
    return kOk;
  }
  return fail(err, checked + ": " + std::to_string(r.problems.size()) + " problem(s) found");
}

int backupScheduleCommand(Context& ctx, const std::string& time, const BackupArguments& args,
                          std::ostream& out, std::ostream& err) {
  const fs::path configFile = backupConfigPath(ctx.data.root());
  auto config = loadBackupConfig(configFile);
  if (!config) return fail(err, text::kNotConfigured);
  Schedule& schedule = config.value().schedule;
  const std::string dailyAt = time == "off" ? "" : time;
  if (time != "off" && (time.empty() || !isValidDailyAt(time))) return fail(err, text::kBadTime);
  if (args.keep < -1) return fail(err, "--" + std::string(text::kNegativeKeep));
  schedule.dailyAt = dailyAt;
  if (args.keep >= 0) schedule.keep = args.keep;
  if (!writeSchedule(configFile, schedule))
    return fail(err, "cannot write " + configFile.string());
  if (dailyAt.empty()) {
    out << text::kScheduleOff << "\n";
  } else {
    out << "scheduled backups: daily at " << dailyAt << " (server local time), keep "
        << schedule.keep << " snapshot(s)" << (schedule.keep < 1 ? " (no pruning)" : "") << "\n";
  }
  out << text::kPickedUp << "\n";
  return kOk;
}

int restoreCommand(Context& ctx, const std::string& snapshot, const BackupArguments& o,
                   std::ostream& out, std::ostream& err) {
  if (!isSnapshotName(snapshot)) return fail(err, text::kRestoreNeedsName);
  if (o.key.empty()) return fail(err, text::kRestoreNeedsKey);
  rill::S3Settings s3 = o.bucket;
  if (!o.from.empty()) {
    Json::Value doc;
    if (!store::readJsonFile(o.from, doc)) return fail(err, "cannot read " + o.from);
    auto config = configFromDocument(doc);
    if (!config) return fail(err, config.error());
    s3 = config.value().s3;
  } else if (!rill::isComplete(s3)) {
    return fail(err, text::kRestoreNeedsStore);
  }
  const fs::path target = ctx.data.root();
  if (!isMissingOrEmpty(target)) {
    return fail(err, "restore target " + target.string() +
                         " is not empty - refusing to overwrite a data dir");
  }
  base::initializeLibraries();
  auto store = openBackupStore(s3, o.key);
  if (!store) return fail(err, store.error());
  rill::ProgressLine progress(stderr);
  auto restored =
      restoreSnapshot(*store.value(), snapshot, target, [&progress](const rill::PullProgress& p) {
        progress.update(rill::pullCounts(p));
      });
  progress.finish();
  if (!restored) return fail(err, "restore failed: " + restored.error());
  out << "restored " << snapshot << " -> " << target.string() << ": " << restored.value().files
      << " file(s), " << restored.value().bytes << " bytes (verified)\n"
      << text::kCheckKeyFile << "\n";
  return kOk;
}

}  // namespace quill::backup
