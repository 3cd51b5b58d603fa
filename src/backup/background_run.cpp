#include "backup/background_run.h"

#include <cstdio>
#include <thread>

#include "backup/backup_texts.h"

namespace quill::backup {

bool claimRunningFlag(BackupRuntime& runtime) {
  bool expected = false;
  return runtime.running.compare_exchange_strong(expected, true);
}

RunDone printRunOutcome(std::string what) {
  return [what = std::move(what)](const base::Result<RunReport>& outcome) {
    if (!outcome) {
      std::fprintf(stderr, "%s failed: %s\n", what.c_str(), outcome.error().c_str());
    } else if (!outcome.value().unrecorded.empty()) {
      std::fprintf(stderr, "%s %s done (%s%s)\n", what.c_str(), outcome.value().snapshot.c_str(),
                   text::kNotRecorded, outcome.value().unrecorded.c_str());
    } else {
      std::printf("%s %s done\n", what.c_str(), outcome.value().snapshot.c_str());
    }
    std::fflush(stdout);
  };
}

void startBackgroundRun(BackupRuntime& runtime, std::filesystem::path dataDir, BackupConfig config,
                        std::string name, RunDone done, RunHooks hooks) {
  if (!hooks.onWait) {
    hooks.onWait = [dir = dataDir.string()] {
      std::fprintf(stderr, "waiting for the backup or prune already running on %s\n", dir.c_str());
    };
  }
  std::lock_guard lock(runtime.threadMutex);
  if (runtime.thread.joinable()) runtime.thread.join();
  runtime.thread = std::thread([&runtime, dataDir = std::move(dataDir), config = std::move(config),
                                name = std::move(name), done = std::move(done),
                                hooks = std::move(hooks)] {
    {
      auto outcome = runBackup(dataDir, config, name, hooks);
      if (done) done(outcome);
    }
    runtime.running.store(false);
  });
}

void finishBackgroundRun(BackupRuntime& runtime, const std::function<void()>& onWait) {
  std::lock_guard lock(runtime.threadMutex);
  if (!runtime.thread.joinable()) return;
  if (runtime.running.load() && onWait) onWait();
  runtime.thread.join();
}

}  // namespace quill::backup
