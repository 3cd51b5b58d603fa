#pragma once
// backup.json: where backups go (the bucket, its credential, an optional prefix), which key file
// seals them, and the daily schedule. Read afresh, once, by every backup operation; written
// atomically.

#include <json/value.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "base/result.h"
#include "rill/transport/s3_settings.h"

namespace quill::backup {

namespace fs = std::filesystem;

// The daily schedule: "HH:MM" in server local time (empty: off), and the snapshots kept after each
// run (0 or less: never prune).
struct Schedule {
  std::string dailyAt;
  std::int32_t keep = 0;
};

struct BackupConfig {
  rill::S3Settings s3;  // the bucket and, "" for a bucket of its own, the prefix
  std::string keyFile;  // path of the key file (or, for restore, the key text itself)
  Schedule schedule;
};

// "<data dir>/backup.json", "<data dir>/backup-state.json" and "<data dir>/backup.key".
fs::path backupConfigPath(const fs::path& dataRoot);
fs::path backupStatePath(const fs::path& dataRoot);
fs::path backupKeyPath(const fs::path& dataRoot);

// The settings of a backup.json document, checked in this order: the S3 settings (region "auto"
// when absent or empty; "missing endpoint/bucket/access_key/secret_key" unless complete), then
// key_file ("backup.json has no key_file"), then prefix and schedule (readSchedule's defaults).
// Members of another type read as absent.
base::Result<BackupConfig> configFromDocument(const Json::Value& doc);

// configFromDocument of the file, read once; a file that is missing or not a JSON object fails
// with "backups not configured - run: quillmoord backup init ...".
base::Result<BackupConfig> loadBackupConfig(const fs::path& configFile);

// Writes the S3 settings (prefix only when not empty) and key_file; the schedule is not written.
// True when the document was replaced whole. The file holds the bucket's secret, so only its owner
// may read it (as writeSchedule leaves it too).
bool writeBackupConfig(const fs::path& configFile, const BackupConfig& config);

// The schedule of the file (daily_at defaulting to "", keep to 0), or nullopt when there is no
// readable document.
std::optional<Schedule> readSchedule(const fs::path& configFile);

// Replaces daily_at and keep in the stored document, keeping its other members. False when the
// document cannot be read or written.
bool writeSchedule(const fs::path& configFile, const Schedule& schedule);

// "" (off), or exactly "HH:MM" with digits, hour below 24 and minute below 60.
bool isValidDailyAt(std::string_view text);

}  // namespace quill::backup
