// The request gate: who may call what, anonymous public reads, and the rate-limit budgets.

#include "app/gate.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/routes.h"
#include "store/users.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

constexpr const char* kMissing = "missing or invalid token";
constexpr const char* kScope = "outside this publisher's scope";
constexpr const char* kAdminOnly = "this operation requires the admin role";
constexpr const char* kSlowDown = "too many requests - slow down and retry later";

struct Route {
  const char* method;
  const char* path;
};

class GateTest : public ApiTest {
 protected:
  // The routing and the gate alone (its own rate-limit table), no handler and no route's own
  // check: nullopt means "let through".
  std::optional<http::Response> judge(const Req& req) {
    if (!gate_) {
      gate_ = std::make_unique<Gate>(ctx());
      for (auto& [access, route] : routeTable(ctx())) {
        route.headCheck = [gate = gate_.get(), access](const http::Request& r) {
          return gate->judge(access, r);
        };
        router_.add(std::move(route));
      }
    }
    http::Request routed = req.build();
    const http::Route* route = nullptr;
    return router_.judgeHead(routed, route);
  }
  void expectPasses(const Req& req) {
    auto refusal = judge(req);
    EXPECT_FALSE(refusal) << req.build().method << " " << req.build().path << ": "
                          << refusal->body;
  }
  void expectRefused(const Req& req, unsigned status, const char* text) {
    auto refusal = judge(req);
    ASSERT_TRUE(refusal) << req.build().method << " " << req.build().path;
    EXPECT_TRUE(isError(*refusal, status, text)) << req.build().method << " " << req.build().path;
  }
  std::unique_ptr<Gate> gate_;
  http::Router router_;
};

TEST(ClientKey, LoopbackPeersUseTheFirstForwardedHopOthersTheirAddress) {
  struct Case {
    const char* peer;
    const char* forwarded;
    const char* key;
  };
  for (const Case& c : std::vector<Case>{
           {"127.0.0.1", "203.0.113.9, 10.0.0.1", "203.0.113.9"},
           {"127.8.9.10", " \t203.0.113.9\t ,x", "203.0.113.9"},
           {"::1", "198.51.100.7", "198.51.100.7"},
           {"::ffff:127.0.0.1", "198.51.100.7", "198.51.100.7"},
           // No usable forwarded address from a local proxy: not limited at all.
           {"127.0.0.1", nullptr, ""},
           {"127.0.0.1", " , 10.0.0.1", ""},
           // Anyone else cannot choose their key.
           {"10.0.0.5", "203.0.113.9", "10.0.0.5"},
           {"128.0.0.1", "203.0.113.9", "128.0.0.1"},
           {"::ffff:10.0.0.1", "203.0.113.9", "::ffff:10.0.0.1"},
       }) {
    Req req("GET", "/api/builds");
    req.from(c.peer);
    if (c.forwarded) req.header("X-Forwarded-For", c.forwarded);
    EXPECT_EQ(clientKey(req.build()), c.key) << c.peer << " " << (c.forwarded ? c.forwarded : "");
  }
}

TEST_F(GateTest, OpenPathsNeedNoTokenAndCostNothing) {
  for (const Route& r : std::vector<Route>{
           {"GET", "/"}, {"GET", "/api/version"}, {"GET", "/api/openapi.yaml"},
           {"GET", "/api/docs"}, {"POST", "/api/invites/redeem"}, {"DELETE", "/api/invites/redeem"},
           {"GET", "/api/claim"}, {"POST", "/api/claim"}, {"POST", "/api/access-requests"},
           {"GET", "/api/sso/status"}, {"GET", "/api/sso/start"}, {"GET", "/api/sso/callback"},
           {"POST", "/api/sso/handoff"}}) {
    expectPasses(Req(r.method, r.path));
  }
  // Open for POST only.
  expectRefused(Req("GET", "/api/access-requests"), 401, kMissing);
  expectRefused(Req("DELETE", "/api/invites/x"), 401, kMissing);
}

