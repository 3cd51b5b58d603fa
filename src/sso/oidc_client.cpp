#include "sso/oidc_client.h"

#include <openssl/sha.h>

#include <bit>

#include "base/base64url.h"
#include "base/json_reader.h"
#include "base/percent_encoding.h"
#include "sso/provider_http.h"
#include "sso/web_text.h"
#include "store/documents.h"
#include "store/random.h"
#include "store/users.h"

namespace quill::sso {

namespace {

namespace text {
constexpr const char* kIssuerNotUrl = "issuer is not a URL";
constexpr const char* kIssuerUnreachable = "issuer unreachable";
constexpr const char* kDiscoveryNotJson = "discovery document is not JSON";
constexpr const char* kNoEndpoints = "discovery document lacks authorization/token/jwks endpoints";
constexpr const char* kJwksNotUrl = "jwks_uri is not a URL";
constexpr const char* kNoKeys = "could not fetch the provider's keys";
constexpr const char* kKeysNotJson = "key set is not JSON";
constexpr const char* kNoRsaKeys = "key set has no RSA signing keys";
constexpr const char* kTokenNotUrl = "token endpoint is not a URL";
constexpr const char* kTokenUnreachable = "token endpoint unreachable";
constexpr const char* kNoIdToken = "token endpoint returned no id_token";
}  // namespace text

constexpr std::size_t kMinModulusBits = 2048;
constexpr std::size_t kMaxModulusBits = 16384;
constexpr std::size_t kMaxExponentBits = 64;

// The bit length of a big-endian unsigned integer (leading zero bytes allowed).
std::size_t bitLength(std::string_view bytes) {
  while (!bytes.empty() && bytes.front() == '\0') bytes.remove_prefix(1);
  if (bytes.empty()) return 0;
  return (bytes.size() - 1) * 8 +
         static_cast<std::size_t>(std::bit_width(static_cast<unsigned char>(bytes.front())));
}

bool isOdd(std::string_view bytes) {
  return !bytes.empty() && (static_cast<unsigned char>(bytes.back()) & 1) != 0;
}

}  // namespace

bool isUsableRsaKey(const Jwk& key) {
  const std::size_t modulusBits = bitLength(key.n);
  const std::size_t exponentBits = bitLength(key.e);
  return modulusBits >= kMinModulusBits && modulusBits <= kMaxModulusBits && isOdd(key.n) &&
         exponentBits >= 2 && exponentBits <= kMaxExponentBits && isOdd(key.e);
}

PkceSecrets newPkceSecrets() {
  return {store::randomString(32), store::randomString(32), store::randomString(64)};
}

std::string codeChallenge(const std::string& codeVerifier) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(codeVerifier.data()), codeVerifier.size(), digest);
  return base::base64urlEncode(
      std::string_view(reinterpret_cast<const char*>(digest), sizeof digest));
}

Result<std::string> discoveryUrl(const std::string& issuer) {
  auto parts = splitUrl(issuer);
  if (!parts) return Failure{text::kIssuerNotUrl};
  std::string path = parts->path;
  if (!path.ends_with('/')) path += '/';
  return parts->origin + path + ".well-known/openid-configuration";
}

Result<Discovery> parseDiscovery(long status, const std::string& body, const std::string& issuer) {
  if (status == 0) return Failure{text::kIssuerUnreachable};
  if (status != 200) return Failure{"discovery document: HTTP " + std::to_string(status)};
  auto doc = base::parseJsonObject(body);
  if (!doc) return Failure{text::kDiscoveryNotJson};
  Discovery discovery;
  discovery.issuer = store::textOf(*doc, "issuer");
  discovery.authorizationEndpoint = store::textOf(*doc, "authorization_endpoint");
  discovery.tokenEndpoint = store::textOf(*doc, "token_endpoint");
  discovery.jwksUri = store::textOf(*doc, "jwks_uri");
  if (discovery.issuer != issuer) {
    return Failure{"discovery issuer '" + discovery.issuer +
                   "' does not match the configured issuer"};
  }
  if (discovery.authorizationEndpoint.empty() || discovery.tokenEndpoint.empty() ||
      discovery.jwksUri.empty()) {
    return Failure{text::kNoEndpoints};
  }
  return discovery;
}

