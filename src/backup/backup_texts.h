#pragma once
// Every fixed text of the backup subsystem, in one place so that code and tests cannot drift.

#include "rill/transport/s3_settings.h"

namespace quill::backup::text {

// Loading backup.json.
inline constexpr const char* kNotConfigured =
    "backups not configured - run: quillmoord backup init ...";
inline constexpr const char* kMissingS3 = "missing endpoint/bucket/access_key/secret_key";
inline constexpr const char* kNoKeyFile = "backup.json has no key_file";

// Set-up over HTTP.
inline constexpr const char* kJsonBodyRequired = "JSON body required";
inline constexpr const char* kAlreadyConfigured =
    "backups are already configured - remove the configuration first";
inline constexpr const char* kModeNotString = "mode must be a string";
inline constexpr const char* kSharedNeedsStorage = "shared mode needs build storage first: ";
inline constexpr const char* kCredentialsRequired = rill::kCredentialsRequired;
inline constexpr const char* kBadMode = "mode must be \"shared\" or \"separate\"";
inline constexpr const char* kKeyExists =
    "backup.key already exists in the data dir - refusing to overwrite";
inline constexpr const char* kCannotWriteKey = "cannot write backup.key";
inline constexpr const char* kCannotWriteConfig = "cannot write backup.json";

// Set-up from the command line.
inline constexpr const char* kInitNeeds =
    "backup init needs --endpoint --bucket --access-key --secret-key (a SEPARATE bucket with its "
    "own credential)";

// The other endpoints.
inline constexpr const char* kAlreadyRunning = "a backup is already running";
inline constexpr const char* kNotConfiguredHere = "backups not configured on this server";
inline constexpr const char* kJsonObjectRequired = "JSON object required";
inline constexpr const char* kDailyAtNotString = "daily_at must be a string";
inline constexpr const char* kKeepNotInteger = "keep must be an integer";
inline constexpr const char* kBadDailyAt = "daily_at must be HH:MM or empty";
inline constexpr const char* kNegativeKeep = "keep must be 0 or more";

// The commands.
inline constexpr const char* kPruneNeedsKeep = "backup prune needs --keep <N> (N >= 1)";
inline constexpr const char* kBadTime = "time must be HH:MM (24h, server local) or 'off'";
inline constexpr const char* kScheduleOff = "scheduled backups: off";
inline constexpr const char* kPickedUp =
    "The running server picks this up within a minute (restart not needed).";
inline constexpr const char* kRestoreNeedsName =
    "restore needs a snapshot name (snap-YYYYMMDD-HHMMSS)";
inline constexpr const char* kRestoreNeedsKey = "restore needs --key <key-file|hex>";
inline constexpr const char* kRestoreNeedsStore =
    "restore needs --from <backup.json> or --endpoint --bucket --access-key --secret-key";
inline constexpr const char* kCheckKeyFile =
    "Check backup.json's key_file path on this machine before the next backup.";

// Refusals that keep a bucket holding what this server cannot read from harm.
inline constexpr const char* kPruneUnreadable =
    "refusing to prune - nothing deleted: the bucket holds a manifest this key cannot read "
    "(another server's snapshots, or a damaged object): ";
inline constexpr const char* kForeignSnapshots =
    " snapshot(s) this key cannot read (another server's?) - use another bucket or prefix";

// Outcomes recorded in backup-state.json.
inline constexpr const char* kPruneFailedAfterBackup = "backup ok; prune failed: ";
// A run whose outcome could not be written to backup-state.json says so with this.
inline constexpr const char* kNotRecorded = "not recorded: ";

}  // namespace quill::backup::text