TEST_F(GateTest, OnlyAWellFormedBearerTokenOfAnEnabledUserIdentifiesTheCaller) {
  const std::string token = seedUser("alice", "member");
  const std::string disabled = seedUser("dora", "admin");
  setMember(userPath("dora"), "disabled", true);

  expectPasses(Req("GET", "/api/users").bearer(token));
  expectPasses(Req("GET", "/api/users").header("Authorization", "Bearer " + token));
  for (const Req& req : {Req("GET", "/api/users"), Req("GET", "/api/users").bearer("not-a-token"),
                         Req("GET", "/api/users").bearer(""),
                         Req("GET", "/api/users").header("authorization", "bearer " + token),
                         Req("GET", "/api/users").header("authorization", "Bearer  " + token),
                         Req("GET", "/api/users").header("authorization", token),
                         Req("GET", "/api/users").header("authorization", "Basic YWxpY2U6cHc="),
                         Req("GET", "/api/users").bearer(disabled)}) {
    expectRefused(req, 401, kMissing);
  }
}

TEST_F(GateTest, EveryRoleMeetsItsRules) {
  const std::string adminToken = admin();
  const std::string member = seedUser("mia", "member");
  const std::string publisher = seedUser("pete", "publisher", {"beta", "stable"});
  const std::string bare = seedUser("paula", "publisher");
  // A non-publisher with an allow-list given at creation gets no carve-out from it.
  const std::string memberWithList = seedUser("max", "member", {"beta"});

  for (const Route& r : std::vector<Route>{{"GET", "/api/users"},
                                           {"GET", "/api/me"},
                                           {"GET", "/api/channels"},
                                           {"GET", "/api/builds/b1/files"},
                                           {"GET", "/api/groups"}}) {
    for (const auto* token : {&adminToken, &member, &publisher, &bare, &memberWithList}) {
      expectPasses(Req(r.method, r.path).bearer(*token));
    }
  }
  for (const Route& r : std::vector<Route>{{"POST", "/api/groups/x"},
                                           {"DELETE", "/api/users/x"},
                                           {"PUT", "/api/builds/b1/files"},
                                           {"POST", "/api/builds/b1/finalize"},
                                           {"POST", "/api/channels/beta"},
                                           {"POST", "/api/channels/beta/promote"},
                                           {"POST", "/api/channels/beta/public"},
                                           {"POST", "/api/channels/beta/launch"},
                                           {"POST", "/api/builds/b1/disabled"},
                                           {"DELETE", "/api/channels/beta"},
                                           {"PUT", "/api/storage"},
                                           {"POST", "/api/users/x/tokens"},
                                           {"GET", "/api/sso/config"},
                                           {"GET", "/api/backups"}}) {
    expectPasses(Req(r.method, r.path).bearer(adminToken));
    expectRefused(Req(r.method, r.path).bearer(member), 403, kAdminOnly);
    expectRefused(Req(r.method, r.path).bearer(memberWithList), 403, kAdminOnly);
  }

  // A publisher uploads and finalizes any build, and creates or promotes its own channels only.
  for (const auto* token : {&publisher, &bare}) {
    expectPasses(Req("PUT", "/api/builds/anything/files").bearer(*token));
    expectPasses(Req("POST", "/api/builds/b1/finalize").bearer(*token));
  }
  expectPasses(Req("POST", "/api/channels/beta/promote").bearer(publisher));
  expectPasses(Req("POST", "/api/channels/stable").bearer(publisher));
  expectRefused(Req("POST", "/api/channels/beta/promote").bearer(bare), 403, kScope);
  expectRefused(Req("POST", "/api/channels/beta").bearer(bare), 403, kScope);
  for (const Route& r : std::vector<Route>{
           {"POST", "/api/channels/gamma/promote"}, {"POST", "/api/channels/gamma"},
           {"POST", "/api/builds/b1/disabled"},     {"DELETE", "/api/builds/b1"},
           {"DELETE", "/api/channels/beta"},        {"POST", "/api/channels/beta/public"},
           {"POST", "/api/channels/beta/launch"},   {"POST", "/api/groups/x"},
           {"POST", "/api/users/pete/tokens"},      {"DELETE", "/api/users/x"}}) {
    expectRefused(Req(r.method, r.path).bearer(publisher), 403, kScope);
  }
}

