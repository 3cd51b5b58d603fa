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
    serveDiscovery(idp_.origin());
    idp_.serve("/jwks", http::toCompactJson(keySet({&key_})));
  }

  void serveDiscovery(const std::string& issuer) {
    Json::Value doc(Json::objectValue);
    doc["issuer"] = issuer;
    doc["authorization_endpoint"] = idp_.origin() + "/auth";
    doc["token_endpoint"] = idp_.origin() + "/token";
    doc["jwks_uri"] = idp_.origin() + "/jwks";
    idp_.serve(kDiscoveryPath, http::toCompactJson(doc));
  }

  http::Response putConfig(const std::string& body) {
    return asAdmin(Req("PUT", "/api/sso/config").body(body));
  }
  std::string providerBody(const std::string& issuer) {
    Json::Value body(Json::objectValue);
    body["issuer"] = issuer;
    body["client_id"] = "quill";
    body["client_secret"] = kSecret;
    return http::toCompactJson(body);
  }
  void configure(sso::Mapping mapping = {}) {
    sso::SsoConfig config;
    config.issuer = idp_.origin();
    config.clientId = "quill";
    config.clientSecret = kSecret;
    config.mapping = std::move(mapping);
    ASSERT_TRUE(sso::saveSsoConfig(data(), config));
  }
  http::Response putMapping(const std::string& body) {
    return asAdmin(Req("PUT", "/api/sso/mapping").body(body));
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
    Json::Value c(Json::objectValue);
    c["iss"] = idp_.origin();
    c["aud"] = "quill";
    c["exp"] = Json::Int64(std::time(nullptr) + 300);
    c["nonce"] = started.nonce;
    c["sub"] = "sub-ann";
    c["preferred_username"] = "Ann.Lee@example.com";
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

TEST_F(SsoApi, ConfigIsSavedAfterDiscoveryAndNeverShowsTheSecret) {
  EXPECT_EQ(bodyOf(send(Req("GET", "/api/sso/status")))["enabled"], false);
  EXPECT_EQ(http::toCompactJson(bodyOf(asAdmin(Req("GET", "/api/sso/config")))),
            R"({"configured":false,"schema_version":1})");

  Json::Value body = parseJson(providerBody(" " + idp_.origin() + "/ \r\n"));
  body["scopes"] = "";
  auto res = putConfig(http::toCompactJson(body));
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"authorization_endpoint", "client_id", "configured", "issuer",
                                      "schema_version", "secret_set"}));
  EXPECT_EQ(bodyOf(res)["authorization_endpoint"], idp_.origin() + "/auth");
  EXPECT_EQ(bodyOf(res)["issuer"], idp_.origin());
  EXPECT_EQ(res.body.find(kSecret), std::string::npos);

  Json::Value stored = readDoc(sso::ssoConfigPath(data()));
  EXPECT_TRUE(isOwnerOnly(sso::ssoConfigPath(data())));  // it holds the secret
  EXPECT_EQ(stored["issuer"], idp_.origin());
  EXPECT_EQ(stored["scopes"], "openid profile email");
  EXPECT_EQ(stored["client_secret"], kSecret);
  EXPECT_EQ(stored["schema_version"], 1);

  res = asAdmin(Req("GET", "/api/sso/config"));
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"client_id", "configured", "issuer", "mapping",
                                      "schema_version", "scopes", "secret_set"}));
  EXPECT_EQ(bodyOf(res)["secret_set"], true);
  EXPECT_EQ(res.body.find(kSecret), std::string::npos);
  EXPECT_EQ(bodyOf(send(Req("GET", "/api/sso/status")))["enabled"], true);

  // Read by members: refused; the status stays public.
  const std::string member = seedUser("mia", "member");
  for (const char* path : {"/api/sso/config", "/api/sso/mapping"}) {
    EXPECT_TRUE(isError(as(member, Req("GET", path)), 403, "this operation requires the admin role"));
  }

  res = asAdmin(Req("DELETE", "/api/sso/config"));
  EXPECT_EQ(res.body, R"({"configured":false,"schema_version":1})");
  EXPECT_FALSE(fs::exists(sso::ssoConfigPath(data())));
  EXPECT_TRUE(isOk(asAdmin(Req("DELETE", "/api/sso/config"))));
}

