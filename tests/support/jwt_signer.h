#pragma once
// Mints ID tokens in tests: a fresh RSA key whose public half is published as a JWK, and compact
// JWTs signed with it (RS256), or with any header at all for the refusal cases.

#include <json/value.h>

#include <initializer_list>
#include <memory>
#include <string>

namespace quill::test {

class JwtSigner {
 public:
  explicit JwtSigner(std::string kid);
  // One signer per kid for the whole test program: RSA key generation is slow.
  static const JwtSigner& shared(const std::string& kid);
  ~JwtSigner();
  JwtSigner(const JwtSigner&) = delete;
  JwtSigner& operator=(const JwtSigner&) = delete;

  // {"kty":"RSA","use":"sig","kid":...,"n":...,"e":...}; the kid member is left out when empty.
  Json::Value publicJwk() const;
  // header.payload.signature with header {"alg":"RS256","kid":kid} (no kid when empty).
  std::string sign(const Json::Value& payload) const;
  // As sign(), with the given header as it stands.
  std::string signWithHeader(const Json::Value& header, const Json::Value& payload) const;

 private:
  std::string kid_;
  struct Key;
  std::unique_ptr<Key> key_;
};

// {"keys": [jwk...]} of the given signers' public keys.
Json::Value keySet(std::initializer_list<const JwtSigner*> signers);

}  // namespace quill::test
