#pragma once
// Discovery documents and key sets, kept for a few minutes so that a sign-in does not fetch them
// twice. Providers rotate keys: a token naming a kid that the cached set lacks makes the set be
// fetched again, but not more often than once per refetch interval, so forged kids cannot turn
// the server into a request amplifier. Failures are never cached.
//
// Thread safety: all members may be called from any thread; no lock is held while fetching.

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sso/oidc_client.h"

namespace quill::sso {

class ProviderCache {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;
  using DiscoveryFetch = std::function<Result<Discovery>(const std::string& issuer)>;
  using KeysFetch = std::function<Result<std::vector<Jwk>>(const std::string& jwksUri)>;

  static constexpr std::chrono::seconds kLifetime{300};
  static constexpr std::chrono::seconds kRefetchInterval{30};

  // The network fetchers of oidc_client.h and the steady clock unless a test supplies others.
  ProviderCache();
  ProviderCache(DiscoveryFetch discovery, KeysFetch keys, Clock clock);

  // The cached discovery document of `issuer`, fetched when absent or older than kLifetime.
  Result<Discovery> discovery(const std::string& issuer);

  // The key set to check a token naming `kid` with (kid may be empty): the cached set, fetched
  // when absent or older than kLifetime, or again when it holds no key with that kid and was
  // fetched at least kRefetchInterval ago. A failed refetch keeps the cached set.
  Result<std::vector<Jwk>> keysFor(const std::string& jwksUri, const std::string& kid);

 private:
  template <class T>
  struct Entry {
    T value;
    std::chrono::steady_clock::time_point fetchedAt;
    std::chrono::steady_clock::time_point triedAt;  // last fetch attempt, failed ones included
  };

  DiscoveryFetch fetchDiscovery_;
  KeysFetch fetchKeys_;
  Clock clock_;
  std::mutex mutex_;
  std::map<std::string, Entry<Discovery>> discoveries_;
  std::map<std::string, Entry<std::vector<Jwk>>> keySets_;
};

}  // namespace quill::sso
