#pragma once
// The relying-party side of OpenID Connect: discovery, the provider's key set, the authorization
// URL with PKCE, and the code exchange. Each network step is one blocking request limited to 10
// seconds (see provider_http.h); the parsing steps are separate so they can be checked offline.

#include <json/value.h>

#include <cstddef>
#include <string>
#include <vector>

#include "sso/sso_config.h"

namespace quill::sso {

struct Discovery {
  std::string issuer;
  std::string authorizationEndpoint;
  std::string tokenEndpoint;
  std::string jwksUri;
};

// An RSA signing key: `n` and `e` are the decoded big-endian integers.
struct Jwk {
  std::string kid;  // may be empty
  std::string n;
  std::string e;
};

// Whether a signature is checked with `key` at all: a modulus of 2048 (the least RS256 allows) to
// 16384 bits (the most OpenSSL uses) and an odd exponent from 3 to 64 bits wide. Anything else is
// a broken or hostile key set, not a provider's key.
bool isUsableRsaKey(const Jwk& key);

// Per sign-in secrets: state and nonce 32 characters, the PKCE verifier 64.
struct PkceSecrets {
  std::string state;
  std::string nonce;
  std::string codeVerifier;
};
PkceSecrets newPkceSecrets();

// base64url (unpadded) of SHA-256 of the verifier.
std::string codeChallenge(const std::string& codeVerifier);

// issuer path + "/" (unless it ends in one) + ".well-known/openid-configuration";
// "issuer is not a URL" when the issuer cannot be split.
Result<std::string> discoveryUrl(const std::string& issuer);

// Checks an answer to the discovery request against the configured issuer.
Result<Discovery> parseDiscovery(long status, const std::string& body, const std::string& issuer);
Result<Discovery> fetchDiscovery(const std::string& issuer);

// Keeps the RSA keys with n and e whose `use` is absent or "sig" and that pass isUsableRsaKey, in
// key-set order, at most kMaxKeys of them (each may cost a signature check per sign-in).
inline constexpr std::size_t kMaxKeys = 32;
Result<std::vector<Jwk>> parseKeySet(long status, const std::string& body);
Result<std::vector<Jwk>> fetchKeys(const std::string& jwksUri);

std::string authorizationUrl(const Discovery& discovery, const SsoConfig& config,
                             const std::string& redirectUri, const PkceSecrets& secrets);

// The raw ID token, or the failure text ("token endpoint unreachable", "token exchange failed:
// HTTP <status>[ <error>][: <error_description>]", "token endpoint returned no id_token").
Result<std::string> exchangeCode(const Discovery& discovery, const SsoConfig& config,
                                 const std::string& redirectUri, const std::string& code,
                                 const std::string& codeVerifier);
Result<std::string> parseTokenAnswer(long status, const std::string& body);

}  // namespace quill::sso
