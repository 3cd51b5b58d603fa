#pragma once
// Everything a handler or a command needs beyond its request: the settings, the data directory
// and the process-wide caches. Built once in main (or per test case) and passed down.

#include <memory>
#include <mutex>

#include "handler/settings.h"
#include "store/data_dir.h"
#include "store/keyed_mutex.h"
#include "store/token_index.h"

namespace quill {

namespace sso {
class SsoState;
}

struct Context {
  explicit Context(Settings s) : settings(std::move(s)), data(settings.dataDir) {}

  Settings settings;
  store::DataDir data;
  store::TokenIndex tokens;
  // Per build id: an upload's last check and rename, and a finalize's check, walk and manifest
  // write, never interleave, so a finalized build never differs from its manifest.
  store::KeyedMutex buildLocks;
  // Single sign-on: pending sign-ins, handoff codes and the provider cache (sso/sso_state.h).
  // Created on first use; a test may install its own before the first request.
  std::once_flag ssoOnce;
  std::shared_ptr<sso::SsoState> sso;
};

}  // namespace quill