TEST_F(SsoApi, ProviderBodiesAreValidatedInOrderAndRefusalsSaveNothing) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "JSON body required"},
      {"[1]", "JSON body required"},
      {R"({"issuer":"http://id.example.com","client_id":"c","client_secret":"s"})",
       "issuer must be an https:// URL (http:// only for localhost)"},
      {R"({"issuer":7,"client_id":"c","client_secret":"s"})",
       "issuer must be an https:// URL (http:// only for localhost)"},
      {R"({"issuer":"https://id.example.com","client_id":" / ","client_secret":"s"})",
       "client_id is required"},
      {R"({"issuer":"https://id.example.com","client_id":"c","client_secret":""})",
       "client_secret is required"},
      // Loopback issuers pass validation and fail only at discovery.
      {R"({"issuer":"http://localhost:1/x","client_id":"c","client_secret":"s"})",
       "issuer unreachable"},
      {R"({"issuer":"http://127.0.0.1:1","client_id":"c","client_secret":"s"})",
       "issuer unreachable"},
  };
  for (const auto& [body, error] : cases) EXPECT_TRUE(isError(putConfig(body), 400, error)) << body;

  idp_.serve(kDiscoveryPath, "{}", 500);
  EXPECT_TRUE(isError(putConfig(providerBody(idp_.origin())), 400, "discovery document: HTTP 500"));
  EXPECT_FALSE(fs::exists(sso::ssoConfigPath(data())));
}

TEST_F(SsoApi, TestProbesAGivenOrTheSavedIssuerWithoutSaving) {
  auto probe = [&](const std::string& body) {
    return asAdmin(Req("POST", "/api/sso/config/test").body(body));
  };
  EXPECT_TRUE(isError(probe(""), 400, "SSO is not configured"));
  EXPECT_TRUE(isError(probe(R"({"issuer":"http://x.example.com"})"), 400,
                      "issuer must be an https:// URL (http:// only for localhost)"));
  auto res = probe(R"({"issuer":")" + idp_.origin() + R"(/"})");
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(http::toCompactJson(bodyOf(res)),
            R"({"authorization_endpoint":")" + idp_.origin() + R"(/auth","issuer":")" +
                idp_.origin() + R"(","jwks_uri":")" + idp_.origin() + R"(/jwks","ok":true,)" +
                R"("schema_version":1,"token_endpoint":")" + idp_.origin() + R"(/token"})");
  EXPECT_FALSE(fs::exists(sso::ssoConfigPath(data())));
  configure();
  EXPECT_TRUE(isOk(probe("{}")));
}

