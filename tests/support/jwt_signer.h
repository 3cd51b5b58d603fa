#pragma once
// Mints ID tokens in tests: an RSA key published as a JWK, and compact JWTs signed with it
// (RS256), or under any header at all for the refusal cases.

#include <json/value.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <initializer_list>
#include <map>
#include <memory>
#include <string>

#include "base/base64url.h"
#include "http/json.h"

namespace quill::test {

class JwtSigner {
 public:
  explicit JwtSigner(std::string kid)
      : kid_(std::move(kid)), key_(EVP_RSA_gen(2048), EVP_PKEY_free) {}
  // One signer per kid for the whole test program: RSA key generation is slow.
  static const JwtSigner& shared(const std::string& kid) {
    static std::map<std::string, JwtSigner> signers;
    return signers.try_emplace(kid, kid).first->second;
  }

  // {"kty":"RSA","use":"sig","kid":...,"n":...,"e":...}; without kid when it is empty.
  Json::Value publicJwk() const {
    Json::Value jwk = withKid("kty", "RSA");
    jwk["use"] = "sig";
    for (const char* name : {OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E}) {  // "n" and "e"
      BIGNUM* bn = nullptr;
      EVP_PKEY_get_bn_param(key_.get(), name, &bn);
      std::string bytes(static_cast<std::size_t>(BN_num_bytes(bn)), '\0');
      BN_bn2bin(bn, reinterpret_cast<unsigned char*>(bytes.data()));
      BN_free(bn);
      jwk[name] = base::base64urlEncode(bytes);
    }
    return jwk;
  }
  // Under {"alg":"RS256","kid":...} (without kid when it is empty) unless `header` is given.
  std::string sign(const Json::Value& payload, Json::Value header = {}) const {
    if (header.isNull()) header = withKid("alg", "RS256");
    const std::string input = base::base64urlEncode(http::toCompactJson(header)) + "." +
                              base::base64urlEncode(http::toCompactJson(payload));
    std::string signature(static_cast<std::size_t>(EVP_PKEY_get_size(key_.get())), '\0');
    std::size_t length = signature.size();
    EVP_MD_CTX* md = EVP_MD_CTX_new();
    EVP_DigestSignInit(md, nullptr, EVP_sha256(), nullptr, key_.get());
    EVP_DigestSign(md, reinterpret_cast<unsigned char*>(signature.data()), &length,
                   reinterpret_cast<const unsigned char*>(input.data()), input.size());
    EVP_MD_CTX_free(md);
    return input + "." + base::base64urlEncode(signature.substr(0, length));
  }

 private:
  Json::Value withKid(const char* member, const char* value) const {
    Json::Value doc(Json::objectValue);
    if (!kid_.empty()) doc["kid"] = kid_;
    doc[member] = value;
    return doc;
  }
  std::string kid_;
  std::shared_ptr<EVP_PKEY> key_;
};

// {"keys": [jwk...]} of the given signers' public keys.
inline Json::Value keySet(std::initializer_list<const JwtSigner*> signers) {
  Json::Value set(Json::objectValue);
  set["keys"] = Json::Value(Json::arrayValue);
  for (const auto* signer : signers) set["keys"].append(signer->publicJwk());
  return set;
}

}  // namespace quill::test
