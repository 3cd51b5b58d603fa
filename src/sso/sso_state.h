#pragma once
// The single sign-on state that outlives a request: the pending sign-ins (keyed by `state`, 600
// seconds), the handoff answers (keyed by handoff code, 60 seconds) and the provider cache. One
// per Context, created on first use.
//
// Both stores hold 4096 entries. A pending sign-in younger than a minute is never dropped to make
// room, so anonymous starts cannot cancel the sign-ins people are in the middle of; a start that
// finds no room is refused. Handoff answers exist only after a completed sign-in at the provider,
// so the oldest simply makes room.

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "handler/context.h"
#include "sso/expiring_store.h"
#include "sso/provider_cache.h"

namespace quill::sso {

struct PendingSignIn {
  std::uint16_t port = 0;  // the client's loopback listener
  std::string nonce;
  std::string codeVerifier;
  std::string redirectUri;
};

class SsoState {
 public:
  static constexpr std::chrono::seconds kPendingLifetime{600};
  static constexpr std::chrono::seconds kHandoffLifetime{60};
  static constexpr std::size_t kCapacity = 4096;
  static constexpr std::chrono::seconds kPendingProtectedAge{60};

  using Clock = std::function<std::chrono::steady_clock::time_point()>;
  explicit SsoState(Clock clock = [] { return std::chrono::steady_clock::now(); })
      : pending(kPendingLifetime, kCapacity, kPendingProtectedAge, clock),
        handoffs(kHandoffLifetime, kCapacity, std::chrono::seconds(0), clock),
        providers(fetchDiscovery, fetchKeys, clock) {}

  ExpiringStore<PendingSignIn> pending;
  ExpiringStore<Json::Value> handoffs;
  ProviderCache providers;
};

// The context's state, created on first use (thread-safe).
SsoState& stateOf(Context& ctx);

}  // namespace quill::sso
