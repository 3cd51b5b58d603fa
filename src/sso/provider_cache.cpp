#include "sso/provider_cache.h"

#include <algorithm>
#include <optional>

namespace quill::sso {

namespace {

bool holdsKid(const std::vector<Jwk>& keys, const std::string& kid) {
  return std::any_of(keys.begin(), keys.end(), [&](const Jwk& key) { return key.kid == kid; });
}

}  // namespace

ProviderCache::ProviderCache()
    : ProviderCache(fetchDiscovery, fetchKeys, [] { return std::chrono::steady_clock::now(); }) {}

ProviderCache::ProviderCache(DiscoveryFetch discovery, KeysFetch keys, Clock clock)
    : fetchDiscovery_(std::move(discovery)),
      fetchKeys_(std::move(keys)),
      clock_(std::move(clock)) {}

Result<Discovery> ProviderCache::discovery(const std::string& issuer) {
  {
    std::lock_guard lock(mutex_);
    auto it = discoveries_.find(issuer);
    if (it != discoveries_.end() && clock_() - it->second.fetchedAt < kLifetime) {
      return it->second.value;
    }
  }
  auto fetched = fetchDiscovery_(issuer);
  if (!fetched) return fetched;
  std::lock_guard lock(mutex_);
  const auto now = clock_();
  discoveries_[issuer] = {fetched.value(), now, now};
  return fetched;
}

Result<std::vector<Jwk>> ProviderCache::keysFor(const std::string& jwksUri,
                                                const std::string& kid) {
  std::optional<std::vector<Jwk>> cached;
  {
    std::lock_guard lock(mutex_);
    auto it = keySets_.find(jwksUri);
    if (it != keySets_.end()) {
      const auto now = clock_();
      const bool fresh = now - it->second.fetchedAt < kLifetime;
      const bool kidKnown = kid.empty() || holdsKid(it->second.value, kid);
      if (fresh && (kidKnown || now - it->second.triedAt < kRefetchInterval)) {
        return it->second.value;
      }
      if (fresh) {
        cached = it->second.value;
        it->second.triedAt = now;  // one refetch per interval, whatever its outcome
      }
    }
  }
  auto fetched = fetchKeys_(jwksUri);
  if (!fetched) {
    if (cached) return std::move(*cached);
    return fetched;
  }
  std::lock_guard lock(mutex_);
  const auto now = clock_();
  keySets_[jwksUri] = {fetched.value(), now, now};
  return fetched;
}

}  // namespace quill::sso
