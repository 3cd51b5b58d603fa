// The OpenID Connect client offline: encodings, the answers of discovery, key set and token
// endpoint, RS256 verification with the kid rules, the claim checks, and the provider cache.
// Unreachable peers and HTTP failures are pinned through the API (sso_api_test.cpp).

#include <gtest/gtest.h>

#include "base/base64url.h"
#include "sso/id_token.h"
#include "sso/provider_cache.h"
#include "sso/web_text.h"
#include "support/api_fixture.h"
#include "support/jwt_signer.h"
#include "support/numbered.h"

namespace quill::sso {
namespace {

using test::JwtSigner;
const std::string kF4("\x01\x00\x01", 3), kNoKeys = "key set has no RSA signing keys";

// The public key of a modulus of `bits` bits, odd unless told, and the given exponent bytes.
Jwk rsaKey(std::size_t bits, std::string e = kF4, const std::string& kid = "x", bool odd = true) {
  std::string n((bits + 7) / 8, '\xff');
  if (bits % 8) n[0] = static_cast<char>(0xff >> (8 - bits % 8));
  if (!odd) n.back() = '\xfe';
  return {kid, n, std::move(e)};
}
Json::Value jwk(const Jwk& k) {
  return test::parseJson(R"({"kty":"RSA","kid":")" + k.kid + R"(","n":")" +
                         base::base64urlEncode(k.n) + R"(","e":")" + base::base64urlEncode(k.e) +
                         "\"}");
}
std::vector<Jwk> keysOf(std::initializer_list<const JwtSigner*> signers) {
  return parseKeySet(200, http::toCompactJson(test::keySet(signers))).value();
}

TEST(SsoClient, EncodingsAndTheAnswersOfDiscoveryAndTokenEndpoint) {
  for (std::string bytes : {"", "f", "fo", "foo", "foob", "\xff\xfe"}) {
    EXPECT_EQ(base::base64urlEncode(bytes).find('='), std::string::npos);
    EXPECT_EQ(base::base64urlDecode(base::base64urlEncode(bytes)), bytes);
  }
  EXPECT_EQ(base::base64urlEncode("\xfb\xff"), "-_8");
  EXPECT_EQ(base::base64urlDecode("Zm9vYg=="), "foob");  // padding tolerated
  for (const char* bad : {"Zm9v+", "Zm9v/", "Z", "Zm9v!"}) EXPECT_FALSE(base::base64urlDecode(bad));
  EXPECT_EQ(htmlEscape("<b a=\"x\">'&'</b>"), "&lt;b a=&quot;x&quot;&gt;&#39;&amp;&#39;&lt;/b&gt;");
  EXPECT_EQ(codeChallenge("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),  // RFC 7636, appendix B
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");

  const std::string id = "https://id.example.com", wellKnown = "/.well-known/openid-configuration";
  EXPECT_EQ(discoveryUrl(id).value(), id + wellKnown);
  EXPECT_EQ(discoveryUrl("http://127.0.0.1:8080/t/").value(),
            "http://127.0.0.1:8080/t" + wellKnown);
  for (const char* bad : {"https://", "ftp://x", "https://h:port", "id.example.com", "https://a@b"})
    EXPECT_EQ(discoveryUrl(bad).error(), "issuer is not a URL") << bad;
  const std::string ends = R"(","authorization_endpoint":"a","token_endpoint":"t","jwks_uri":"k"})";
  const Discovery found = parseDiscovery(200, R"({"issuer":")" + id + ends, id).value();
  EXPECT_EQ(found.authorizationEndpoint + found.tokenEndpoint + found.jwksUri, "atk");
  for (const auto& [body, error] : std::vector<std::pair<std::string, std::string>>{
           {"<html>", "discovery document is not JSON"},
           {R"({"issuer":")" + id + "/" + ends,
            "discovery issuer 'https://id.example.com/' does not match the configured issuer"},
           {R"({"issuer":")" + id + R"(","authorization_endpoint":"a","jwks_uri":"k"})",
            "discovery document lacks authorization/token/jwks endpoints"}})
    EXPECT_EQ(parseDiscovery(200, body, id).error(), error) << body;

  EXPECT_EQ(parseTokenAnswer(200, R"({"id_token":"a.b.c"})").value(), "a.b.c");
  for (const auto& [status, body, error] : std::vector<std::tuple<long, const char*, const char*>>{
           {401, R"({"error":"invalid_client"})", "token exchange failed: HTTP 401 invalid_client"},
           {503, "busy", "token exchange failed: HTTP 503"},
           {200, R"({"access_token":"x"})", "token endpoint returned no id_token"},
           {200, R"({"id_token":7})", "token endpoint returned no id_token"}})
    EXPECT_EQ(parseTokenAnswer(status, body).error(), error) << body;
  EXPECT_EQ(exchangeCode(Discovery{"i", "a", "not a url", "k"}, SsoConfig{}, "r", "c", "v").error(),
            "token endpoint is not a URL");
}