TEST_F(SsoApi, MappingIsValidatedAndMarksTheTargetGroups) {
  auto res = asAdmin(Req("GET", "/api/sso/mapping"));
  EXPECT_EQ(res.body,
            R"({"configured":false,"mapping":{"default_role":"member","groups":{},)"
            R"("groups_claim":"groups","roles":{},"roles_claim":"roles"},"schema_version":1})");
  EXPECT_TRUE(isError(putMapping("{}"), 409, "set the provider first (PUT /api/sso/config)"));
  configure();
  seedGroup("qa");
  seedGroup("beta");
  seedGroup("manual");
  setMember(groupPath("manual"), "sso_managed", true);
  const std::string before = readBytes(sso::ssoConfigPath(data()));

  const std::pair<std::string, std::string> cases[] = {
      {"nope", "JSON body required"},
      {R"({"roles_claim":""})", "roles_claim must be a non-empty string"},
      {R"({"groups_claim":3})", "groups_claim must be a non-empty string"},
      {R"({"default_role":"Admin"})", "default_role must be admin, publisher or member"},
      {R"({"roles":[]})", "roles must be an object"},
      {R"({"roles":{"ops":"Admin"}})", "roles.ops must map to admin, publisher or member"},
      {R"({"groups":"qa"})", "groups must be an object"},
      {R"({"groups":{"t":1}})", "groups.t must name a Quillmoor group"},
  };
  for (const auto& [body, error] : cases)
    EXPECT_TRUE(isError(putMapping(body), 400, error)) << body;
  EXPECT_TRUE(isError(putMapping(R"({"groups":{"t":"qa","u":"nothere"}})"), 404,
                      "group 'nothere' does not exist"));
  EXPECT_TRUE(
      isError(putMapping(R"({"groups":{"t":"../x"}})"), 404, "group '../x' does not exist"));
  EXPECT_EQ(readBytes(sso::ssoConfigPath(data())), before);

  fs::permissions(sso::ssoConfigPath(data()), fs::perms::group_read | fs::perms::others_read,
                  fs::perm_options::add);
  res = putMapping(
      R"({"roles_claim":"realm","roles":{"ops":"admin"},"groups":{"t":"qa","b":"beta"}})");
  ASSERT_TRUE(isOk(res));
  EXPECT_TRUE(isOwnerOnly(sso::ssoConfigPath(data())));
  EXPECT_EQ(bodyOf(res)["mapping"]["roles_claim"], "realm");
  EXPECT_EQ(readDoc(groupPath("qa"))["sso_managed"], true);
  EXPECT_EQ(readDoc(groupPath("beta"))["sso_managed"], true);
  EXPECT_EQ(readDoc(groupPath("manual"))["sso_managed"], false);
  auto listed = bodyOf(asAdmin(Req("GET", "/api/groups")));
  for (const auto& group : listed["groups"]) {
    EXPECT_EQ(group["sso_managed"], group["name"] != "manual") << group;
  }

  // The mapping survives a new provider configuration; a new mapping replaces it whole.
  ASSERT_TRUE(isOk(putConfig(providerBody(idp_.origin()))));
  Json::Value mapping = bodyOf(asAdmin(Req("GET", "/api/sso/mapping")))["mapping"];
  EXPECT_EQ(mapping["roles_claim"], "realm");
  EXPECT_EQ(mapping["roles"]["ops"], "admin");
  res = putMapping(R"({"groups":{"b":"beta"}})");
  EXPECT_EQ(bodyOf(res)["mapping"],
            parseJson(R"({"default_role":"member","groups":{"b":"beta"},"groups_claim":"groups",)"
                      R"("roles":{},"roles_claim":"roles"})"));
  EXPECT_EQ(readDoc(groupPath("qa"))["sso_managed"], false);
}

TEST_F(SsoApi, StartChecksThePortAndSendsTheBrowserToTheProvider) {
  EXPECT_TRUE(isError(send(Req("GET", "/api/sso/start").q("port", "5555")), 404,
                      "single sign-on is not set up on this server"));
  configure();
  for (const char* port : {"1023", "65536", "abc", "", "5555x", "-1", "+2000", "99999999999"}) {
    EXPECT_TRUE(isError(send(Req("GET", "/api/sso/start").q("port", port)), 400,
                        "port must be the client's loopback port (1024..65535)"))
        << port;
  }
  EXPECT_TRUE(isError(send(Req("GET", "/api/sso/start")), 400,
                      "port must be the client's loopback port (1024..65535)"));
  EXPECT_EQ(start("1024").location.substr(0, idp_.origin().size() + 5), idp_.origin() + "/auth");
  EXPECT_FALSE(start("65535").state.empty());

  auto res = send(Req("GET", "/api/sso/start").q("port", "5555").header("host", "quill.test:8080"));
  EXPECT_EQ(headerOf(res, "Cache-Control"), "no-store");
  EXPECT_TRUE(std::regex_match(
      headerOf(res, "Location"),
      std::regex(idp_.origin() +
                 "/auth\\?response_type=code&scope=openid%20profile%20email"
                 "&client_id=quill&redirect_uri=http%3A%2F%2Fquill.test%3A8080%2Fapi"
                 "%2Fsso%2Fcallback&state=[A-Za-z0-9]{32}&nonce=[A-Za-z0-9]{32}"
                 "&code_challenge=[A-Za-z0-9_-]{43}&code_challenge_method=S256")));
  EXPECT_EQ(res.body.find(kSecret), std::string::npos);
}

