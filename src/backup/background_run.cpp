#include "backup/background_run.h"

#include <cstdio>
#include <thread>

namespace quill::backup {

bool claimRunningFlag(BackupRuntime& runtime) {
  bool expected = false;
  return runtime.running.compare_exchange_strong(expected, true);
}

void startDetachedRun(BackupRuntime& runtime, std::filesystem::path dataDir, std::string name,
                      RunDone done, RunHooks hooks) {
  if (!hooks.onWait) {
    hooks.onWait = [dir = dataDir.string()] {
      std::fprintf(stderr, "waiting for the backup or prune already running on %s\n", dir.c_str());
    };
  }
  std::thread([&runtime, dataDir = std::move(dataDir), name = std::move(name),
               done = std::move(done), hooks = std::move(hooks)] {
    {
      auto outcome = runBackup(dataDir, name, hooks);
      if (done) done(outcome);
    }
    runtime.running.store(false);
  }).detach();
}

}  // namespace quill::backup
