#pragma once
// Blocking requests to the identity provider over the one HTTP client, each limited to 10 seconds
// and to answers of 4 MiB. Callers run on the pool of the routes that wait on the identity
// provider, never on a request worker.
//
// Thread safety: any number of threads may call at once.

#include <string>

namespace quill::sso {

inline constexpr long kProviderTimeoutSeconds = 10;

struct ProviderAnswer {
  long status = 0;  // 0: no answer (unreachable, timed out, refused)
  std::string body;
};

// GET `url`. Redirects are not followed; only http and https are spoken.
ProviderAnswer providerGet(const std::string& url);

// POST `form` (already form-encoded) to `url` as application/x-www-form-urlencoded.
ProviderAnswer providerPostForm(const std::string& url, const std::string& form);

}  // namespace quill::sso