TEST_F(SsoApi, TheCallbackUriIsHttpsOnlyBehindALoopbackProxy) {
  configure();
  auto redirectUri = [&](const std::string& peer, const std::string& proto) {
    Req req("GET", "/api/sso/start");
    req.q("port", "5555").header("host", "builds.example.com").from(peer);
    if (!proto.empty()) req.header("x-forwarded-proto", proto);
    auto location = headerOf(send(req), "Location");
    return (*http::parseQuery(location.substr(location.find('?') + 1)))["redirect_uri"];
  };
  EXPECT_EQ(redirectUri("127.0.0.1", "https"), "https://builds.example.com/api/sso/callback");
  EXPECT_EQ(redirectUri("::1", "https"), "https://builds.example.com/api/sso/callback");
  EXPECT_EQ(redirectUri("127.0.0.1", ""), "http://builds.example.com/api/sso/callback");
  EXPECT_EQ(redirectUri("203.0.113.9", "https"), "http://builds.example.com/api/sso/callback");
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

  const std::string code = handoffCode(res);
  res = redeemHandoff(code);
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"channels", "groups", "role", "schema_version", "token",
                                      "token_name", "user"}));
  Json::Value answer = bodyOf(res);
  EXPECT_EQ(answer["user"], "ann.lee");
  EXPECT_EQ(answer["role"], "publisher");
  EXPECT_EQ(answer["groups"], strings({"qa"}));
  EXPECT_EQ(answer["channels"], strings({"nightly"}));
  EXPECT_TRUE(isRandomText(answer["token"], 48));
  EXPECT_TRUE(isOk(as(answer["token"].asString(), Req("GET", "/api/me"))));
  EXPECT_TRUE(
      std::regex_match(answer["token_name"].asString(), std::regex("ann\\.lee-sso-\\w{8}")));
  Json::Value token = readDoc(tokenPath(answer["token_name"].asString()));
  EXPECT_EQ(token["sso"], true);  // so it stops resolving a day after this sign-in
  EXPECT_TRUE(isUtcStamp(token["sso_validated_at"]));
  Json::Value user = readDoc(userPath("ann.lee"));
  EXPECT_EQ(user["sso"], true);
  EXPECT_EQ(user["sso_subject"], "sub-ann");
  EXPECT_TRUE(isUtcStamp(user["sso_last_login"]));
  EXPECT_TRUE(isError(redeemHandoff(code), 404, "unknown or expired handoff code"));

  // Again, now an operator in the beta team; a manual membership survives.
  seedGroup("manual");
  setMember(userPath("ann.lee"), "groups", strings({"qa", "manual"}));
  res = signIn([](Json::Value& c) {
    c["roles"] = strings({"dev", "ops"});
    c["groups"] = strings({"beta-team", "unknown"});
  });
  answer = bodyOf(redeemHandoff(handoffCode(res)));
  EXPECT_EQ(answer["user"], "ann.lee");
  EXPECT_EQ(answer["role"], "admin");
  EXPECT_EQ(answer["groups"], strings({"manual", "beta"}));
  EXPECT_EQ(answer["channels"], strings({"beta-ch"}));
  EXPECT_FALSE(fs::exists(userPath("ann.lee-2")));

  for (const char* body : {"", "{}", R"({"code":5})", R"({"code":"nope"})"}) {
    EXPECT_TRUE(isError(send(Req("POST", "/api/sso/handoff").from(freshPeer()).body(body)), 404,
                        "unknown or expired handoff code"));
  }
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
    return isPage(callback(state), 400, "Sign-in expired", "Start again from the Quillmoor client.");
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
  Json::Value discovery =
      parseJson(R"({"authorization_endpoint":"a","jwks_uri":")" + idp_.origin() +
                R"(/jwks","token_endpoint":"http://127.0.0.1:1/t"})");
  discovery["issuer"] = idp_.origin();
  idp_.serve(kDiscoveryPath, http::toCompactJson(discovery));
  now_ += sso::ProviderCache::kLifetime;
  EXPECT_TRUE(isPage(callback(started.state), 502, "Sign-in failed",
                     "identity provider: token endpoint unreachable"));
  serveDiscovery(idp_.origin());

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

  serveDiscovery(idp_.origin());
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
