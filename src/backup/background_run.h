#pragma once
// Runs on the server: on a thread of their own that the runtime owns, one at a time per process.

#include <filesystem>
#include <functional>
#include <string>

#include "backup/backup_run.h"
#include "handler/context.h"

namespace quill::backup {

// Sets the running flag when it was clear (compare-and-swap); false when a run is active.
bool claimRunningFlag(BackupRuntime& runtime);

using RunDone = std::function<void(const base::Result<RunReport>&)>;

// A RunDone that prints "<what> <snapshot> done" to standard output, or "<what> failed: <text>" to
// standard error; a run that could not write backup-state.json goes to standard error with
// " (not recorded: cannot write <path>)" after it.
RunDone printRunOutcome(std::string what);

// Runs runBackup(dataDir, config, name, hooks) on a new thread that `runtime` owns, hands its
// outcome to `done`, and clears the running flag as the thread's last act. The caller must have
// claimed the flag; the thread of the previous run (already past its last act) is joined first.
void startBackgroundRun(BackupRuntime& runtime, std::filesystem::path dataDir, BackupConfig config,
                        std::string name, RunDone done, RunHooks hooks = {});

// Waits for the run in progress, if any, to end (at shutdown). Calls `onWait` first when one is
// running. The data directory's lock is released when it returns.
void finishBackgroundRun(BackupRuntime& runtime, const std::function<void()>& onWait = {});

}  // namespace quill::backup