TEST_F(GateTest, AnonymousReadersSeePublicChannelsAndTheBuildsTheyPointAtNow) {
  start(false);
  makeBuild("b0", {{"old.bin", "old"}});
  makeBuild("b1");
  makeBuild("b2", {{"secret.bin", "secret"}});
  ASSERT_TRUE(isOk(createChannel("stable")));
  ASSERT_TRUE(isOk(promote("stable", "b0")));
  ASSERT_TRUE(isOk(promote("stable", "b1")));
  ASSERT_TRUE(isOk(setPublic("stable", "true")));
  writeChannel("beta", "b2");
  writeChannel("empty", "", true);
  // Stray non-object channel files break nothing.
  writeText(channelPath("junk"), "[1, 2]");
  writeText(channelPath("text"), "\"public\"");

  // A bad or foreign credential does not spoil a public read.
  for (const std::string auth : {"", "Bearer wrong", "Basic eDp5"}) {
    auto anon = [&](Req req) { return send(auth.empty() ? req : req.header("authorization", auth)); };
    auto channel = anon(Req("GET", "/api/channels/stable"));
    ASSERT_TRUE(isOk(channel)) << auth;
    EXPECT_EQ(bodyOf(channel), readDoc(channelPath("stable")));
    EXPECT_EQ(bodyOf(anon(Req("GET", "/api/builds/b1")))["channels"], strings({"stable"}));
    auto file = anon(Req("GET", "/api/builds/b1/files").q("path", "app.bin"));
    ASSERT_TRUE(isOk(file));
    EXPECT_EQ(fileBody(file), "bytes");
    EXPECT_TRUE(isOk(anon(Req("GET", "/api/channels/empty"))));
    // Past the gate, the handler's own answers apply.
    EXPECT_TRUE(isError(anon(Req("GET", "/api/builds/b1/files").q("path", "no.bin")), 404,
                        "file not found"));

    for (const Req& req : {Req("GET", "/api/channels"), Req("GET", "/api/builds"),
                           Req("GET", "/api/channels/beta"), Req("GET", "/api/channels/nosuch"),
                           Req("GET", "/api/channels/junk"), Req("GET", "/api/builds/b2"),
                           Req("GET", "/api/builds/b2/files").q("path", "secret.bin"),
                           Req("GET", "/api/builds/b0"),  // once public, no longer current
                           Req("PUT", "/api/builds/b1/files").q("path", "app.bin").body("new"),
                           Req("POST", "/api/channels/stable/promote").q("build", "b2"),
                           Req("DELETE", "/api/builds/b1")}) {
      EXPECT_TRUE(isError(anon(req), 401, kMissing))
          << auth << ": " << req.build().method << " " << req.build().path;
    }
  }
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / "app.bin"), "bytes");

  // Read fresh each time: a channel made private closes it and its build at once.
  ASSERT_TRUE(isOk(setPublic("stable", "false")));
  EXPECT_TRUE(isError(send(Req("GET", "/api/channels/stable")), 401, kMissing));
  EXPECT_TRUE(isError(send(Req("GET", "/api/builds/b1").q("path", "app.bin")), 401, kMissing));
}

TEST_F(GateTest, TheSixthCredentialAttemptWithinAMinuteIsRefusedForTwelveSeconds) {
  // The credential paths share one budget per client.
  for (const char* path : {"/api/claim", "/api/invites/redeem", "/api/access-requests",
                           "/api/sso/handoff", "/api/claim"}) {
    EXPECT_NE(send(Req("POST", path)).status, 429u) << path;
  }
  http::Response sixth = send(Req("POST", "/api/claim"));
  EXPECT_TRUE(isError(sixth, 429, kSlowDown));
  EXPECT_EQ(headerOf(sixth, "Retry-After"), "12");
  EXPECT_EQ(send(Req("POST", "/api/sso/handoff")).status, 429u);

  // GET of an open credential path is not charged, and each client has its own budget.
  EXPECT_NE(send(Req("GET", "/api/claim")).status, 429u);
  EXPECT_NE(send(Req("POST", "/api/claim").from("10.0.0.2")).status, 429u);
  // The anonymous budget is separate.
  EXPECT_TRUE(isError(send(Req("GET", "/api/builds")), 401, kMissing));
}