TEST(SsoClient, KeySetsKeepUsableRsaSigningKeysOnlyInOrderAndAtMostKMaxKeys) {
  const JwtSigner& a = JwtSigner::shared("a");
  Json::Value set = test::keySet({&a, &JwtSigner::shared("")});
  Json::Value encryption = a.publicJwk(), noUse = a.publicJwk();
  encryption["use"] = "enc";
  noUse.removeMember("use");
  noUse["kid"] = "c";
  for (const Json::Value& key :
       {encryption, test::parseJson(R"({"kty":"EC","kid":"ec"})"), noUse, jwk(rsaKey(2047))})
    set["keys"].append(key);
  std::vector<std::string> kids;
  const auto kept = parseKeySet(200, http::toCompactJson(set));
  for (const Jwk& key : kept.value()) kids.push_back(key.kid);
  EXPECT_EQ(kids, (std::vector<std::string>{"a", "", "c"}));
  EXPECT_EQ(parseKeySet(200, "keys").error(), "key set is not JSON");
  EXPECT_EQ(parseKeySet(200, R"({"keys":[{"kty":"EC","use":"sig"}]})").error(), kNoKeys);
  EXPECT_EQ(
      parseKeySet(200, R"({"keys":{"a":)" + http::toCompactJson(jwk(rsaKey(2048))) + "}}").error(),
      kNoKeys);
  EXPECT_EQ(fetchKeys("file:///etc/passwd").error(), "jwks_uri is not a URL");
  set["keys"] = Json::Value(Json::arrayValue);
  for (std::size_t i = 0; i < 40; ++i)
    set["keys"].append(jwk(rsaKey(2048, kF4, test::numbered("k", i))));
  const auto many = parseKeySet(200, http::toCompactJson(set)).value();
  EXPECT_EQ(many.size() == kMaxKeys ? many.back().kid : "", test::numbered("k", kMaxKeys - 1));

  // Absurd sizes and shapes: 2048 to 16384 modulus bits (odd), an odd exponent of up to 64 bits.
  for (const auto& [key, usable] : std::vector<std::pair<Jwk, bool>>{
           {rsaKey(2048), true},
           {rsaKey(16384), true},
           {rsaKey(2047), false},
           {rsaKey(16385), false},
           {rsaKey(2048, kF4, "x", false), false},
           {rsaKey(2048, std::string(8, '\xff')), true},
           {rsaKey(2048, std::string(1, '\x00') + kF4), true},  // leading zeros do not count
           {rsaKey(2048, std::string(9, '\xff')), false},
           {rsaKey(2048, "\x01"), false},
           {rsaKey(2048, std::string("\x01\x00", 2)), false},
           {rsaKey(2048, ""), false}}) {
    EXPECT_EQ(isUsableRsaKey(key), usable) << key.n.size() << " " << key.e.size();
  }
}

TEST(SsoClient, SignaturesFollowTheKidRulesAndMalformedTokensAreRefusedInOrder) {
  const JwtSigner &k1 = JwtSigner::shared("k1"), &k2 = JwtSigner::shared("k2");
  const JwtSigner& none = JwtSigner::shared("");
  Json::Value payload = test::parseJson(R"({"sub":"s1"})"),
              header = test::parseJson(R"({"alg":"RS256"})");
  EXPECT_EQ(verifyTokenSignature(k1.sign(payload), keysOf({&k2, &k1})).value(), payload);
  // Keys naming another kid are skipped, keys without kid always tried.
  EXPECT_TRUE(verifyTokenSignature(k1.sign(payload), keysOf({&none, &k1})));
  EXPECT_TRUE(verifyTokenSignature(none.sign(payload), keysOf({&k1, &none})));
  EXPECT_EQ(verifyTokenSignature(none.sign(payload), keysOf({&k1})).error(),
            "token signature invalid");
  const std::string bare = none.sign(Json::Value(5), header);
  EXPECT_EQ(verifyTokenSignature(bare, keysOf({&none})).error(), "bad token payload");
  EXPECT_EQ(tokenKid(bare), "");
  header["kid"] = "k1";  // signed by k2's key: k2 is never tried, the kid-less key fails
  EXPECT_EQ(verifyTokenSignature(k2.sign(payload, header), keysOf({&k2, &none})).error(),
            "token signature invalid (kid k1)");
  const std::string good = k1.sign(payload), rest = good.substr(good.find('.'));
  const std::string unsigned_ = good.substr(0, good.rfind('.') + 1);
  EXPECT_EQ(tokenKid(good), "k1");
  auto head = [](const char* json) { return base::base64urlEncode(json); };
  for (const auto& [token, error] : std::vector<std::pair<std::string, std::string>>{
           {"a.b", "token is not a JWT"},
           {good + ".x", "token is not a JWT"},
           {"!!" + rest, "bad token header"},
           {head("[1]") + rest, "bad token header"},
           {head(R"({"alg":"none"})") + rest, "token alg is not RS256"},
           {head(R"({"alg":"HS256","kid":"k1"})") + rest, "token alg is not RS256"},
           {head(R"({"alg":"rs256"})") + rest, "token alg is not RS256"},
           {unsigned_, "bad token signature encoding"},
           {unsigned_ + "!!", "bad token signature encoding"},
           {good.substr(0, good.find('.')) + ".e30" + good.substr(good.rfind('.')),
            "token signature invalid (kid k1)"}}) {
    EXPECT_EQ(verifyTokenSignature(token, keysOf({&k1})).error(), error) << token;
  }
}

