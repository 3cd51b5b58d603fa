// Single sign-on through the route table and the gate, against a static provider on loopback with
// tokens minted here: configuration and mapping endpoints, the start redirect, every result page
// of the callback, the handoff, and the lifetimes of sign-ins and handoff codes.

#include <gtest/gtest.h>

#include <regex>

#include "http/json.h"
#include "http/url.h"
#include "sso/sso_config.h"
#include "sso/sso_state.h"
#include "store/documents.h"
#include "support/api_fixture.h"
#include "support/jwt_signer.h"
#include "support/static_provider.h"

namespace quill::test {
namespace {

constexpr const char* kSecret = "s3cret-Value-never-shown";
constexpr const char* kDiscoveryPath = "/.well-known/openid-configuration";

class SsoApi : public ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    ctx().sso = std::make_shared<sso::SsoState>([this] { return now_; });
    serveDiscovery();
    idp_.serve("/jwks", http::toCompactJson(keySet({&key_})));
  }

  // The provider's discovery document; the token endpoint may be moved elsewhere.
  void serveDiscovery(std::string tokenEndpoint = "") {
    const std::string& o = idp_.origin();
    if (tokenEndpoint.empty()) tokenEndpoint = o + "/token";
    idp_.serve(kDiscoveryPath, R"({"issuer":")" + o + R"(","authorization_endpoint":")" + o +
                                   R"(/auth","token_endpoint":")" + tokenEndpoint +
                                   R"(","jwks_uri":")" + o + R"(/jwks"})");
  }

  void configure(sso::Mapping mapping = {}) {
    sso::SsoConfig config;
    config.issuer = idp_.origin();
    config.clientId = "quill";
    config.clientSecret = kSecret;
    config.mapping = std::move(mapping);
    ASSERT_TRUE(sso::saveSsoConfig(data(), config));
  }

  struct Started {
    std::string state, nonce, location;
  };
  Started start(const std::string& port = "5555") {
    auto res = send(Req("GET", "/api/sso/start").q("port", port).header("host", "quill.test:8080"));
    EXPECT_EQ(res.status, 302u) << res.body;
    Started started;
    started.location = headerOf(res, "Location");
    auto query = http::parseQuery(started.location.substr(started.location.find('?') + 1));
    if (query) {
      started.state = (*query)["state"];
      started.nonce = (*query)["nonce"];
    }
    return started;
  }
  Json::Value claims(const Started& started) {
    Json::Value c =
        parseJson(R"({"aud":"quill","sub":"sub-ann","preferred_username":"Ann.Lee@example.com"})");
    c["iss"] = idp_.origin();
    c["exp"] = Json::Int64(std::time(nullptr) + 300);
    c["nonce"] = started.nonce;
    return c;
  }
  void serveToken(const std::string& idToken) {
    Json::Value answer(Json::objectValue);
    answer["id_token"] = idToken;
    idp_.serve("/token", http::toCompactJson(answer));
  }
  http::Response callback(const std::string& state) {
    return send(Req("GET", "/api/sso/callback").q("state", state).q("code", "code-1"));
  }
  // A whole sign-in with the given token claims (changed by `edit`).
  http::Response signIn(const std::function<void(Json::Value&)>& edit = {}) {
    Started started = start();
    Json::Value c = claims(started);
    if (edit) edit(c);
    serveToken(key_.sign(c));
    return callback(started.state);
  }
  // The handoff code of a successful callback.
  static std::string handoffCode(const http::Response& res) {
    std::smatch m;
    const std::string location = headerOf(res, "Location");
    if (!std::regex_match(location, m,
                          std::regex(R"(http://127\.0\.0\.1:5555/\?handoff=([A-Za-z0-9]{32}))"))) {
      ADD_FAILURE() << res.status << " " << location << " " << res.body;
      return "";
    }
    return m[1];
  }
  http::Response redeemHandoff(const std::string& code) {
    return send(
        Req("POST", "/api/sso/handoff").from(freshPeer()).body(R"({"code":")" + code + "\"}"));
  }
  static ::testing::AssertionResult isPage(const http::Response& res, unsigned status,
                                           const std::string& title, const std::string& detail) {
    const std::string page = "<!doctype html><meta charset=utf-8><title>" + title + "</title>";
    if (res.status != status || !res.body.starts_with(page) ||
        res.body.find("<h1>" + title + "</h1><p>" + detail + "</p>") == std::string::npos) {
      return ::testing::AssertionFailure() << res.status << " " << res.body;
    }
    if (headerOf(res, "Cache-Control") != "no-store" ||
        headerOf(res, "X-Frame-Options") != "DENY" ||
        headerOf(res, "Content-Security-Policy") !=
            "default-src 'none'; style-src 'unsafe-inline'") {
      return ::testing::AssertionFailure() << "missing page headers";
    }
    return ::testing::AssertionSuccess();
  }

  static bool isOwnerOnly(const fs::path& path) {
    return (fs::status(path).permissions() & fs::perms::all) ==
           (fs::perms::owner_read | fs::perms::owner_write);
  }

  std::chrono::steady_clock::time_point now_{};
  StaticProvider idp_;
  const JwtSigner& key_ = JwtSigner::shared("k1");
};

