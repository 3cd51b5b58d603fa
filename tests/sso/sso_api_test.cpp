// Single sign-on through the route table and the gate, against a static provider on loopback with
// tokens minted here: configuration and mapping, the start redirect, every result page of the
// callback, the handoff, the lifetimes of sign-ins and handoff codes, and provisioning.

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "sso/provisioning.h"
#include "sso/sso_config.h"
#include "sso/sso_state.h"
#include "support/api_fixture.h"
#include "support/jwt_signer.h"
#include "support/static_provider.h"

namespace quill::test {
namespace {

class SsoApi : public ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    ctx().sso = std::make_shared<sso::SsoState>([this] { return now_; });
    vars_["idp"] = idp_.origin();
    play(R"(discovery
      keys k1
      PUT /api/sso/config {"issuer":"$idp","client_id":"quill","client_secret":"s3cret-Value-never-shown"} => 200)");
  }
  // walk(), with steps of a sign-in against the provider (a page is "title|detail", as escaped):
  //   start NAME       from port 5555 on quill.test:8080; $NAME is its state
  //   token NAME KID {claims}   the token endpoint answers with an ID token for NAME's nonce: Ann's
  //                    claims, these set (null: removed; $past is a second ago), signed by KID's
  //                    key (stranger: a key named k1 that the provider does not publish)
  //   callback NAME => STATUS [page]   a 302 leaves the handoff code in $NAME_code
  //   signin KID {claims} => STATUS [page]   all three at once, as NAME "code"
  //   wait SECONDS   serve PATH STATUS BODY   keys KID...   discovery [TOKEN-ENDPOINT]
  void play(std::string_view table) {
    std::istringstream lines{std::string(table)};
    for (std::string line; std::getline(lines, line);) {
      std::istringstream in(line);
      std::string verb, name, rest, o = idp_.origin();
      in >> verb >> name;
      std::getline(in >> std::ws, rest);
      const std::size_t arrow = line.find(" => ");
      const std::string answer = arrow == std::string::npos ? "" : line.substr(arrow + 4);
      SCOPED_TRACE(line);
      if (verb == "signin") {
        play("start code\ntoken code " + name + " " + rest.substr(0, rest.find(" => ")) +
             "\ncallback code => " + answer);
      } else if (verb == "start") {
        auto res =
            send(Req("GET", "/api/sso/start").q("port", "5555").header("host", "quill.test:8080"));
        std::smatch m;
        const std::string location = headerOf(res, "Location");
        EXPECT_TRUE(std::regex_search(location, m, std::regex("&state=(\\w+)&nonce=(\\w+)&")));
        vars_[name] = m[1];
        nonces_[name] = m[2];
      } else if (verb == "token") {
        Json::Value c =
            parseJson(R"({"aud":"quill","sub":"sub-ann","preferred_username":"Ann.Lee@x"})");
        c["iss"] = o;
        c["exp"] = Json::Int64(std::time(nullptr) + 300);
        c["nonce"] = nonces_[name];
        const std::string kid = rest.substr(0, rest.find(' '));
        if (const auto at = rest.find("$past"); at != std::string::npos)
          rest.replace(at, 5, std::to_string(std::time(nullptr) - 1));
        const Json::Value set = parseJson(rest.substr(kid.size() + 1));
        for (const auto& member : set.getMemberNames())
          set[member].isNull() ? (void)c.removeMember(member) : (void)(c[member] = set[member]);
        const JwtSigner& signer = kid == "stranger" ? stranger_ : JwtSigner::shared(kid);
        idp_.serve("/token", R"({"id_token":")" + signer.sign(c) + "\"}");
      } else if (verb == "callback") {
        Req req("GET", "/api/sso/callback");
        req.q("state", vars_[name]).q("code", "code-1");
        // The provider's error and description, up to the arrow.
        std::string error = rest.substr(0, rest.find("=>"));
        while (!error.empty() && error.back() == ' ') error.pop_back();
        if (!error.empty()) {
          const auto space = error.find(' ');
          req.q("error", error.substr(0, space));
          if (space + 1 < error.size()) req.q("error_description", error.substr(space + 1));
        }
        const auto res = send(req);
        const std::string to = headerOf(res, "Location");
        std::smatch m;
        if (answer != "302") {
          EXPECT_TRUE(isPage(res, std::stoul(answer), answer.substr(answer.find(' ') + 1)));
        } else {
          EXPECT_TRUE(
              std::regex_match(to, m, std::regex(R"(http://127\.0\.0\.1:5555/\?handoff=(\w{32}))")))
              << res.status << " " << to << " " << res.body;
          vars_[name + "_code"] = m[1];
        }
      } else if (verb == "wait") {
        now_ += std::chrono::seconds(std::stoi(name));
      } else if (verb == "serve") {
        idp_.serve(name, rest.substr(rest.find(' ') + 1), std::stoi(rest));
      } else if (verb == "keys") {
        Json::Value set = keySet({});
        for (std::istringstream kids(name + " " + rest); kids >> name;)
          set["keys"].append(JwtSigner::shared(name).publicJwk());
        idp_.serve("/jwks", http::toCompactJson(set));
      } else if (verb == "discovery") {
        idp_.serve("/.well-known/openid-configuration",
                   R"({"issuer":")" + o + R"(","authorization_endpoint":")" + o +
                       R"(/auth","token_endpoint":")" + (name.empty() ? o + "/token" : name) +
                       R"(","jwks_uri":")" + o + R"(/jwks"})");
      } else {
        walk(line);
      }
    }
  }
  // A result page, with the headers that keep it unframed.
  static ::testing::AssertionResult isPage(const http::Response& res, unsigned status,
                                           const std::string& page) {
    const auto bar = page.find('|');
    const std::string title = page.substr(0, bar), detail = page.substr(bar + 1);
    if (res.status == status &&
        res.body.starts_with("<!doctype html><meta charset=utf-8><title>" + title + "</title>") &&
        res.body.find("<h1>" + title + "</h1><p>" + detail + "</p>") != std::string::npos &&
        headerOf(res, "Cache-Control") == "no-store" &&
        headerOf(res, "X-Frame-Options") == "DENY" &&
        headerOf(res, "Content-Security-Policy") == "default-src 'none'; style-src 'unsafe-inline'")
      return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << res.status << " " << res.body;
  }
  std::string nameFor(const Json::Value& username) {
    Json::Value claims(Json::objectValue);
    if (!username.isNull()) claims["preferred_username"] = username;
    return sso::derivedUserName(data(), claims);
  }

  std::chrono::steady_clock::time_point now_{};
  StaticProvider idp_;
  const JwtSigner stranger_{"k1"};
  std::map<std::string, std::string> nonces_;
};

