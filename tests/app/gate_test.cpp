#include "app/gate.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "api/api_fixture.h"

namespace quill {
namespace {

using test::isError;
using test::Req;

constexpr const char* kMissing = "missing or invalid token";
constexpr const char* kScope = "outside this publisher's scope";
constexpr const char* kAdminOnly = "this operation requires the admin role";
constexpr const char* kSlowDown = "too many requests - slow down and retry later";

class GateTest : public test::ApiTest {
 protected:
  // The gate alone (its own rate-limit table): nullopt means "let through".
  std::optional<http::Response> judge(const Req& req) {
    if (!gate_) gate_ = std::make_unique<Gate>(ctx());
    http::Request built = req.build();
    return gate_->judge(built);
  }

  void expectPasses(const Req& req, const char* what) {
    auto refusal = judge(req);
    EXPECT_FALSE(refusal.has_value()) << what << ": " << refusal->status << " " << refusal->body;
  }

  void expectRefused(const Req& req, unsigned status, const char* text, const char* what) {
    auto refusal = judge(req);
    ASSERT_TRUE(refusal.has_value()) << what;
    EXPECT_TRUE(isError(*refusal, status, text)) << what;
  }

  std::unique_ptr<Gate> gate_;
};

TEST(MatchSegment, CapturesExactlyOneNonEmptySegmentBetweenPrefixAndSuffix) {
  EXPECT_EQ(matchSegment("/api/builds/b1/files", "/api/builds/", "/files"), "b1");
  EXPECT_EQ(matchSegment("/api/channels/beta", "/api/channels/"), "beta");
  EXPECT_FALSE(matchSegment("/api/channels/", "/api/channels/"));
  EXPECT_FALSE(matchSegment("/api/builds//files", "/api/builds/", "/files"));
  EXPECT_FALSE(matchSegment("/api/builds/a/b/files", "/api/builds/", "/files"));
  EXPECT_FALSE(matchSegment("/api/channels/beta/promote", "/api/channels/"));
  EXPECT_FALSE(matchSegment("/api/builds/b1/file", "/api/builds/", "/files"));
}

TEST(ClientKey, LoopbackPeersUseTheFirstForwardedHopOthersTheirAddress) {
  auto key = [](const char* peer, const char* forwarded) {
    Req req("GET", "/api/builds");
    req.from(peer);
    if (forwarded) req.header("X-Forwarded-For", forwarded);
    return clientKey(req.build());
  };
  EXPECT_EQ(key("127.0.0.1", "203.0.113.9, 10.0.0.1"), "203.0.113.9");
  EXPECT_EQ(key("127.8.9.10", " \t203.0.113.9\t ,x"), "203.0.113.9");
  EXPECT_EQ(key("::1", "198.51.100.7"), "198.51.100.7");
  EXPECT_EQ(key("::ffff:127.0.0.1", "198.51.100.7"), "198.51.100.7");
  // No usable forwarded address from a local proxy: not limited at all.
  EXPECT_EQ(key("127.0.0.1", nullptr), "");
  EXPECT_EQ(key("127.0.0.1", ""), "");
  EXPECT_EQ(key("127.0.0.1", " , 10.0.0.1"), "");
  // Anyone else cannot choose their key.
  EXPECT_EQ(key("10.0.0.5", "203.0.113.9"), "10.0.0.5");
  EXPECT_EQ(key("128.0.0.1", "203.0.113.9"), "128.0.0.1");
  EXPECT_EQ(key("::ffff:10.0.0.1", "203.0.113.9"), "::ffff:10.0.0.1");
  EXPECT_EQ(key("::2", "203.0.113.9"), "::2");
}

TEST_F(GateTest, OpenPathsNeedNoTokenAndCostNothing) {
  const std::pair<const char*, const char*> open[] = {
      {"GET", "/"},
      {"GET", "/api/version"},
      {"GET", "/api/openapi.yaml"},
      {"GET", "/api/docs"},
      {"GET", "/api/invites/redeem"},
      {"POST", "/api/invites/redeem"},
      {"GET", "/api/claim"},
      {"POST", "/api/claim"},
      {"POST", "/api/access-requests"},
      {"GET", "/api/sso/status"},
      {"GET", "/api/sso/start"},
      {"GET", "/api/sso/callback"},
      {"POST", "/api/sso/handoff"},
  };
  for (const auto& [method, path] : open) expectPasses(Req(method, path), path);

  // The open paths that are open for POST only.
  expectRefused(Req("GET", "/api/access-requests"), 401, kMissing, "GET access requests");
  expectRefused(Req("GET", "/api/sso/handoff"), 401, kMissing, "GET handoff");

  // Many open requests later the anonymous budget is still whole: 29 more 401s, then 429.
  for (int i = 0; i < 40; ++i) expectPasses(Req("GET", "/api/version"), "version");
  for (int i = 0; i < 40; ++i) expectPasses(Req("GET", "/api/claim"), "GET claim");
  for (int i = 0; i < 28; ++i) {
    expectRefused(Req("GET", "/api/builds"), 401, kMissing, "anonymous");
  }
  expectRefused(Req("GET", "/api/builds"), 429, kSlowDown, "31st anonymous");
}

TEST_F(GateTest, OnlyAWellFormedBearerTokenOfAnEnabledUserIdentifiesTheCaller) {
  const std::string token = seedUser("alice", "member");
  const std::string disabledToken = seedUser("dora", "admin");
  Json::Value dora = readDoc(userPath("dora"));
  dora["disabled"] = true;
  ASSERT_TRUE(store::saveUser(data(), dora));

  expectPasses(Req("GET", "/api/users").bearer(token), "valid token");
  expectRefused(Req("GET", "/api/users"), 401, kMissing, "no header");
  expectRefused(Req("GET", "/api/users").bearer("not-a-token"), 401, kMissing, "unknown token");
  expectRefused(Req("GET", "/api/users").bearer(""), 401, kMissing, "empty token");
  expectRefused(Req("GET", "/api/users").header("authorization", "bearer " + token), 401, kMissing,
                "lower-case scheme");
  expectRefused(Req("GET", "/api/users").header("authorization", "Bearer  " + token), 401, kMissing,
                "two spaces");
  expectRefused(Req("GET", "/api/users").header("authorization", "Basic YWxpY2U6cHc="), 401,
                kMissing, "basic credential");
  expectRefused(Req("GET", "/api/users").bearer(disabledToken), 401, kMissing, "disabled admin");
  // Header names are matched without regard to case.
  expectPasses(Req("GET", "/api/users").header("Authorization", "Bearer " + token),
               "Authorization");
}

TEST_F(GateTest, EveryRoleMeetsItsRules) {
  const std::string adminToken = admin();
  const std::string member = seedUser("mia", "member");
  const std::string publisher = seedUser("pete", "publisher", {"beta", "stable"});
  const std::string bare = seedUser("paula", "publisher");
  // A non-publisher with an allow-list given at creation gets no carve-out from it.
  const std::string memberWithList = seedUser("max", "member", {"beta"});

  struct Case {
    const char* method;
    const char* path;
  };
  const Case reads[] = {{"GET", "/api/users"},    {"GET", "/api/me"},
                        {"GET", "/api/channels"}, {"GET", "/api/builds/b1/files"},
                        {"GET", "/api/groups"},   {"GET", "/api/sso/config"}};
  const Case writes[] = {
      {"POST", "/api/groups/x"},
      {"DELETE", "/api/users/x"},
      {"PUT", "/api/builds/b1/files"},
      {"POST", "/api/builds/b1/finalize"},
      {"POST", "/api/channels/beta"},
      {"POST", "/api/channels/beta/promote"},
      {"POST", "/api/builds/b1/disabled"},
      {"DELETE", "/api/channels/beta"},
      {"PUT", "/api/storage"},
      {"POST", "/api/users/x/tokens"},
  };

  for (const auto& c : reads) {
    for (const std::string* token : {&adminToken, &member, &publisher, &bare, &memberWithList}) {
      expectPasses(Req(c.method, c.path).bearer(*token), c.path);
    }
  }
  for (const auto& c : writes) {
    expectPasses(Req(c.method, c.path).bearer(adminToken), c.path);
    expectRefused(Req(c.method, c.path).bearer(member), 403, kAdminOnly, c.path);
    expectRefused(Req(c.method, c.path).bearer(memberWithList), 403, kAdminOnly, c.path);
  }

  // A publisher uploads and finalizes any build, and creates or promotes its own channels only.
  for (const std::string* token : {&publisher, &bare}) {
    expectPasses(Req("PUT", "/api/builds/b1/files").bearer(*token), "upload");
    expectPasses(Req("PUT", "/api/builds/anything/files").bearer(*token), "upload");
    expectPasses(Req("POST", "/api/builds/b1/finalize").bearer(*token), "finalize");
  }
  expectPasses(Req("POST", "/api/channels/beta/promote").bearer(publisher), "own promote");
  expectPasses(Req("POST", "/api/channels/stable").bearer(publisher), "own create");
  expectRefused(Req("POST", "/api/channels/beta/promote").bearer(bare), 403, kScope,
                "promote without allow-list");
  expectRefused(Req("POST", "/api/channels/beta").bearer(bare), 403, kScope,
                "create without allow-list");
  const Case outside[] = {
      {"POST", "/api/channels/gamma/promote"}, {"POST", "/api/channels/gamma"},
      {"POST", "/api/builds/b1/disabled"},     {"DELETE", "/api/builds/b1"},
      {"DELETE", "/api/channels/beta"},        {"POST", "/api/channels/beta/public"},
      {"POST", "/api/channels/beta/launch"},   {"POST", "/api/builds/b1/files"},
      {"PUT", "/api/builds/b1/finalize"},      {"POST", "/api/groups/x"},
      {"POST", "/api/users/pete/tokens"},      {"DELETE", "/api/users/x"},
  };
  for (const auto& c : outside) {
    expectRefused(Req(c.method, c.path).bearer(publisher), 403, kScope, c.path);
  }
}

TEST_F(GateTest, RefusedWritesNeverReachTheHandler) {
  const std::string member = seedUser("mia", "member");
  EXPECT_TRUE(isError(send(Req("POST", "/api/groups/x").bearer(member)), 403, kAdminOnly));
  EXPECT_TRUE(isError(send(Req("POST", "/api/groups/x")), 401, kMissing));
  EXPECT_FALSE(std::filesystem::exists(groupPath("x")));
  EXPECT_EQ(send(Req("GET", "/api/me").bearer(member)).status, 200u);
  EXPECT_EQ(send(Req("POST", "/api/groups/x").bearer(admin())).status, 200u);
}

TEST_F(GateTest, AnonymousReadersSeePublicChannelsAndTheBuildsTheyPointAt) {
  // While no channel document exists, nothing is public.
  expectRefused(Req("GET", "/api/channels/stable"), 401, kMissing, "no channels yet");
  expectRefused(Req("GET", "/api/builds/b7/files"), 401, kMissing, "no channels yet");

  writeChannel("stable", true, "b7");
  writeChannel("hidden", false, "b8");
  writeChannel("empty", true, "");
  expectPasses(Req("GET", "/api/channels/stable"), "public channel");
  expectPasses(Req("GET", "/api/builds/b7"), "public build");
  expectPasses(Req("GET", "/api/builds/b7/files"), "public build files");
  expectPasses(Req("GET", "/api/channels/empty"), "public channel without build");
  expectPasses(Req("GET", "/api/channels/stable").bearer("wrong"), "public with a bad token");
  expectPasses(Req("GET", "/api/builds/b7").header("authorization", "Basic eDp5"),
               "public with a basic credential");

  expectRefused(Req("GET", "/api/channels"), 401, kMissing, "the list is never public");
  expectRefused(Req("GET", "/api/channels/hidden"), 401, kMissing, "private channel");
  expectRefused(Req("GET", "/api/channels/missing"), 401, kMissing, "missing channel");
  expectRefused(Req("GET", "/api/builds/b8/files"), 401, kMissing, "private build");
  expectRefused(Req("GET", "/api/builds/b9"), 401, kMissing, "unpointed build");
  expectRefused(Req("GET", "/api/channels/stable/x"), 401, kMissing, "deeper path");
  expectRefused(Req("GET", "/api/builds/b7/manifest"), 401, kMissing, "other build path");
  expectRefused(Req("POST", "/api/channels/stable"), 401, kMissing, "public is read-only");
  expectRefused(Req("PUT", "/api/builds/b7/files"), 401, kMissing, "public is read-only");
  expectRefused(Req("DELETE", "/api/builds/b7"), 401, kMissing, "public is read-only");

  // Public reads are not charged to the anonymous budget.
  for (int i = 0; i < 40; ++i) expectPasses(Req("GET", "/api/builds/b7/files"), "repeated");

  // Read fresh each time: a channel made private stops at once.
  writeChannel("stable", false, "b7");
  expectRefused(Req("GET", "/api/channels/stable"), 401, kMissing, "made private");
  expectRefused(Req("GET", "/api/builds/b7/files"), 401, kMissing, "made private");
}

TEST_F(GateTest, AStrayNonObjectChannelFileDoesNotBreakAnonymousReads) {
  writeChannel("stable", true, "b7");
  ASSERT_TRUE(store::writeFileAtomic(channelPath("junk"), "[1, 2]"));
  ASSERT_TRUE(store::writeFileAtomic(channelPath("text"), "\"public\""));
  // Through the router, so an escaping exception shows up as a 500 answer.
  http::Response publicRead = send(Req("GET", "/api/builds/b7/files"));
  EXPECT_NE(publicRead.status, 500u) << publicRead.body;
  EXPECT_NE(publicRead.status, 401u) << publicRead.body;
  EXPECT_TRUE(isError(send(Req("GET", "/api/builds/b8/files")), 401, kMissing));
  EXPECT_TRUE(isError(send(Req("GET", "/api/channels/junk")), 401, kMissing));
}

TEST_F(GateTest, TheSixthCredentialAttemptWithinAMinuteIsRefusedForTwelveSeconds) {
  // The four credential paths share one budget per client.
  const char* paths[] = {"/api/claim", "/api/invites/redeem", "/api/access-requests",
                         "/api/sso/handoff", "/api/claim"};
  for (const char* path : paths) {
    http::Response res = send(Req("POST", path));
    EXPECT_NE(res.status, 429u) << path;
  }
  http::Response sixth = send(Req("POST", "/api/claim"));
  EXPECT_TRUE(isError(sixth, 429, kSlowDown));
  EXPECT_EQ(test::headerOf(sixth, "Retry-After"), "12");
  EXPECT_EQ(send(Req("POST", "/api/sso/handoff")).status, 429u);

  // GET of an open credential path is not charged, and each client has its own budget.
  EXPECT_NE(send(Req("GET", "/api/claim")).status, 429u);
  EXPECT_NE(send(Req("POST", "/api/claim").from("10.0.0.2")).status, 429u);
  // The anonymous budget is separate.
  EXPECT_TRUE(isError(send(Req("GET", "/api/builds")), 401, kMissing));
}

TEST_F(GateTest, TheThirtyFirstAnonymousRequestIsRefusedForTwoSeconds) {
  for (int i = 0; i < 30; ++i) {
    http::Response res =
        i % 2 ? send(Req("GET", "/api/builds")) : send(Req("GET", "/api/builds").bearer("wrong"));
    ASSERT_TRUE(isError(res, 401, kMissing)) << i;
  }
  http::Response last = send(Req("GET", "/api/builds"));
  EXPECT_TRUE(isError(last, 429, kSlowDown));
  EXPECT_EQ(test::headerOf(last, "Retry-After"), "2");

  // A valid token is never charged nor refused by the anonymous budget.
  const std::string token = seedUser("alice", "member");
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(send(Req("GET", "/api/me").bearer(token)).status, 200u) << i;
  }
}

TEST_F(GateTest, AValidTokenNeverSpendsTheAnonymousBudget) {
  const std::string token = seedUser("alice", "member");
  for (int i = 0; i < 100; ++i) {
    ASSERT_NE(send(Req("GET", "/api/builds").bearer(token)).status, 429u) << i;
  }
  for (int i = 0; i < 30; ++i) {
    ASSERT_TRUE(isError(send(Req("GET", "/api/builds")), 401, kMissing)) << i;
  }
}

TEST_F(GateTest, WithRateLimitingOffNothingIsThrottled) {
  start(false);
  for (int i = 0; i < 50; ++i) {
    ASSERT_NE(send(Req("POST", "/api/claim")).status, 429u) << i;
    ASSERT_TRUE(isError(send(Req("GET", "/api/builds")), 401, kMissing)) << i;
  }
}

TEST_F(GateTest, ALocalProxyIsThrottledByTheForwardedClientNotItself) {
  for (const char* peer : {"127.0.0.1", "::1", "::ffff:127.0.0.1"}) {
    for (int i = 0; i < 40; ++i) {
      ASSERT_NE(send(Req("POST", "/api/claim").from(peer)).status, 429u) << peer;
      ASSERT_TRUE(isError(send(Req("GET", "/api/builds").from(peer)), 401, kMissing)) << peer;
    }
  }

  auto viaProxy = [](const char* forwarded) {
    Req req("POST", "/api/claim");
    req.from("127.0.0.1").header("x-forwarded-for", forwarded);
    return req;
  };
  for (int i = 0; i < 5; ++i) {
    ASSERT_NE(send(viaProxy("203.0.113.9, 10.0.0.1")).status, 429u) << i;
  }
  EXPECT_EQ(send(viaProxy("203.0.113.9, 10.0.0.1")).status, 429u);
  // The key is 203.0.113.9: the same client arriving directly is already spent ...
  EXPECT_EQ(send(Req("POST", "/api/claim").from("203.0.113.9")).status, 429u);
  EXPECT_EQ(send(viaProxy(" 203.0.113.9")).status, 429u);
  // ... while the proxy's other hops are not.
  EXPECT_NE(send(viaProxy("10.0.0.1")).status, 429u);
  // A forwarded header from a non-loopback peer is ignored.
  EXPECT_NE(
      send(Req("POST", "/api/claim").from("10.0.0.5").header("x-forwarded-for", "203.0.113.9"))
          .status,
      429u);
}

}  // namespace
}  // namespace quill
