#pragma once
// ID tokens: the RS256 signature check against the provider's keys, and the claim checks of a
// sign-in.

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sso/oidc_client.h"

namespace quill::sso {

// Verifies a compact JWT signed with RS256 and answers its payload. Keys are tried in order; when
// the token names a kid, keys with another non-empty kid are skipped (keys without kid are always
// tried). Failures, in the order checked: "token is not a JWT", "bad token header", "token alg is
// not RS256", "bad token signature encoding", "bad token payload", and "token signature invalid"
// (+ " (kid <kid>)" when the token names one).
Result<Json::Value> verifyTokenSignature(const std::string& token, const std::vector<Jwk>& keys);

// The header's `kid`, or "" when the token has none or its header does not read.
std::string tokenKid(const std::string& token);

// What a sign-in expects of the payload.
struct ExpectedClaims {
  std::string issuer;
  std::string clientId;
  std::string nonce;
  std::int64_t now = 0;  // seconds since the epoch
};

// nullopt when iss, aud, exp and nonce all pass (checked in that order), else the first failure:
// "token issuer mismatch", "token audience mismatch", "token expired", "token nonce mismatch".
// A token expiring in the current second still passes; there is no allowance for clock skew.
std::optional<std::string> checkClaims(const Json::Value& payload, const ExpectedClaims& expected);

}  // namespace quill::sso
