#pragma once
// The backup and restore commands: they work on the data directory and the bucket directly, from
// their own process, whether or not a server runs on the directory. Results go to `out`, errors to
// `err`, one line each; each returns the exit status (0 or 1). A run or prune waits for one that
// holds the data directory (the server's, or another command's) and says so on `err`.

#include <ostream>

#include "handler/context.h"

namespace quill::backup {

int backupInitCommand(Context& ctx, std::ostream& out, std::ostream& err);
int backupRunCommand(Context& ctx, std::ostream& out, std::ostream& err);
int backupListCommand(Context& ctx, std::ostream& out, std::ostream& err);
int backupPruneCommand(Context& ctx, std::ostream& out, std::ostream& err);
int backupCheckCommand(Context& ctx, std::ostream& out, std::ostream& err);
int backupScheduleCommand(Context& ctx, std::ostream& out, std::ostream& err);
int restoreCommand(Context& ctx, std::ostream& out, std::ostream& err);

}  // namespace quill::backup