Result<Discovery> fetchDiscovery(const std::string& issuer) {
  auto url = discoveryUrl(issuer);
  if (!url) return Failure{url.error()};
  auto answer = providerGet(url.value());
  return parseDiscovery(answer.status, answer.body, issuer);
}

Result<std::vector<Jwk>> parseKeySet(long status, const std::string& body) {
  if (status != 200) return Failure{text::kNoKeys};
  auto doc = base::parseJsonObject(body);
  if (!doc) return Failure{text::kKeysNotJson};
  const Json::Value& set = (*doc)["keys"];
  std::vector<Jwk> keys;
  for (Json::ArrayIndex i = 0; set.isArray() && i < set.size() && keys.size() < kMaxKeys; ++i) {
    const Json::Value& key = set[i];
    if (!key.isObject() || store::textOf(key, "kty") != "RSA") continue;
    if (key.isMember("use") && store::textOf(key, "use") != "sig") continue;
    auto n = base::base64urlDecode(store::textOf(key, "n"));
    auto e = base::base64urlDecode(store::textOf(key, "e"));
    if (!n || !e) continue;
    Jwk jwk{store::textOf(key, "kid"), std::move(*n), std::move(*e)};
    if (isUsableRsaKey(jwk)) keys.push_back(std::move(jwk));
  }
  if (keys.empty()) return Failure{text::kNoRsaKeys};
  return keys;
}

Result<std::vector<Jwk>> fetchKeys(const std::string& jwksUri) {
  if (!splitUrl(jwksUri)) return Failure{text::kJwksNotUrl};
  auto answer = providerGet(jwksUri);
  return parseKeySet(answer.status, answer.body);
}

std::string authorizationUrl(const Discovery& discovery, const SsoConfig& config,
                             const std::string& redirectUri, const PkceSecrets& secrets) {
  const std::string& endpoint = discovery.authorizationEndpoint;
  std::string url = endpoint;
  url += endpoint.find('?') == std::string::npos ? '?' : '&';
  url += "response_type=code&scope=" + base::percentEncode(config.scopes);
  url += "&client_id=" + base::percentEncode(config.clientId);
  url += "&redirect_uri=" + base::percentEncode(redirectUri);
  url += "&state=" + base::percentEncode(secrets.state);
  url += "&nonce=" + base::percentEncode(secrets.nonce);
  url += "&code_challenge=" + base::percentEncode(codeChallenge(secrets.codeVerifier));
  url += "&code_challenge_method=S256";
  return url;
}

Result<std::string> parseTokenAnswer(long status, const std::string& body) {
  if (status == 0) return Failure{text::kTokenUnreachable};
  auto doc = base::parseJsonObject(body);
  if (status != 200) {
    std::string reason = "token exchange failed: HTTP " + std::to_string(status);
    if (doc && (*doc)["error"].isString()) reason.append(" ").append((*doc)["error"].asString());
    if (doc && (*doc)["error_description"].isString()) {
      reason.append(": ").append((*doc)["error_description"].asString());
    }
    return Failure{reason};
  }
  if (!doc || !(*doc)["id_token"].isString()) return Failure{text::kNoIdToken};
  return (*doc)["id_token"].asString();
}

Result<std::string> exchangeCode(const Discovery& discovery, const SsoConfig& config,
                                 const std::string& redirectUri, const std::string& code,
                                 const std::string& codeVerifier) {
  if (!splitUrl(discovery.tokenEndpoint)) return Failure{text::kTokenNotUrl};
  std::string form = "grant_type=authorization_code&code=" + base::percentEncode(code);
  form += "&redirect_uri=" + base::percentEncode(redirectUri);
  form += "&client_id=" + base::percentEncode(config.clientId);
  form += "&client_secret=" + base::percentEncode(config.clientSecret);
  form += "&code_verifier=" + base::percentEncode(codeVerifier);
  auto answer = providerPostForm(discovery.tokenEndpoint, form);
  return parseTokenAnswer(answer.status, answer.body);
}

}  // namespace quill::sso