TEST(SsoClient, ClaimsAreCheckedInOrderWithoutSkew) {
  const std::int64_t now = 1'800'000'000;
  const ExpectedClaims expected{"https://id", "quill", "n1", now};
  // Expiring this very second is still good.
  const Json::Value good = test::parseJson(
      R"({"iss":"https://id","aud":"quill","nonce":"n1","exp":)" + std::to_string(now) + "}");
  EXPECT_EQ(checkClaims(good, expected), std::nullopt);
  EXPECT_EQ(checkClaims(Json::Value(Json::objectValue), expected), "token issuer mismatch");
  // One member changed (null: removed) and the answer.
  for (const auto& [member, value, error] :
       std::vector<std::tuple<const char*, Json::Value, const char*>>{
           {"aud", test::strings({"other", "quill"}), "passed"},
           {"exp", 1e300, "passed"},
           {"iss", "https://id/", "token issuer mismatch"},
           {"aud", "Quill", "token audience mismatch"},
           {"aud", test::strings({"other"}), "token audience mismatch"},
           {"exp", Json::Int64(now - 1), "token expired"},
           {"exp", Json::Value(), "token expired"},
           {"exp", "1900000000", "token expired"},
           {"exp", -1e300, "token expired"},
           {"nonce", "n2", "token nonce mismatch"}}) {
    Json::Value p = good;
    value.isNull() ? (void)p.removeMember(member) : (void)(p[member] = value);
    EXPECT_EQ(checkClaims(p, expected).value_or("passed"), error) << member << " " << value;
  }
}

TEST(SsoClient, TheCacheKeepsAnswersForTheirLifetimeAndRefetchesForAnUnknownKidOncePerInterval) {
  std::chrono::steady_clock::time_point now{};
  int discoveries = 0, keyFetches = 0;
  bool failing = true;
  std::vector<Jwk> keys{{"k1", "n", "e"}};
  ProviderCache cache(
      [&](const std::string& issuer) -> Result<Discovery> {
        ++discoveries;
        return Discovery{issuer, "a", "t", "k"};
      },
      [&](const std::string&) -> Result<std::vector<Jwk>> {
        ++keyFetches;
        return failing ? Result<std::vector<Jwk>>(Failure{"could not fetch the provider's keys"})
                       : keys;
      },
      [&] { return now; });
  auto keysFor = [&](const char* kid) { return cache.keysFor("https://id/k", kid).value().size(); };
  failing = true;
  EXPECT_FALSE(cache.keysFor("https://id/k", ""));  // not kept
  failing = false;
  for (auto wait : {std::chrono::seconds(0), ProviderCache::kLifetime - std::chrono::seconds(1)}) {
    now += wait;
    EXPECT_TRUE(cache.discovery("https://id") && keysFor("k1") == 1u);
  }
  EXPECT_EQ(std::pair(discoveries, keyFetches), std::pair(1, 2));
  now += std::chrono::seconds(1);
  EXPECT_TRUE(cache.discovery("https://id") && keysFor("") == 1u);
  EXPECT_EQ(std::pair(discoveries, keyFetches), std::pair(2, 3));
  // Right after a fetch, an unknown kid does not fetch again; once the interval has passed it does.
  EXPECT_EQ(keysFor("k2"), 1u);
  now += ProviderCache::kRefetchInterval;
  keys.push_back({"k2", "n", "e"});  // the provider rotated
  EXPECT_EQ(keysFor("k2"), 2u);
  // A forged kid again and again: one fetch per interval, the cached set meanwhile.
  now += ProviderCache::kRefetchInterval;
  failing = true;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(keysFor("forged"), 2u);
  EXPECT_EQ(keyFetches, 5);
}

}  // namespace
}  // namespace quill::sso