TEST_F(SsoApi, ConfigMappingAndStartThroughTheTable) {
  walk(R"(
    DELETE /api/sso/config => 200
    - GET /api/sso/status => 200 .enabled=false
    GET /api/sso/config => 200 {"configured":false,"schema_version":1}
    GET /api/sso/mapping => 200 {"configured":false,"mapping":{"default_role":"member","groups":{},"groups_claim":"groups","roles":{},"roles_claim":"roles"},"schema_version":1}
    PUT /api/sso/mapping {} => 409 set the provider first (PUT /api/sso/config)
    - GET /api/sso/start?port=5555 => 404 single sign-on is not set up on this server
    # Provider bodies are validated in order; loopback issuers fail only at discovery.
    PUT /api/sso/config => 400 JSON body required
    PUT /api/sso/config {"issuer":"http://id.example.com","client_id":"c","client_secret":"s"} => 400 issuer must be an https:// URL (http:// only for localhost)
    PUT /api/sso/config {"issuer":7,"client_id":"c","client_secret":"s"} => 400 issuer must be an https:// URL (http:// only for localhost)
    PUT /api/sso/config {"issuer":"https://id.example.com","client_id":"\s/\s","client_secret":"s"} => 400 client_id is required
    PUT /api/sso/config {"issuer":"https://id.example.com","client_id":"c","client_secret":""} => 400 client_secret is required
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
  // The file holds the secret: owner-only, also when rewritten over a looser one.
  const fs::path config = sso::ssoConfigPath(data());
  const auto ownerOnly = fs::perms::owner_read | fs::perms::owner_write;
  EXPECT_EQ(fs::status(config).permissions() & fs::perms::all, ownerOnly);
  fs::permissions(config, fs::perms::group_read | fs::perms::others_read, fs::perm_options::add);
  walk(R"(
    PUT /api/sso/mapping {"roles_claim":"realm","roles":{"ops":"admin"},"groups":{"t":"qa","b":"beta"}} => 200 .mapping.roles_claim="realm"
    file groups/qa.json .sso_managed=true
    file groups/beta.json .sso_managed=true
    file groups/manual.json .sso_managed=false
  )");
  EXPECT_EQ(fs::status(config).permissions() & fs::perms::all, ownerOnly);
  walk(R"(
    # The mapping survives a new provider configuration; a new mapping replaces it whole.
    PUT /api/sso/config {"issuer":"$idp","client_id":"quill","client_secret":"s3cret-Value-never-shown"} => 200
    GET /api/sso/mapping => 200 .mapping.roles_claim="realm" ; .mapping.roles.ops="admin"
    PUT /api/sso/mapping {"groups":{"b":"beta"}} => 200 .mapping={"default_role":"member","groups":{"b":"beta"},"groups_claim":"groups","roles":{},"roles_claim":"roles"}
    file groups/qa.json .sso_managed=false
    # Start checks the port and sends the browser to the provider.
    - GET /api/sso/start?port=1024 => 302 hdr:Location~$idp/auth\?.*
    - GET /api/sso/start?port=65535 => 302 hdr:Location~.*&state=[A-Za-z0-9]{32}&.*
    - host:quill.test:8080 GET /api/sso/start?port=5555 => 302 hdr:Cache-Control=no-store ; !has:s3cret ; hdr:Location~$idp/auth\?response_type=code&scope=openid%20profile%20email&client_id=quill&redirect_uri=http%3A%2F%2Fquill.test%3A8080%2Fapi%2Fsso%2Fcallback&state=[A-Za-z0-9]{32}&nonce=[A-Za-z0-9]{32}&code_challenge=[A-Za-z0-9_-]{43}&code_challenge_method=S256
    # The callback is https only when a loopback proxy says so.
    - @127.0.0.1 host:b.example.com x-forwarded-proto:https GET /api/sso/start?port=5555 => 302 hdr:Location~.*&redirect_uri=https%3A%2F%2Fb\.example\.com%2Fapi%2F.*
    - @::1 host:b.example.com x-forwarded-proto:https GET /api/sso/start?port=5555 => 302 hdr:Location~.*&redirect_uri=https%3A%2F%2Fb\.example\.com%2Fapi%2F.*
    - @127.0.0.1 host:b.example.com GET /api/sso/start?port=5555 => 302 hdr:Location~.*&redirect_uri=http%3A%2F%2Fb\.example\.com%2Fapi%2F.*
    - @203.0.113.9 host:b.example.com x-forwarded-proto:https GET /api/sso/start?port=5555 => 302 hdr:Location~.*&redirect_uri=http%3A%2F%2Fb\.example\.com%2Fapi%2F.*
  )");
  for (const char* port : {"1023", "65536", "abc", "", "5555x", "-1", "+2000", "99999999999"})
    walk(std::string("- GET /api/sso/start?port=") + port +
         " => 400 port must be the client's loopback port (1024..65535)");
  play(R"(
    - GET /api/sso/start => 400 port must be the client's loopback port (1024..65535)
    DELETE /api/sso/config => 200 {"configured":false,"schema_version":1}
    file sso.json absent
    DELETE /api/sso/config => 200
    serve /.well-known/openid-configuration 500 {}
    PUT /api/sso/config {"issuer":"$idp","client_id":"quill","client_secret":"s"} => 400 discovery document: HTTP 500
    file sso.json absent
  )");
}

TEST_F(SsoApi, ASignInHandsATokenToTheClientOnceAndTheSamePersonKeepsTheUser) {
  play(R"(
    group qa nightly
    group beta beta-ch
    PUT /api/sso/mapping {"roles":{"dev":"publisher","ops":"admin"},"groups":{"qa-team":"qa","beta-team":"beta"}} => 200
    signin k1 {"roles":["dev"],"groups":["qa-team"]} => 302
    # The token is marked sso so it stops resolving a day after this sign-in.
    - POST /api/sso/handoff {"code":"$code_code"} => 200 keys=channels,groups,role,schema_version,token,token_name,user ; .channels=["nightly"] ; .groups=["qa"] ; .role="publisher" ; .schema_version=1 ; .user="ann.lee" ; .token~[A-Za-z0-9]{48} ; .token_name~ann\.lee-sso-\w{8} ; $tok=.token ; $tokname=.token_name
    $tok GET /api/me => 200
    file tokens/$tokname.json .sso=true ; .sso_validated_at~[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z
    file users/ann.lee.json .sso=true ; .sso_subject="sub-ann" ; .sso_last_login~[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z
    - POST /api/sso/handoff {"code":"$code_code"} => 404 unknown or expired handoff code
  )");
  // The code exchange sent the pending verifier and the secret in the form body.
  EXPECT_TRUE(std::regex_match(
      idp_.seen("/token").lastBody,
      std::regex("grant_type=authorization_code&code=code-1&redirect_uri=http%3A%2F%2Fquill.test"
                 "%3A8080%2Fapi%2Fsso%2Fcallback&client_id=quill&client_secret=s3cret-Value-never"
                 "-shown&code_verifier=[A-Za-z0-9]{64}")));
  play(R"(
    # Again, now an operator in the beta team; a manual membership survives.
    group manual
    set users/ann.lee.json .groups=["qa","manual"]
    signin k1 {"roles":["dev","ops"],"groups":["beta-team","unknown"]} => 302
    - POST /api/sso/handoff {"code":"$code_code"} => 200 .user="ann.lee" ; .role="admin" ; .groups=["manual","beta"] ; .channels=["beta-ch"]
    file users/ann.lee-2.json absent
    - POST /api/sso/handoff => 404 unknown or expired handoff code
    - POST /api/sso/handoff {"code":5} => 404 unknown or expired handoff code
    - POST /api/sso/handoff {"code":"nope"} => 404 unknown or expired handoff code
    # Sign-ins (600 s) and handoff codes (60 s) expire.
    start late
    start inTime
    wait 600
    token inTime k1 {}
    callback inTime => 302
    callback inTime => 400 Sign-in expired|Start again from the Quillmoor client.
    wait 1
    callback late => 400 Sign-in expired|Start again from the Quillmoor client.
    callback none => 400 Sign-in expired|Start again from the Quillmoor client.
    signin k1 {} => 302
    wait 60
    - POST /api/sso/handoff {"code":"$code_code"} => 200
    wait 1
    - POST /api/sso/handoff {"code":"$inTime_code"} => 404 unknown or expired handoff code
  )");
}

TEST_F(SsoApi, AFloodOfStartsIsRefusedRatherThanCancelSignInsInProgress) {
  // Full of sign-ins younger than a minute: the oldest may go once it is a minute old.
  play(R"(
    start early
    wait 30
    4095* - GET /api/sso/start?port=5555 => 302
    - GET /api/sso/start?port=5555 => 503 too many sign-ins in progress - try again in a minute ; hdr:Retry-After=30
    wait 29
    - GET /api/sso/start?port=5555 => 503 too many sign-ins in progress - try again in a minute ; hdr:Retry-After=1
    token early k1 {}
    callback early => 302
    # Its place is free again, once; then the flood's first starts are a minute old.
    - GET /api/sso/start?port=5555 => 302
    - GET /api/sso/start?port=5555 => 503 too many sign-ins in progress - try again in a minute
    wait 31
    - GET /api/sso/start?port=5555 => 302
  )");
}

TEST_F(SsoApi, EveryFailedCallbackHasItsPage) {
  play(R"(
    start a
    start b
    start c
    callback a access_denied <script>alert('x')</script> & more => 400 Sign-in was not completed|&lt;script&gt;alert(&#39;x&#39;)&lt;/script&gt; &amp; more
    callback b <b> => 400 Sign-in was not completed|&lt;b&gt;
    serve /token 400 {"error":"invalid_grant","error_description":"<img src=x>"}
    callback c => 502 Sign-in failed|identity provider: token exchange failed: HTTP 400 invalid_grant: &lt;img src=x&gt;
    signin k1 {"aud":"someone-else"} => 401 Sign-in rejected|token audience mismatch
    signin k1 {"iss":"https://other"} => 401 Sign-in rejected|token issuer mismatch
    signin k1 {"exp":$past} => 401 Sign-in rejected|token expired
    signin k1 {"nonce":"other"} => 401 Sign-in rejected|token nonce mismatch
    signin stranger {} => 401 Sign-in rejected|token signature invalid (kid k1)
    signin k1 {"sub":null} => 403 Sign-in refused|token has no subject
    # A rotated key is fetched once the refetch interval allows.
    keys k2 k1
    signin k2 {} => 401 Sign-in rejected|token signature invalid (kid k2)
    wait 30
    signin k2 {} => 302
    set users/ann.lee.json .disabled=true
    signin k1 {} => 403 Sign-in refused|this account is disabled - ask the admin
    # The provider's documents are fetched again once they are old.
    start a
    discovery http://127.0.0.1:1/t
    wait 300
    token a k1 {}
    callback a => 502 Sign-in failed|identity provider: token endpoint unreachable
    discovery
    start a
    wait 300
    serve /jwks 503 {}
    callback a => 502 Identity provider unreachable|could not fetch the provider&#39;s keys
    start a
    wait 300
    serve /.well-known/openid-configuration 500 {}
    callback a => 502 Identity provider unreachable|discovery document: HTTP 500
  )");
  EXPECT_TRUE(isPage(send(Req("GET", "/api/sso/start").q("port", "5555")), 502,
                     "Identity provider unreachable|discovery document: HTTP 500"));
  play(R"(
    discovery
    start a
    DELETE /api/sso/config => 200
    callback a => 404 Sign-in unavailable|single sign-on is not set up on this server
  )");
}

TEST_F(SsoApi, ProvisioningDerivesAFreeNameTheHighestRoleAndTheMappedGroups) {
  EXPECT_EQ(sso::derivedUserName(
                data(), parseJson(R"({"preferred_username":"Ann.Lee@example.com","email":"x@y"})")),
            "ann.lee");
  EXPECT_EQ(sso::derivedUserName(
                data(), parseJson(R"({"preferred_username":"","email":"Bob_K@example.com"})")),
            "bob_k");
  // Unusable names: "con" is a reserved device name.
  for (const Json::Value& bad : {Json::Value("@example.com"), Json::Value("con"), Json::Value(".."),
                                 Json::Value(42), Json::Value()})
    EXPECT_EQ(nameFor(bad), "sso-user") << bad;
  EXPECT_EQ(nameFor("J\xc3\xb6rg M\xc3\xbcller!"), "jrgmller");
  // Long names are cut only as far as a suffix needs, within the 128-byte name rule.
  const std::string longest(128, 'q'), someLong(125, 'r');
  EXPECT_EQ(nameFor(longest) + nameFor(someLong), longest + someLong);
  for (const std::string& name :
       {std::string("ann.lee"), std::string("ann.lee-2"), longest, someLong})
    seedUser(name, "member");
  EXPECT_EQ(nameFor("Ann.Lee@x"), "ann.lee-3");
  EXPECT_EQ(nameFor(longest), longest.substr(0, 126) + "-2");
  EXPECT_EQ(nameFor(someLong), someLong + "-2");
  // The token minted for such a user is named within the rule too.
  auto token = sso::mintSsoToken(data(), longest).value();
  EXPECT_EQ(token.name.size(), 128u);
  EXPECT_EQ(readDoc(tokenPath(token.name))["user"], longest);

  sso::Mapping mapping;
  mapping.rolesClaim = "realm_roles";
  mapping.defaultRole = "publisher";
  mapping.roles = {{"ops", "admin"}, {"dev", "publisher"}, {"staff", "member"}};
  for (const auto& [claims, role] : std::vector<std::pair<std::string, std::string>>{
           {R"({"realm_roles":["staff","ops","dev"]})", "admin"},
           {R"({"realm_roles":["staff","dev"]})", "publisher"},
           {R"({"realm_roles":["staff"]})", "member"},
           {R"({"realm_roles":"ops"})", "admin"},
           {R"({"realm_roles":["unknown"]})", "publisher"},
           {R"({"realm_roles":7})", "publisher"},
           {R"({"roles":"ops"})", "publisher"}}) {
    EXPECT_EQ(sso::mappedRole(mapping, parseJson(claims)), role) << claims;
  }
  for (const char* group : {"beta", "alpha", "manual"}) seedGroup(group);
  mapping.groups = {{"b", "beta"}, {"a", "alpha"}, {"gone", "deleted"}, {"a2", "alpha"}};
  const Json::Value current = strings({"beta", "manual", "deleted", "other"});
  EXPECT_EQ(
      sso::mappedGroups(data(), mapping, current, parseJson(R"({"groups":["b","a","a2","gone"]})")),
      strings({"manual", "other", "alpha", "beta"}));
  EXPECT_EQ(sso::mappedGroups(data(), mapping, current, parseJson("{}")),
            strings({"manual", "other"}));

  setMember(userPath("ann.lee"), "sso_subject", "s-e");
  if (!blockWrites(userPath("ann.lee"))) GTEST_SKIP() << "no immutable files here";
  EXPECT_EQ(sso::provisionUser(data(), {}, parseJson(R"({"sub":"s-e"})")).error(),
            "could not save the user");
}

}  // namespace
}  // namespace quill::test
