#include "sso/id_token.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <limits>
#include <memory>

#include "base/base64url.h"
#include "base/json_reader.h"

namespace quill::sso {

namespace {

namespace text {
constexpr const char* kNotJwt = "token is not a JWT";
constexpr const char* kBadHeader = "bad token header";
constexpr const char* kNotRs256 = "token alg is not RS256";
constexpr const char* kBadSignature = "bad token signature encoding";
constexpr const char* kBadPayload = "bad token payload";
constexpr const char* kInvalid = "token signature invalid";
constexpr const char* kIssuer = "token issuer mismatch";
constexpr const char* kAudience = "token audience mismatch";
constexpr const char* kExpired = "token expired";
constexpr const char* kNonce = "token nonce mismatch";
}  // namespace text

struct JwtParts {
  std::string_view header, payload, signature, signedInput;
};

std::optional<JwtParts> splitJwt(std::string_view token) {
  const std::size_t first = token.find('.');
  if (first == std::string_view::npos) return std::nullopt;
  const std::size_t second = token.find('.', first + 1);
  if (second == std::string_view::npos || token.find('.', second + 1) != std::string_view::npos) {
    return std::nullopt;
  }
  return JwtParts{token.substr(0, first), token.substr(first + 1, second - first - 1),
                  token.substr(second + 1), token.substr(0, second)};
}

std::optional<Json::Value> decodeJsonPart(std::string_view part) {
  auto bytes = base::base64urlDecode(part);
  if (!bytes) return std::nullopt;
  return base::parseJsonObject(*bytes);
}

using PkeyPtr = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;

// An RSA public key from its big-endian modulus and exponent.
PkeyPtr rsaPublicKey(const Jwk& key) {
  PkeyPtr pkey(nullptr, EVP_PKEY_free);
  if (!isUsableRsaKey(key)) return pkey;
  std::unique_ptr<BIGNUM, void (*)(BIGNUM*)> n(
      BN_bin2bn(reinterpret_cast<const unsigned char*>(key.n.data()),
                static_cast<int>(key.n.size()), nullptr),
      BN_free);
  std::unique_ptr<BIGNUM, void (*)(BIGNUM*)> e(
      BN_bin2bn(reinterpret_cast<const unsigned char*>(key.e.data()),
                static_cast<int>(key.e.size()), nullptr),
      BN_free);
  std::unique_ptr<OSSL_PARAM_BLD, void (*)(OSSL_PARAM_BLD*)> builder(OSSL_PARAM_BLD_new(),
                                                                     OSSL_PARAM_BLD_free);
  if (!n || !e || !builder ||
      !OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) ||
      !OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get())) {
    return pkey;
  }
  std::unique_ptr<OSSL_PARAM, void (*)(OSSL_PARAM*)> params(OSSL_PARAM_BLD_to_param(builder.get()),
                                                            OSSL_PARAM_free);
  std::unique_ptr<EVP_PKEY_CTX, void (*)(EVP_PKEY_CTX*)> ctx(
      EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) <= 0) return pkey;
  EVP_PKEY* raw = nullptr;
  if (EVP_PKEY_fromdata(ctx.get(), &raw, EVP_PKEY_PUBLIC_KEY, params.get()) <= 0) return pkey;
  pkey.reset(raw);
  return pkey;
}

// RSASSA-PKCS1-v1_5 with SHA-256.
bool verifiesWith(const Jwk& key, std::string_view signedInput, const std::string& signature) {
  PkeyPtr pkey = rsaPublicKey(key);
  if (!pkey) return false;
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> md(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!md || EVP_DigestVerifyInit(md.get(), nullptr, EVP_sha256(), nullptr, pkey.get()) != 1) {
    return false;
  }
  return EVP_DigestVerify(
             md.get(), reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
             reinterpret_cast<const unsigned char*>(signedInput.data()), signedInput.size()) == 1;
}

bool audienceHolds(const Json::Value& aud, const std::string& clientId) {
  if (aud.isString()) return aud.asString() == clientId;
  if (!aud.isArray()) return false;
  for (const auto& entry : aud) {
    if (entry.isString() && entry.asString() == clientId) return true;
  }
  return false;
}

// Seconds since the epoch; 0 when missing or not a number. Fractions are cut, and numbers beyond
// the 64-bit range are clamped rather than converted.
std::int64_t expiryOf(const Json::Value& payload) {
  const Json::Value& exp = payload["exp"];
  if (exp.isInt64()) return exp.asInt64();
  if (!exp.isNumeric()) return 0;
  const double seconds = exp.asDouble();
  if (seconds >= 9.2e18) return std::numeric_limits<std::int64_t>::max();
  if (seconds > -9.2e18) return static_cast<std::int64_t>(seconds);
  return 0;
}

}  // namespace

Result<Json::Value> verifyTokenSignature(const std::string& token, const std::vector<Jwk>& keys) {
  auto parts = splitJwt(token);
  if (!parts) return Failure{text::kNotJwt};
  auto header = decodeJsonPart(parts->header);
  if (!header) return Failure{text::kBadHeader};
  const Json::Value& alg = (*header)["alg"];
  if (!alg.isString() || alg.asString() != "RS256") return Failure{text::kNotRs256};
  const std::string kid = (*header)["kid"].isString() ? (*header)["kid"].asString() : "";
  auto signature = base::base64urlDecode(parts->signature);
  if (!signature || signature->empty()) return Failure{text::kBadSignature};

  for (const auto& key : keys) {
    if (!kid.empty() && !key.kid.empty() && key.kid != kid) continue;
    if (!verifiesWith(key, parts->signedInput, *signature)) continue;
    auto payload = decodeJsonPart(parts->payload);
    if (!payload) return Failure{text::kBadPayload};
    return std::move(*payload);
  }
  if (kid.empty()) return Failure{text::kInvalid};
  return Failure{std::string(text::kInvalid) + " (kid " + kid + ")"};
}

std::string tokenKid(const std::string& token) {
  auto parts = splitJwt(token);
  if (!parts) return "";
  auto header = decodeJsonPart(parts->header);
  if (!header || !(*header)["kid"].isString()) return "";
  return (*header)["kid"].asString();
}

std::optional<std::string> checkClaims(const Json::Value& payload, const ExpectedClaims& expected) {
  const Json::Value& iss = payload["iss"];
  if (!iss.isString() || iss.asString() != expected.issuer) return text::kIssuer;
  if (!audienceHolds(payload["aud"], expected.clientId)) return text::kAudience;
  if (expiryOf(payload) < expected.now) return text::kExpired;
  const Json::Value& nonce = payload["nonce"];
  if (!nonce.isString() || nonce.asString() != expected.nonce) return text::kNonce;
  return std::nullopt;
}

}  // namespace quill::sso