TEST_F(SsoApi, ConfigMappingAndStartThroughTheTable) {
  vars_["idp"] = idp_.origin();
  walk(R"(
    - GET /api/sso/status => 200 .enabled=false
    GET /api/sso/config => 200 {"configured":false,"schema_version":1}
    GET /api/sso/mapping => 200 {"configured":false,"mapping":{"default_role":"member","groups":{},"groups_claim":"groups","roles":{},"roles_claim":"roles"},"schema_version":1}
    PUT /api/sso/mapping {} => 409 set the provider first (PUT /api/sso/config)
    - GET /api/sso/start?port=5555 => 404 single sign-on is not set up on this server
    # Provider bodies are validated in order and refusals save nothing.
    PUT /api/sso/config => 400 JSON body required
    PUT /api/sso/config [1] => 400 JSON body required
    PUT /api/sso/config {"issuer":"http://id.example.com","client_id":"c","client_secret":"s"} => 400 issuer must be an https:// URL (http:// only for localhost)
    PUT /api/sso/config {"issuer":7,"client_id":"c","client_secret":"s"} => 400 issuer must be an https:// URL (http:// only for localhost)
    PUT /api/sso/config {"issuer":"https://id.example.com","client_id":" / ","client_secret":"s"} => 400 client_id is required
    PUT /api/sso/config {"issuer":"https://id.example.com","client_id":"c","client_secret":""} => 400 client_secret is required
    # Loopback issuers pass validation and fail only at discovery.
    PUT /api/sso/config {"issuer":"http://localhost:1/x","client_id":"c","client_secret":"s"} => 400 issuer unreachable
    PUT /api/sso/config {"issuer":"http://127.0.0.1:1","client_id":"c","client_secret":"s"} => 400 issuer unreachable
    # A probe of a given or the saved issuer saves nothing.
    POST /api/sso/config/test => 400 SSO is not configured
    POST /api/sso/config/test {"issuer":"http://x.example.com"} => 400 issuer must be an https:// URL (http:// only for localhost)
    POST /api/sso/config/test {"issuer":"$idp/"} => 200 {"authorization_endpoint":"$idp/auth","issuer":"$idp","jwks_uri":"$idp/jwks","ok":true,"schema_version":1,"token_endpoint":"$idp/token"}
    file sso.json absent
    # Saved after discovery; the secret is never shown.
    PUT /api/sso/config {"issuer":"\s$idp/\s\r\n","client_id":"quill","client_secret":"s3cret-Value-never-shown","scopes":""} => 200 keys=authorization_endpoint,client_id,configured,issuer,schema_version,secret_set ; .authorization_endpoint="$idp/auth" ; .issuer="$idp" ; !has:s3cret
    file sso.json .issuer="$idp" ; .scopes="openid profile email" ; .client_secret="s3cret-Value-never-shown" ; .schema_version=1
    GET /api/sso/config => 200 keys=client_id,configured,issuer,mapping,schema_version,scopes,secret_set ; .secret_set=true ; !has:s3cret
    POST /api/sso/config/test {} => 200
    - GET /api/sso/status => 200 .enabled=true
    # Read by members: refused; the status stays public.
    user mia member
    mia GET /api/sso/config => 403 this operation requires the admin role
    mia GET /api/sso/mapping => 403 this operation requires the admin role
    # The mapping is validated and marks the target groups.
    group qa
    group beta
    group manual
    set groups/manual.json .sso_managed=true
    mark sso.json
    PUT /api/sso/mapping nope => 400 JSON body required
    PUT /api/sso/mapping {"roles_claim":""} => 400 roles_claim must be a non-empty string
    PUT /api/sso/mapping {"groups_claim":3} => 400 groups_claim must be a non-empty string
    PUT /api/sso/mapping {"default_role":"Admin"} => 400 default_role must be admin, publisher or member
    PUT /api/sso/mapping {"roles":[]} => 400 roles must be an object
    PUT /api/sso/mapping {"roles":{"ops":"Admin"}} => 400 roles.ops must map to admin, publisher or member
    PUT /api/sso/mapping {"groups":"qa"} => 400 groups must be an object
    PUT /api/sso/mapping {"groups":{"t":1}} => 400 groups.t must name a Quillmoor group
    PUT /api/sso/mapping {"groups":{"t":"qa","u":"nothere"}} => 404 group 'nothere' does not exist
    PUT /api/sso/mapping {"groups":{"t":"../x"}} => 404 group '../x' does not exist
    unchanged sso.json
  )");
  EXPECT_TRUE(isOwnerOnly(sso::ssoConfigPath(data())));  // it holds the secret
  fs::permissions(sso::ssoConfigPath(data()), fs::perms::group_read | fs::perms::others_read,
                  fs::perm_options::add);
  walk(
      R"(PUT /api/sso/mapping {"roles_claim":"realm","roles":{"ops":"admin"},"groups":{"t":"qa","b":"beta"}} => 200 .mapping.roles_claim="realm")");
  EXPECT_TRUE(isOwnerOnly(sso::ssoConfigPath(data())));
  walk(R"(
    file groups/qa.json .sso_managed=true
    file groups/beta.json .sso_managed=true
    file groups/manual.json .sso_managed=false
    GET /api/groups => 200 .groups.name:qa.sso_managed=true ; .groups.name:manual.sso_managed=false
    # The mapping survives a new provider configuration; a new mapping replaces it whole.
    PUT /api/sso/config {"issuer":"$idp","client_id":"quill","client_secret":"s3cret-Value-never-shown"} => 200
    GET /api/sso/mapping => 200 .mapping.roles_claim="realm" ; .mapping.roles.ops="admin"
    PUT /api/sso/mapping {"groups":{"b":"beta"}} => 200 .mapping={"default_role":"member","groups":{"b":"beta"},"groups_claim":"groups","roles":{},"roles_claim":"roles"}
    file groups/qa.json .sso_managed=false
    # Start checks the port and sends the browser to the provider.
    - GET /api/sso/start?port=1023 => 400 port must be the client's loopback port (1024..65535)
    - GET /api/sso/start?port=65536 => 400 port must be the client's loopback port (1024..65535)
    - GET /api/sso/start?port=abc => 400 port must be the client's loopback port (1024..65535)
    - GET /api/sso/start?port= => 400 port must be the client's loopback port (1024..65535)
    - GET /api/sso/start?port=5555x => 400 port must be the client's loopback port (1024..65535)
    - GET /api/sso/start?port=-1 => 400 port must be the client's loopback port (1024..65535)
    - GET /api/sso/start?port=+2000 => 400 port must be the client's loopback port (1024..65535)
    - GET /api/sso/start?port=99999999999 => 400 port must be the client's loopback port (1024..65535)
    - GET /api/sso/start => 400 port must be the client's loopback port (1024..65535)
    - GET /api/sso/start?port=1024 => 302 hdr:Location~$idp/auth\?.*
    - GET /api/sso/start?port=65535 => 302 hdr:Location~.*&state=[A-Za-z0-9]{32}&.*
    - host:quill.test:8080 GET /api/sso/start?port=5555 => 302 hdr:Cache-Control=no-store ; !has:s3cret ; hdr:Location~$idp/auth\?response_type=code&scope=openid%20profile%20email&client_id=quill&redirect_uri=http%3A%2F%2Fquill.test%3A8080%2Fapi%2Fsso%2Fcallback&state=[A-Za-z0-9]{32}&nonce=[A-Za-z0-9]{32}&code_challenge=[A-Za-z0-9_-]{43}&code_challenge_method=S256
    DELETE /api/sso/config => 200 {"configured":false,"schema_version":1}
    file sso.json absent
    DELETE /api/sso/config => 200
  )");
  idp_.serve(kDiscoveryPath, "{}", 500);
  walk(
      R"(PUT /api/sso/config {"issuer":"$idp","client_id":"quill","client_secret":"s"} => 400 discovery document: HTTP 500)");
  EXPECT_FALSE(fs::exists(sso::ssoConfigPath(data())));
}

