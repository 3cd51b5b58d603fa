#pragma once
// Runs on the server: on a detached thread of their own, one at a time per process.

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

// Runs runBackup(dataDir, name, hooks) on a new detached thread, hands its outcome to `done`, and
// clears the running flag as the thread's last act (so `runtime` must outlive the run, and nothing
// else is touched after the flag is clear). The caller must have claimed the flag.
void startDetachedRun(BackupRuntime& runtime, std::filesystem::path dataDir, std::string name,
                      RunDone done, RunHooks hooks = {});

}  // namespace quill::backup
