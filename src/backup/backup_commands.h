#pragma once
// The backup and restore commands: they work on the data directory and the bucket directly, from
// their own process, whether or not a server runs on the directory. Results go to `out`, errors to
// `err`, one line each; each returns the exit status (0 or 1). A run or prune waits for one that
// holds the data directory (the server's, or another command's) and says so on `err`.

#include <cstdint>
#include <ostream>
#include <string>

#include "handler/context.h"
#include "rill/transport/s3_settings.h"

namespace quill::backup {

// The options these commands take.
struct BackupArguments {
  rill::S3Settings bucket;  // --endpoint, --region, --bucket, --access-key, --secret-key, --prefix
  std::string key;          // --key: init's key file; restore's key file or key text
  std::string from;         // --from: the backup.json restore reads its bucket from
  std::int32_t keep = -1;   // --keep; -1 when not given
  bool dryRun = false;      // --dry-run: prune says what would go and deletes nothing
  bool readData = false;    // --read-data: check downloads and verifies every chunk
};

int backupInitCommand(Context& ctx, const BackupArguments& args, std::ostream& out,
                      std::ostream& err);
int backupRunCommand(Context& ctx, std::ostream& out, std::ostream& err);
int backupListCommand(Context& ctx, std::ostream& out, std::ostream& err);
int backupPruneCommand(Context& ctx, const BackupArguments& args, std::ostream& out,
                       std::ostream& err);
int backupCheckCommand(Context& ctx, const BackupArguments& args, std::ostream& out,
                       std::ostream& err);
// `time` is "HH:MM" or "off".
int backupScheduleCommand(Context& ctx, const std::string& time, const BackupArguments& args,
                          std::ostream& out, std::ostream& err);
int restoreCommand(Context& ctx, const std::string& snapshot, const BackupArguments& args,
                   std::ostream& out, std::ostream& err);

}  // namespace quill::backup