TEST_F(SsoApi, TheCallbackUriIsHttpsOnlyBehindALoopbackProxy) {
  configure();
  walk(R"(
    - @127.0.0.1 host:builds.example.com x-forwarded-proto:https GET /api/sso/start?port=5555 => 302 hdr:Location~.*&redirect_uri=https%3A%2F%2Fbuilds\.example\.com%2Fapi%2Fsso%2Fcallback&.*
    - @::1 host:builds.example.com x-forwarded-proto:https GET /api/sso/start?port=5555 => 302 hdr:Location~.*&redirect_uri=https%3A%2F%2Fbuilds\.example\.com%2Fapi%2Fsso%2Fcallback&.*
    - @127.0.0.1 host:builds.example.com GET /api/sso/start?port=5555 => 302 hdr:Location~.*&redirect_uri=http%3A%2F%2Fbuilds\.example\.com%2Fapi%2Fsso%2Fcallback&.*
    - @203.0.113.9 host:builds.example.com x-forwarded-proto:https GET /api/sso/start?port=5555 => 302 hdr:Location~.*&redirect_uri=http%3A%2F%2Fbuilds\.example\.com%2Fapi%2Fsso%2Fcallback&.*
  )");
}

TEST_F(SsoApi, ASignInHandsATokenToTheClientOnceAndTheSamePersonKeepsTheUser) {
  seedGroup("qa", {"nightly"});
  seedGroup("beta", {"beta-ch"});
  sso::Mapping mapping;
  mapping.roles = {{"dev", "publisher"}, {"ops", "admin"}};
  mapping.groups = {{"qa-team", "qa"}, {"beta-team", "beta"}};
  configure(mapping);

  auto res = signIn([](Json::Value& c) {
    c["roles"] = strings({"dev"});
    c["groups"] = strings({"qa-team"});
  });
  ASSERT_EQ(res.status, 302u) << res.body;
  EXPECT_EQ(headerOf(res, "Cache-Control"), "no-store");
  // The code exchange sent the pending verifier and the secret in the form body.
  EXPECT_TRUE(std::regex_match(
      idp_.lastBody("/token"),
      std::regex("grant_type=authorization_code&code=code-1&redirect_uri=http%3A%2F%2Fquill.test"
                 "%3A8080%2Fapi%2Fsso%2Fcallback&client_id=quill&client_secret=s3cret-Value-never"
                 "-shown&code_verifier=[A-Za-z0-9]{64}")));

  // The token is marked sso so it stops resolving a day after this sign-in.
  vars_["code"] = handoffCode(res);
  walk(R"(
    - POST /api/sso/handoff {"code":"$code"} => 200 keys=channels,groups,role,schema_version,token,token_name,user ; .channels=["nightly"] ; .groups=["qa"] ; .role="publisher" ; .schema_version=1 ; .user="ann.lee" ; .token~[A-Za-z0-9]{48} ; .token_name~ann\.lee-sso-\w{8} ; $tok=.token ; $tokname=.token_name
    $tok GET /api/me => 200
    file tokens/$tokname.json .sso=true ; .sso_validated_at~[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z
    file users/ann.lee.json .sso=true ; .sso_subject="sub-ann" ; .sso_last_login~[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z
    - POST /api/sso/handoff {"code":"$code"} => 404 unknown or expired handoff code
  )");

  // Again, now an operator in the beta team; a manual membership survives.
  seedGroup("manual");
  setMember(userPath("ann.lee"), "groups", strings({"qa", "manual"}));
  vars_["code"] = handoffCode(signIn([](Json::Value& c) {
    c["roles"] = strings({"dev", "ops"});
    c["groups"] = strings({"beta-team", "unknown"});
  }));
  walk(
      R"(- POST /api/sso/handoff {"code":"$code"} => 200 .user="ann.lee" ; .role="admin" ; .groups=["manual","beta"] ; .channels=["beta-ch"])");
  EXPECT_FALSE(fs::exists(userPath("ann.lee-2")));

  walk(R"(
    - POST /api/sso/handoff => 404 unknown or expired handoff code
    - POST /api/sso/handoff {} => 404 unknown or expired handoff code
    - POST /api/sso/handoff {"code":5} => 404 unknown or expired handoff code
    - POST /api/sso/handoff {"code":"nope"} => 404 unknown or expired handoff code
  )");
}

TEST_F(SsoApi, SignInsAndHandoffCodesExpire) {
  configure();
  Started late = start();
  Started inTime = start();
  now_ += std::chrono::seconds(600);
  serveToken(key_.sign(claims(inTime)));
  auto res = callback(inTime.state);
  ASSERT_EQ(res.status, 302u) << res.body;
  auto expired = [&](const std::string& state) {
    return isPage(callback(state), 400, "Sign-in expired",
                  "Start again from the Quillmoor client.");
  };
  EXPECT_TRUE(expired(inTime.state));  // used
  now_ += std::chrono::seconds(1);
  EXPECT_TRUE(expired(late.state));
  EXPECT_TRUE(expired(""));

  const std::string first = handoffCode(res);
  const std::string second = handoffCode(signIn());
  now_ += std::chrono::seconds(60);
  EXPECT_TRUE(isOk(redeemHandoff(second)));
  now_ += std::chrono::seconds(1);
  EXPECT_TRUE(isError(redeemHandoff(first), 404, "unknown or expired handoff code"));
}

TEST_F(SsoApi, AFloodOfStartsIsRefusedRatherThanCancelSignInsInProgress) {
  configure();
  Started inProgress = start();
  now_ += std::chrono::seconds(30);
  auto startFrom = [&](const std::string& peer) {
    return send(Req("GET", "/api/sso/start").q("port", "5555").from(peer));
  };
  for (std::size_t i = 1; i < sso::SsoState::kCapacity; ++i) {
    ASSERT_EQ(startFrom(freshPeer()).status, 302u) << i;
  }
  // Full of sign-ins younger than a minute: the oldest may go once it is a minute old.
  const char* kTooMany = "too many sign-ins in progress - try again in a minute";
  auto refused = startFrom(freshPeer());
  EXPECT_TRUE(isError(refused, 503, kTooMany));
  EXPECT_EQ(headerOf(refused, "Retry-After"), "30");
  now_ += std::chrono::seconds(29);
  EXPECT_EQ(headerOf(startFrom(freshPeer()), "Retry-After"), "1");

  serveToken(key_.sign(claims(inProgress)));
  EXPECT_EQ(callback(inProgress.state).status, 302u);
  EXPECT_EQ(startFrom(freshPeer()).status, 302u);  // its place is free again
  EXPECT_TRUE(isError(startFrom(freshPeer()), 503, kTooMany));
  now_ += std::chrono::seconds(31);  // the flood's first starts are a minute old now
  EXPECT_EQ(startFrom(freshPeer()).status, 302u);
}

TEST_F(SsoApi, ProviderTextsReachThePageEscaped) {
  configure();
  Started started = start();
  auto res = send(Req("GET", "/api/sso/callback")
                      .q("state", started.state)
                      .q("error", "access_denied")
                      .q("error_description", "<script>alert('x')</script> & more"));
  EXPECT_TRUE(isPage(res, 400, "Sign-in was not completed",
                     "&lt;script&gt;alert(&#39;x&#39;)&lt;/script&gt; &amp; more"));
  res = send(Req("GET", "/api/sso/callback").q("state", start().state).q("error", "<b>"));
  EXPECT_TRUE(isPage(res, 400, "Sign-in was not completed", "&lt;b&gt;"));

  idp_.serve("/token", R"({"error":"invalid_grant","error_description":"<img src=x>"})", 400);
  EXPECT_TRUE(isPage(callback(start().state), 502, "Sign-in failed",
                     "identity provider: token exchange failed: HTTP 400 invalid_grant: "
                     "&lt;img src=x&gt;"));
}

TEST_F(SsoApi, EveryFailedCallbackHasItsPage) {
  configure();
  const std::pair<std::function<void(Json::Value&)>, const char*> rejected[] = {
      {[](Json::Value& c) { c["aud"] = strings({"someone-else"}); }, "token audience mismatch"},
      {[&](Json::Value& c) { c["iss"] = idp_.origin() + "/"; }, "token issuer mismatch"},
      {[](Json::Value& c) { c["exp"] = Json::Int64(std::time(nullptr) - 1); }, "token expired"},
  };
  for (const auto& [edit, detail] : rejected) {
    EXPECT_TRUE(isPage(signIn(edit), 401, "Sign-in rejected", detail)) << detail;
  }
  JwtSigner stranger("k1");
  Started started = start();
  serveToken(stranger.sign(claims(started)));
  EXPECT_TRUE(
      isPage(callback(started.state), 401, "Sign-in rejected", "token signature invalid (kid k1)"));

  EXPECT_TRUE(isPage(signIn([](Json::Value& c) { c.removeMember("sub"); }), 403, "Sign-in refused",
                     "token has no subject"));
  ASSERT_EQ(signIn().status, 302u);
  setMember(userPath("ann.lee"), "disabled", true);
  EXPECT_TRUE(isPage(signIn(), 403, "Sign-in refused", "this account is disabled - ask the admin"));

  // A token endpoint nobody answers at.
  started = start();
  serveDiscovery("http://127.0.0.1:1/t");
  now_ += sso::ProviderCache::kLifetime;
  EXPECT_TRUE(isPage(callback(started.state), 502, "Sign-in failed",
                     "identity provider: token endpoint unreachable"));
  serveDiscovery();

  // The provider goes away once the cached documents are old.
  started = start();
  now_ += sso::ProviderCache::kLifetime;
  idp_.serve("/jwks", "{}", 503);
  EXPECT_TRUE(isPage(callback(started.state), 502, "Identity provider unreachable",
                     "could not fetch the provider&#39;s keys"));
  started = start();
  now_ += sso::ProviderCache::kLifetime;
  idp_.serve(kDiscoveryPath, "{}", 500);
  EXPECT_TRUE(isPage(callback(started.state), 502, "Identity provider unreachable",
                     "discovery document: HTTP 500"));
  EXPECT_TRUE(isPage(send(Req("GET", "/api/sso/start").q("port", "5555")), 502,
                     "Identity provider unreachable", "discovery document: HTTP 500"));

  serveDiscovery();
  started = start();
  store::removeFile(sso::ssoConfigPath(data()));
  EXPECT_TRUE(isPage(callback(started.state), 404, "Sign-in unavailable",
                     "single sign-on is not set up on this server"));
}

TEST_F(SsoApi, ARotatedKeyIsFetchedOnceTheRefetchIntervalAllows) {
  configure();
  ASSERT_EQ(signIn().status, 302u);
  const int fetches = idp_.hits("/jwks");
  const JwtSigner& rotated = JwtSigner::shared("k2");
  idp_.serve("/jwks", http::toCompactJson(keySet({&rotated, &key_})));

  Started started = start();
  serveToken(rotated.sign(claims(started)));
  EXPECT_TRUE(
      isPage(callback(started.state), 401, "Sign-in rejected", "token signature invalid (kid k2)"));
  now_ += sso::ProviderCache::kRefetchInterval;
  started = start();
  serveToken(rotated.sign(claims(started)));
  EXPECT_EQ(callback(started.state).status, 302u);
  EXPECT_EQ(idp_.hits("/jwks"), fetches + 1);
}

}  // namespace
}  // namespace quill::test