TEST_F(GateTest, TheThirtyFirstAnonymousRequestIsRefusedButValidTokensOpenAndPublicReadsNever) {
  const std::string token = seedUser("alice", "member");
  writeChannel("stable", "b7", true);
  for (int i = 0; i < 40; ++i) {
    ASSERT_NE(send(Req("GET", "/api/builds").bearer(token)).status, 429u) << i;
    ASSERT_NE(send(Req("GET", "/api/version")).status, 429u) << i;
    ASSERT_NE(send(Req("GET", "/api/builds/b7/files")).status, 429u) << i;
  }
  for (int i = 0; i < 30; ++i) {
    Req req("GET", "/api/builds");
    ASSERT_TRUE(isError(send(i % 2 ? req : req.bearer("wrong")), 401, kMissing)) << i;
  }
  http::Response last = send(Req("GET", "/api/builds"));
  EXPECT_TRUE(isError(last, 429, kSlowDown));
  EXPECT_EQ(headerOf(last, "Retry-After"), "2");
  EXPECT_EQ(send(Req("GET", "/api/me").bearer(token)).status, 200u);
}

TEST_F(GateTest, SignInStartsHaveABudgetOfTheirOwnPerClient) {
  const Req start("GET", "/api/sso/start");
  for (int i = 0; i < 30; ++i) expectPasses(start);
  auto refusal = judge(start);
  ASSERT_TRUE(refusal);
  EXPECT_TRUE(isError(*refusal, 429, kSlowDown));
  EXPECT_EQ(headerOf(*refusal, "Retry-After"), "2");
  // The other budgets and the other clients are untouched.
  expectRefused(Req("GET", "/api/builds"), 401, kMissing);
  expectPasses(Req("POST", "/api/sso/handoff"));
  expectPasses(Req("GET", "/api/sso/start").from("10.0.0.2"));
  // A local proxy's clients are told apart by the forwarded hop; loopback without one is not
  // limited, like every other budget.
  for (int i = 0; i < 40; ++i) expectPasses(Req("GET", "/api/sso/start").from("127.0.0.1"));
  Req viaProxy("GET", "/api/sso/start");
  viaProxy.from("127.0.0.1").header("x-forwarded-for", "10.0.0.1");
  expectRefused(viaProxy, 429, kSlowDown);
}

TEST_F(GateTest, WithRateLimitingOffNothingIsThrottled) {
  start(false);
  for (int i = 0; i < 50; ++i) {
    ASSERT_NE(send(Req("POST", "/api/claim")).status, 429u) << i;
    ASSERT_TRUE(isError(send(Req("GET", "/api/builds")), 401, kMissing)) << i;
  }
}

TEST_F(GateTest, ALocalProxyIsThrottledByTheForwardedClientNotItself) {
  for (const char* peer : {"127.0.0.1", "::1"}) {
    for (int i = 0; i < 40; ++i) {
      ASSERT_NE(send(Req("POST", "/api/claim").from(peer)).status, 429u) << peer;
    }
  }
  auto viaProxy = [](const char* forwarded) {
    return Req("POST", "/api/claim").from("127.0.0.1").header("x-forwarded-for", forwarded);
  };
  for (int i = 0; i < 5; ++i) ASSERT_NE(send(viaProxy("203.0.113.9, 10.0.0.1")).status, 429u);
  EXPECT_EQ(send(viaProxy("203.0.113.9, 10.0.0.1")).status, 429u);
  // The key is 203.0.113.9: the same client arriving directly is already spent ...
  EXPECT_EQ(send(Req("POST", "/api/claim").from("203.0.113.9")).status, 429u);
  // ... while the proxy's other hops are not.
  EXPECT_NE(send(viaProxy("10.0.0.1")).status, 429u);
}

}  // namespace
}  // namespace quill::test
