#include "support/jwt_signer.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <map>
#include <mutex>

#include "base/base64url.h"
#include "http/json.h"

namespace quill::test {

struct JwtSigner::Key {
  EVP_PKEY* pkey = nullptr;
  ~Key() { EVP_PKEY_free(pkey); }
};

namespace {

std::string bignumBytes(EVP_PKEY* pkey, const char* name) {
  BIGNUM* bn = nullptr;
  EVP_PKEY_get_bn_param(pkey, name, &bn);
  std::string bytes(static_cast<std::size_t>(BN_num_bytes(bn)), '\0');
  BN_bn2bin(bn, reinterpret_cast<unsigned char*>(bytes.data()));
  BN_free(bn);
  return bytes;
}

}  // namespace

JwtSigner::JwtSigner(std::string kid) : kid_(std::move(kid)), key_(std::make_unique<Key>()) {
  key_->pkey = EVP_RSA_gen(2048);
}

JwtSigner::~JwtSigner() = default;

const JwtSigner& JwtSigner::shared(const std::string& kid) {
  static std::mutex mutex;
  static std::map<std::string, std::unique_ptr<JwtSigner>> signers;
  std::lock_guard lock(mutex);
  auto& signer = signers[kid];
  if (!signer) signer = std::make_unique<JwtSigner>(kid);
  return *signer;
}

Json::Value JwtSigner::publicJwk() const {
  Json::Value jwk(Json::objectValue);
  jwk["kty"] = "RSA";
  jwk["use"] = "sig";
  if (!kid_.empty()) jwk["kid"] = kid_;
  jwk["n"] = base::base64urlEncode(bignumBytes(key_->pkey, OSSL_PKEY_PARAM_RSA_N));
  jwk["e"] = base::base64urlEncode(bignumBytes(key_->pkey, OSSL_PKEY_PARAM_RSA_E));
  return jwk;
}

std::string JwtSigner::sign(const Json::Value& payload) const {
  Json::Value header(Json::objectValue);
  header["alg"] = "RS256";
  if (!kid_.empty()) header["kid"] = kid_;
  return signWithHeader(header, payload);
}

std::string JwtSigner::signWithHeader(const Json::Value& header, const Json::Value& payload) const {
  const std::string input = base::base64urlEncode(http::toCompactJson(header)) + "." +
                            base::base64urlEncode(http::toCompactJson(payload));
  EVP_MD_CTX* md = EVP_MD_CTX_new();
  std::size_t length = 0;
  EVP_DigestSignInit(md, nullptr, EVP_sha256(), nullptr, key_->pkey);
  EVP_DigestSign(md, nullptr, &length, reinterpret_cast<const unsigned char*>(input.data()),
                 input.size());
  std::string signature(length, '\0');
  EVP_DigestSign(md, reinterpret_cast<unsigned char*>(signature.data()), &length,
                 reinterpret_cast<const unsigned char*>(input.data()), input.size());
  EVP_MD_CTX_free(md);
  signature.resize(length);
  return input + "." + base::base64urlEncode(signature);
}

Json::Value keySet(std::initializer_list<const JwtSigner*> signers) {
  Json::Value set(Json::objectValue);
  set["keys"] = Json::Value(Json::arrayValue);
  for (const auto* signer : signers) set["keys"].append(signer->publicJwk());
  return set;
}

}  // namespace quill::test
