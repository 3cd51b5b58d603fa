#pragma once
// Everything a handler or a command needs beyond its request: the server settings, the data
// directory and the process-wide caches. Built once in main (or per test case) and passed down.

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "base/byte_budget.h"
#include "handler/server_settings.h"
#include "store/data_dir.h"
#include "store/document_cache.h"
#include "store/keyed_mutex.h"
#include "store/token_index.h"

namespace quill {

// Backups on the running server: one run at a time, whether started by the schedule or by
// POST /api/backup, and the local date of the last scheduled start (in memory only). It owns the
// run's thread (backup/background_run.h) and waits for it when destroyed, so no run outlives the
// context it reads.
struct BackupRuntime {
  BackupRuntime() = default;
  BackupRuntime(const BackupRuntime&) = delete;
  BackupRuntime& operator=(const BackupRuntime&) = delete;
  ~BackupRuntime() {
    if (thread.joinable()) thread.join();
  }

  std::atomic<bool> running{false};
  std::string lastScheduledDate;  // "%Y-%m-%d"; touched only by the schedule check's thread
  std::mutex threadMutex;
  std::thread thread;  // the current or last run; guarded by threadMutex
};

namespace sso {
class SsoState;
}

struct Context {
  explicit Context(ServerSettings s) : settings(std::move(s)), data(settings.dataDir) {}

  ServerSettings settings;
  store::DataDir data;
  store::TokenIndex tokens;
  // User and group records on the authenticated road (every lookup still checks the file).
  store::DocumentCache documents;
  // Per build id: an upload's last check and rename, and a finalize's check, walk and manifest
  // write, never interleave, so a finalized build never differs from its manifest.
  store::KeyedMutex buildLocks;
  BackupRuntime backups;
  // Manifest bytes that sync descriptors (GET /api/rill/sync) hold in memory at once, and the
  // largest manifest one may read: a parsed manifest costs about twelve times its text, so the
  // server stays within a few hundred MiB whatever a bucket serves.
  base::ByteBudget syncManifestBytes{32 * 1024 * 1024};

  // Single sign-on: pending sign-ins, handoff codes and the provider cache (sso/sso_state.h).
  // Created on first use; a test may install its own before the first request.
  std::once_flag ssoOnce;
  std::shared_ptr<sso::SsoState> sso;
};

}  // namespace quill
