// The OpenID Connect client offline: encodings, the answers of discovery, key set and token
// endpoint, RS256 verification with the kid rules, the claim checks, and the provider cache.

#include <gtest/gtest.h>

#include <ctime>

#include "base/base64url.h"
#include "base/percent_encoding.h"
#include "http/json.h"
#include "sso/id_token.h"
#include "sso/oidc_client.h"
#include "sso/provider_cache.h"
#include "sso/web_text.h"
#include "support/api_fixture.h"
#include "support/jwt_signer.h"
#include "support/numbered.h"

namespace quill::sso {
namespace {

using test::JwtSigner;

TEST(SsoEncoding, Base64urlPercentAndHtmlEscapingAndPkceSecrets) {
  for (std::string bytes : {"", "f", "fo", "foo", "foob", "\xff\xfe\x00\x3e"}) {
    const std::string encoded = base::base64urlEncode(bytes);
    EXPECT_EQ(encoded.find('='), std::string::npos);
    EXPECT_EQ(base::base64urlDecode(encoded), bytes);
  }
  EXPECT_EQ(base::base64urlEncode("\xfb\xff"), "-_8");
  EXPECT_EQ(base::base64urlDecode("Zm9vYg=="), "foob");  // padding tolerated
  for (const char* bad : {"Zm9v+", "Zm9v/", "Z", "Zm9v!"})
    EXPECT_FALSE(base::base64urlDecode(bad)) << bad;

  EXPECT_EQ(base::percentEncode("aZ09-._~ /:?&=+%\xc3\xa9"),
            "aZ09-._~%20%2F%3A%3F%26%3D%2B%25%C3%A9");
  EXPECT_EQ(htmlEscape("<b a=\"x\">'&'</b>"), "&lt;b a=&quot;x&quot;&gt;&#39;&amp;&#39;&lt;/b&gt;");

  // RFC 7636 appendix B.
  EXPECT_EQ(codeChallenge("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
  auto secrets = newPkceSecrets();
  EXPECT_TRUE(test::isRandomText(secrets.state, 32));
  EXPECT_TRUE(test::isRandomText(secrets.nonce, 32));
  EXPECT_TRUE(test::isRandomText(secrets.codeVerifier, 64));
}

TEST(SsoDiscovery, TheIssuerPathGetsTheWellKnownSuffixAndAnswersAreCheckedInOrder) {
  const std::pair<const char*, const char*> urls[] = {
      {"https://id.example.com", "https://id.example.com/.well-known/openid-configuration"},
      {"https://id.example.com/realms/a",
       "https://id.example.com/realms/a/.well-known/openid-configuration"},
      {"http://127.0.0.1:8080/t/", "http://127.0.0.1:8080/t/.well-known/openid-configuration"},
  };
  for (auto [issuer, url] : urls) EXPECT_EQ(discoveryUrl(issuer).value(), url) << issuer;
  for (const char* bad :
       {"https://", "ftp://x", "https://h:port", "id.example.com", "https://a@b"}) {
    EXPECT_EQ(discoveryUrl(bad).error(), "issuer is not a URL") << bad;
  }

  const std::string issuer = "https://id.example.com";
  const std::string good =
      R"({"issuer":"https://id.example.com","authorization_endpoint":"https://id.example.com/a",)"
      R"("token_endpoint":"https://id.example.com/t","jwks_uri":"https://id.example.com/k"})";
  auto found = parseDiscovery(200, good, issuer);
  ASSERT_TRUE(found) << found.error();
  EXPECT_EQ(found.value().authorizationEndpoint, "https://id.example.com/a");
  EXPECT_EQ(found.value().tokenEndpoint, "https://id.example.com/t");
  EXPECT_EQ(found.value().jwksUri, "https://id.example.com/k");

  const std::tuple<long, std::string, std::string> failures[] = {
      {0, "", "issuer unreachable"},
      {404, good, "discovery document: HTTP 404"},
      {200, "<html>", "discovery document is not JSON"},
      {200, R"({"issuer":"https://id.example.com/","authorization_endpoint":"a"})",
       "discovery issuer 'https://id.example.com/' does not match the configured issuer"},
      {200, R"({"issuer":"https://id.example.com","authorization_endpoint":"a","jwks_uri":"k"})",
       "discovery document lacks authorization/token/jwks endpoints"},
  };
  for (const auto& [status, body, error] : failures) {
    EXPECT_EQ(parseDiscovery(status, body, issuer).error(), error) << body;
  }
}

TEST(SsoKeySet, KeepsRsaSigningKeysOnlyInOrder) {
  const JwtSigner& a = JwtSigner::shared("a");
  const JwtSigner& b = JwtSigner::shared("");
  Json::Value set = test::keySet({&a, &b});
  Json::Value encryption = a.publicJwk(), noUse = a.publicJwk();
  encryption["use"] = "enc";
  noUse.removeMember("use");
  noUse["kid"] = "c";
  for (const Json::Value& key : {encryption, test::parseJson(R"({"kty":"EC","kid":"ec"})"), noUse})
    set["keys"].append(key);
  auto keys = parseKeySet(200, http::toCompactJson(set));
  ASSERT_TRUE(keys) << keys.error();
  std::vector<std::string> kids;
  for (const Jwk& key : keys.value()) kids.push_back(key.kid);
  EXPECT_EQ(kids, (std::vector<std::string>{"a", "", "c"}));

  EXPECT_EQ(parseKeySet(0, "").error(), "could not fetch the provider's keys");
  EXPECT_EQ(parseKeySet(500, "{}").error(), "could not fetch the provider's keys");
  EXPECT_EQ(parseKeySet(200, "keys").error(), "key set is not JSON");
  EXPECT_EQ(parseKeySet(200, R"({"keys":[{"kty":"EC","use":"sig"}]})").error(),
            "key set has no RSA signing keys");
  EXPECT_EQ(fetchKeys("file:///etc/passwd").error(), "jwks_uri is not a URL");
}

TEST(SsoKeySet, KeysOfAbsurdSizeOrShapeAreNotUsed) {
  // A modulus of `bits` bits (odd) and the given exponent bytes.
  auto rsaKey = [](std::size_t bits, std::string e, const char* kid = "x") {
    std::string n((bits + 7) / 8, '\xff');
    if (bits % 8) n[0] = static_cast<char>(0xff >> (8 - bits % 8));
    Json::Value key(Json::objectValue);
    key["kty"] = "RSA";
    key["kid"] = kid;
    key["n"] = base::base64urlEncode(n);
    key["e"] = base::base64urlEncode(e);
    return key;
  };
  const std::string f4("\x01\x00\x01", 3);
  const std::pair<Json::Value, bool> cases[] = {
      {rsaKey(2048, f4), true},
      {rsaKey(16384, f4), true},
      {rsaKey(2048, std::string(1, '\x00') + f4), true},  // leading zeros do not count
      {rsaKey(2047, f4), false},
      {rsaKey(16385, f4), false},
      {rsaKey(2048, std::string(8, '\xff')), true},
      {rsaKey(2048, std::string(9, '\xff')), false},
      {rsaKey(2048, "\x01"), false},
      {rsaKey(2048, std::string("\x01\x00", 2)), false},  // even
      {rsaKey(2048, ""), false},
  };
  for (const auto& [key, usable] : cases) {
    Json::Value set(Json::objectValue);
    set["keys"].append(key);
    EXPECT_EQ(bool(parseKeySet(200, http::toCompactJson(set))), usable) << key;
  }
  Json::Value evenModulus = rsaKey(2048, f4);
  std::string n = *base::base64urlDecode(evenModulus["n"].asString());
  n.back() = '\xfe';
  evenModulus["n"] = base::base64urlEncode(n);
  Json::Value set(Json::objectValue);
  set["keys"].append(evenModulus);
  EXPECT_FALSE(parseKeySet(200, http::toCompactJson(set)));

  // A key set is an array; a long one is read no further than kMaxKeys usable keys.
  set["keys"] = Json::Value(Json::objectValue);
  set["keys"]["a"] = rsaKey(2048, f4);
  EXPECT_EQ(parseKeySet(200, http::toCompactJson(set)).error(), "key set has no RSA signing keys");
  set["keys"] = Json::Value(Json::arrayValue);
  for (int i = 0; i < 40; ++i) set["keys"].append(rsaKey(2048, f4, test::numbered("k", i).c_str()));
  auto keys = parseKeySet(200, http::toCompactJson(set));
  ASSERT_EQ(keys.value().size(), kMaxKeys);
  EXPECT_EQ(keys.value().back().kid, test::numbered("k", kMaxKeys - 1));
}

TEST(SsoTokenAnswer, FailuresQuoteTheProvider) {
  EXPECT_EQ(parseTokenAnswer(200, R"({"id_token":"a.b.c"})").value(), "a.b.c");
  const std::tuple<long, std::string, std::string> failures[] = {
      {0, "", "token endpoint unreachable"},
      {400, R"({"error":"invalid_grant","error_description":"grant request is invalid"})",
       "token exchange failed: HTTP 400 invalid_grant: grant request is invalid"},
      {401, R"({"error":"invalid_client"})", "token exchange failed: HTTP 401 invalid_client"},
      {503, "busy", "token exchange failed: HTTP 503"},
      {200, R"({"access_token":"x"})", "token endpoint returned no id_token"},
      {200, R"({"id_token":7})", "token endpoint returned no id_token"},
  };
  for (const auto& [status, body, error] : failures) {
    EXPECT_EQ(parseTokenAnswer(status, body).error(), error) << body;
  }
  Discovery discovery{"i", "a", "not a url", "k"};
  EXPECT_EQ(exchangeCode(discovery, SsoConfig{}, "r", "c", "v").error(),
            "token endpoint is not a URL");
}

class SsoSignature : public ::testing::Test {
 protected:
  static Json::Value payload() {
    Json::Value p(Json::objectValue);
    p["sub"] = "s1";
    return p;
  }
  static std::vector<Jwk> keysOf(std::initializer_list<const JwtSigner*> signers) {
    return parseKeySet(200, http::toCompactJson(test::keySet(signers))).value();
  }
  const JwtSigner& withKid_ = JwtSigner::shared("k1");
  const JwtSigner& otherKid_ = JwtSigner::shared("k2");
  const JwtSigner& noKid_ = JwtSigner::shared("");
};

TEST_F(SsoSignature, KeysWithAnotherKidAreSkippedAndKeysWithoutKidAlwaysTried) {
  auto claims = verifyTokenSignature(withKid_.sign(payload()), keysOf({&otherKid_, &withKid_}));
  ASSERT_TRUE(claims) << claims.error();
  EXPECT_EQ(claims.value()["sub"], "s1");
  EXPECT_TRUE(verifyTokenSignature(withKid_.sign(payload()), keysOf({&noKid_, &withKid_})));
  EXPECT_TRUE(verifyTokenSignature(noKid_.sign(payload()), keysOf({&withKid_, &noKid_})));
  // Signed by k2's key but naming kid k1: the k2 key is never tried, the kid-less one fails.
  Json::Value header(Json::objectValue);
  header["alg"] = "RS256";
  header["kid"] = "k1";
  EXPECT_EQ(verifyTokenSignature(otherKid_.signWithHeader(header, payload()),
                                 keysOf({&otherKid_, &noKid_}))
                .error(),
            "token signature invalid (kid k1)");
  EXPECT_EQ(verifyTokenSignature(noKid_.sign(payload()), keysOf({&withKid_})).error(),
            "token signature invalid");
}

TEST_F(SsoSignature, MalformedTokensAreRefusedInOrder) {
  const std::string good = withKid_.sign(payload());
  const std::string head = good.substr(0, good.find('.'));
  const std::string rest = good.substr(good.find('.'));
  auto headerWith = [](const char* json) { return base::base64urlEncode(json); };
  const std::string signedPart = good.substr(good.rfind('.'));
  const std::pair<std::string, const char*> cases[] = {
      {"a.b", "token is not a JWT"},
      {good + ".x", "token is not a JWT"},
      {"!!" + rest, "bad token header"},
      {headerWith("[1]") + rest, "bad token header"},
      {headerWith(R"({"alg":"none"})") + rest, "token alg is not RS256"},
      {headerWith(R"({"alg":"HS256","kid":"k1"})") + rest, "token alg is not RS256"},
      {headerWith(R"({"alg":"rs256"})") + rest, "token alg is not RS256"},
      {good.substr(0, good.rfind('.') + 1), "bad token signature encoding"},
      {good.substr(0, good.rfind('.') + 1) + "!!", "bad token signature encoding"},
      {head + ".e30" + signedPart, "token signature invalid (kid k1)"},
  };
  for (const auto& [token, error] : cases) {
    EXPECT_EQ(verifyTokenSignature(token, keysOf({&withKid_})).error(), error) << token;
  }
  // A correctly signed payload that is not a JSON object.
  Json::Value header(Json::objectValue);
  header["alg"] = "RS256";
  const std::string token = noKid_.signWithHeader(header, Json::Value(5));
  EXPECT_EQ(verifyTokenSignature(token, keysOf({&noKid_})).error(), "bad token payload");
  EXPECT_EQ(tokenKid(good), "k1");
  EXPECT_EQ(tokenKid(token), "");
}

TEST(SsoClaims, CheckedInOrderWithoutSkew) {
  const std::int64_t now = 1'800'000'000;
  ExpectedClaims expected{"https://id", "quill", "n1", now};
  Json::Value good(Json::objectValue);
  good["iss"] = "https://id";
  good["aud"] = "quill";
  good["exp"] = Json::Int64(now);  // expiring this very second is still good
  good["nonce"] = "n1";
  EXPECT_EQ(checkClaims(good, expected), std::nullopt);
  Json::Value listed = good;
  listed["aud"] = test::strings({"other", "quill"});
  EXPECT_EQ(checkClaims(listed, expected), std::nullopt);

  // One member changed (null: removed) and the answer.
  const std::tuple<const char*, Json::Value, const char*> rows[] = {
      {"iss", "https://id/", "token issuer mismatch"},
      {"aud", "Quill", "token audience mismatch"},
      {"aud", test::strings({"other"}), "token audience mismatch"},
      {"exp", Json::Int64(now - 1), "token expired"},
      {"exp", Json::Value(), "token expired"},
      {"exp", "1900000000", "token expired"},
      {"exp", 1e300, "passed"},
      {"exp", -1e300, "token expired"},
      {"nonce", "n2", "token nonce mismatch"},
  };
  for (const auto& [member, value, error] : rows) {
    Json::Value p = good;
    value.isNull() ? (void)p.removeMember(member) : (void)(p[member] = value);
    EXPECT_EQ(checkClaims(p, expected).value_or("passed"), error) << member << " " << value;
  }
  // Order: a token wrong in everything reports the issuer first.
  Json::Value bad(Json::objectValue);
  EXPECT_EQ(checkClaims(bad, expected), "token issuer mismatch");
}

class SsoProviderCache : public ::testing::Test {
 protected:
  SsoProviderCache()
      : cache_(
            [this](const std::string& issuer) -> Result<Discovery> {
              ++discoveryFetches_;
              if (failing_) return Failure{"issuer unreachable"};
              return Discovery{issuer, "a", "t", "k"};
            },
            [this](const std::string&) -> Result<std::vector<Jwk>> {
              ++keyFetches_;
              if (failing_) return Failure{"could not fetch the provider's keys"};
              return keys_;
            },
            [this] { return now_; }) {}

  void wait(std::chrono::seconds s) { now_ += s; }

  std::chrono::steady_clock::time_point now_{};
  int discoveryFetches_ = 0;
  int keyFetches_ = 0;
  bool failing_ = false;
  std::vector<Jwk> keys_{{"k1", "n", "e"}};
  ProviderCache cache_;
};

TEST_F(SsoProviderCache, KeepsAnswersForTheirLifetimeButNeverFailures) {
  failing_ = true;
  EXPECT_FALSE(cache_.discovery("https://id"));
  EXPECT_FALSE(cache_.keysFor("https://id/k", ""));
  failing_ = false;
  EXPECT_TRUE(cache_.discovery("https://id"));
  EXPECT_TRUE(cache_.keysFor("https://id/k", "k1"));
  wait(ProviderCache::kLifetime - std::chrono::seconds(1));
  EXPECT_TRUE(cache_.discovery("https://id"));
  EXPECT_TRUE(cache_.keysFor("https://id/k", ""));
  EXPECT_EQ(discoveryFetches_, 2);
  EXPECT_EQ(keyFetches_, 2);
  wait(std::chrono::seconds(1));
  EXPECT_TRUE(cache_.discovery("https://id"));
  EXPECT_TRUE(cache_.keysFor("https://id/k", ""));
  EXPECT_EQ(discoveryFetches_, 3);
  EXPECT_EQ(keyFetches_, 3);
}

TEST_F(SsoProviderCache, AnUnknownKidRefetchesAtMostOncePerInterval) {
  ASSERT_TRUE(cache_.keysFor("https://id/k", "k1"));
  // Right after a fetch, an unknown kid does not fetch again.
  EXPECT_EQ(cache_.keysFor("https://id/k", "k2").value().size(), 1u);
  EXPECT_EQ(keyFetches_, 1);
  wait(ProviderCache::kRefetchInterval);
  keys_.push_back({"k2", "n", "e"});  // the provider rotated
  EXPECT_EQ(cache_.keysFor("https://id/k", "k2").value().size(), 2u);
  EXPECT_EQ(keyFetches_, 2);
  // A forged kid again and again: one fetch per interval, the cached set meanwhile.
  wait(ProviderCache::kRefetchInterval);
  failing_ = true;
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(cache_.keysFor("https://id/k", "forged").value().size(), 2u);
  EXPECT_EQ(keyFetches_, 3);
}

}  // namespace
}  // namespace quill::sso
