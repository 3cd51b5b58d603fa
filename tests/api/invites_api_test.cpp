// Invites through the route table and the gate: minting with its checks in order, listing without
// codes, revoking, and single-use redemption with machine-named tokens.

#include <gtest/gtest.h>
#include <json/writer.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <map>
#include <regex>

#include "api/onboarding_fixture.h"
#include "store/utc_time.h"

namespace quill::test {
namespace {

using Params = std::vector<std::pair<std::string, std::string>>;

class InvitesApi : public OnboardingTest {};

// ---------------------------------------------------------------- mint

TEST_F(InvitesApi, MintAnswersTheCreationDocumentAndFilesTheRecordUnderTheCodesHash) {
  seedGroup("testers");
  seedGroup("qa");
  const std::int64_t before = std::time(nullptr);
  auto res = mint({{"user", "newbie"},
                   {"groups", "testers,qa"},
                   {"email", "n@example.com"},
                   {"display_name", "New Bie"}});
  const std::int64_t after = std::time(nullptr);
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"code", "expires_at", "groups", "id",
                                                        "schema_version", "user"}));
  Json::Value doc = parseBody(res);
  EXPECT_TRUE(randomText(doc["code"], 24)) << doc["code"];
  EXPECT_TRUE(randomText(doc["id"], 8)) << doc["id"];
  EXPECT_EQ(doc["groups"], strings({"testers", "qa"}));
  EXPECT_EQ(doc["user"].asString(), "newbie");
  EXPECT_EQ(doc["schema_version"].asInt(), 1);

  Json::Value record = readDoc(invitePath(doc["code"].asString()));
  EXPECT_EQ(record["id"], doc["id"]);
  EXPECT_EQ(record["user"].asString(), "newbie");
  EXPECT_EQ(record["groups"], doc["groups"]);
  EXPECT_EQ(record["email"].asString(), "n@example.com");
  EXPECT_EQ(record["display_name"].asString(), "New Bie");
  EXPECT_TRUE(record["created_at"].isString());
  EXPECT_FALSE(record.isMember("code"));
  const std::int64_t expires = record["expires_epoch"].asInt64();
  EXPECT_GE(expires, before + 7 * 86400);
  EXPECT_LE(expires, after + 7 * 86400);
  EXPECT_EQ(doc["expires_at"].asString(), store::formatUtc(expires));
  // A user that does not exist yet is not created by minting.
  EXPECT_FALSE(std::filesystem::exists(userPath("newbie")));

  // Empty profile values are not stored.
  res = mint({{"user", "other"}, {"email", ""}, {"display_name", ""}});
  ASSERT_EQ(res.status, 200u);
  record = readDoc(invitePath(parseBody(res)["code"].asString()));
  EXPECT_FALSE(record.isMember("email"));
  EXPECT_FALSE(record.isMember("display_name"));
}

TEST_F(InvitesApi, MintDaysBounds) {
  for (const char* days : {"1", "3650"}) {
    const std::int64_t before = std::time(nullptr);
    auto res = mint({{"user", "bob"}, {"days", days}});
    ASSERT_EQ(res.status, 200u) << days << " " << res.body;
    const std::int64_t lifetime = std::stoll(days) * 86400;
    auto expires = readDoc(invitePath(parseBody(res)["code"].asString()))["expires_epoch"];
    EXPECT_GE(expires.asInt64(), before + lifetime);
    EXPECT_LE(expires.asInt64(), std::time(nullptr) + lifetime);
  }
  const std::size_t kept = filesIn(data().invites());
  for (const char* days :
       {"0", "3651", "-1", "abc", "", "7x", " 7", "1.5", "99999999999999999999"}) {
    EXPECT_TRUE(isError(mint({{"user", "bob"}, {"days", days}}), 400, "days must be 1..3650"))
        << "days=" << days;
  }
  EXPECT_EQ(filesIn(data().invites()), kept);
}

TEST_F(InvitesApi, MintChecksUserThenServiceAccountThenGroupsThenDays) {
  seedUser("ci", "publisher", {}, true);
  seedGroup("testers");
  const std::string badUser = "missing or invalid ?user= parameter";

  EXPECT_TRUE(isError(mint({}), 400, badUser));
  for (const char* user : {"", "bad name", "..", "con", "a/b"}) {
    EXPECT_TRUE(isError(mint({{"user", user}, {"days", "0"}}), 400, badUser)) << user;
  }
  EXPECT_TRUE(isError(mint({{"user", std::string(129, 'x')}}), 400, badUser));

  // A service account is refused before any group is examined.
  const std::string service = "service accounts cannot be invited - they use tokens";
  EXPECT_TRUE(isError(mint({{"user", "ci"}}), 400, service));
  EXPECT_TRUE(isError(mint({{"user", "ci"}, {"groups", "bad name"}}), 400, service));
  EXPECT_TRUE(isError(mint({{"user", "ci"}, {"groups", "ghost"}, {"days", "0"}}), 400, service));

  const std::string badGroup = "invalid group name in ?groups=";
  for (const char* groups : {"bad name", "testers,,testers", ",testers", "testers,..", "nul"}) {
    EXPECT_TRUE(isError(mint({{"user", "bob"}, {"groups", groups}}), 400, badGroup)) << groups;
  }
  EXPECT_TRUE(isError(mint({{"user", "bob"}, {"groups", "testers,ghost"}}), 404,
                      "group 'ghost' does not exist"));
  // Groups come before days.
  EXPECT_TRUE(isError(mint({{"user", "bob"}, {"groups", "ghost"}, {"days", "0"}}), 404,
                      "group 'ghost' does not exist"));
  EXPECT_EQ(filesIn(data().invites()), 0u);
}

// ---------------------------------------------------------------- list

TEST_F(InvitesApi, ListShowsEveryReadableInviteWithExpiryAndNeverTheCode) {
  seedGroup("testers");
  const std::string member = seedUser("mo", "member");
  auto plain = parseBody(mint({{"user", "bob"}}));
  auto rich = parseBody(mint({{"user", "carol"},
                              {"groups", "testers"},
                              {"email", "c@example.com"},
                              {"display_name", "Carol"}}));
  auto old = parseBody(mint({{"user", "dave"}}));
  age(old["code"].asString(), 60);
  std::ofstream(data().invites() / "broken.json") << "{";

  auto res = send(Req("GET", "/api/invites").bearer(member));
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"invites", "schema_version"}));
  for (const auto& made : {plain, rich, old}) {
    EXPECT_EQ(res.body.find(made["code"].asString()), std::string::npos);
  }
  Json::Value doc = parseBody(res);
  ASSERT_EQ(doc["invites"].size(), 3u);
  std::map<std::string, Json::Value> byUser;
  for (const auto& item : doc["invites"]) byUser[item["user"].asString()] = item;

  const Json::Value& bob = byUser["bob"];
  auto names = bob.getMemberNames();
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"created_at", "expired", "expires_at", "groups", "id",
                                             "user"}));
  EXPECT_EQ(bob["id"], plain["id"]);
  EXPECT_EQ(bob["expires_at"], plain["expires_at"]);
  EXPECT_EQ(bob["expired"], Json::Value(false));
  EXPECT_EQ(bob["groups"], Json::Value(Json::arrayValue));

  const Json::Value& carol = byUser["carol"];
  EXPECT_EQ(carol["groups"], strings({"testers"}));
  EXPECT_EQ(carol["email"].asString(), "c@example.com");
  EXPECT_EQ(carol["display_name"].asString(), "Carol");
  EXPECT_EQ(carol["expired"], Json::Value(false));

  const Json::Value& dave = byUser["dave"];
  EXPECT_EQ(dave["expired"], Json::Value(true));
  EXPECT_EQ(
      dave["expires_at"].asString(),
      store::formatUtc(readDoc(invitePath(old["code"].asString()))["expires_epoch"].asInt64()));

  EXPECT_TRUE(isError(send(Req("GET", "/api/invites")), 401, "missing or invalid token"));
}

// ---------------------------------------------------------------- revoke

TEST_F(InvitesApi, RevokeRemovesTheInviteByItsPublicId) {
  const std::string member = seedUser("mo", "member");
  auto made = parseBody(mint({{"user", "bob"}}));
  auto kept = parseBody(mint({{"user", "bob"}}));
  const std::string id = made["id"].asString();

  EXPECT_TRUE(isError(send(Req("DELETE", "/api/invites/" + id).bearer(member)), 403,
                      "this operation requires the admin role"));
  ASSERT_TRUE(std::filesystem::exists(invitePath(made["code"].asString())));

  auto res = send(Req("DELETE", "/api/invites/" + id).bearer(admin()));
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(parseBody(res)["revoked"].asString(), id);
  EXPECT_FALSE(std::filesystem::exists(invitePath(made["code"].asString())));
  EXPECT_TRUE(std::filesystem::exists(invitePath(kept["code"].asString())));
  EXPECT_TRUE(isError(redeem(made["code"].asString()), 404, "invalid or already used invite"));

  EXPECT_TRUE(
      isError(send(Req("DELETE", "/api/invites/" + id).bearer(admin())), 404, "no such invite"));
  for (const char* bad : {"..", "con", "a b", "caf\xc3\xa9"}) {
    EXPECT_TRUE(isError(send(Req("DELETE", std::string("/api/invites/") + bad).bearer(admin())),
                        400, "invalid invite id"))
        << bad;
  }
  EXPECT_TRUE(std::filesystem::exists(invitePath(kept["code"].asString())));
}

// ---------------------------------------------------------------- redeem

TEST_F(InvitesApi, RedeemCreatesTheMissingUserAndATokenNamedAfterTheMachine) {
  const std::string code = inviteCode("alice", {}, "alice@example.com", "Alice A");
  auto res = redeem(code, "My Laptop!");
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"channels", "groups", "role", "schema_version", "token",
                                      "token_name", "user"}));
  Json::Value doc = parseBody(res);
  EXPECT_EQ(doc["token_name"].asString(), "alice-MyLaptop");
  EXPECT_EQ(doc["user"].asString(), "alice");
  EXPECT_EQ(doc["role"].asString(), "member");
  EXPECT_EQ(doc["groups"], Json::Value(Json::arrayValue));
  EXPECT_EQ(doc["channels"], Json::Value(Json::arrayValue));
  EXPECT_EQ(doc["schema_version"].asInt(), 1);
  ASSERT_TRUE(randomText(doc["token"], 48));

  Json::Value user = readDoc(userPath("alice"));
  EXPECT_EQ(user["role"].asString(), "member");
  EXPECT_EQ(user["email"].asString(), "alice@example.com");
  EXPECT_EQ(user["display_name"].asString(), "Alice A");
  EXPECT_FALSE(user.isMember("channels"));
  Json::Value token = readDoc(tokenPath("alice-MyLaptop"));
  EXPECT_EQ(token["user"].asString(), "alice");
  EXPECT_EQ(token["token_hash"].asString(), store::hashToken(doc["token"].asString()));
  EXPECT_FALSE(std::filesystem::exists(invitePath(code)));

  auto me = send(Req("GET", "/api/me").bearer(doc["token"].asString()));
  ASSERT_EQ(me.status, 200u);
  EXPECT_EQ(parseBody(me)["name"].asString(), "alice");

  // Single use.
  EXPECT_TRUE(isError(redeem(code, "My Laptop!"), 404, "invalid or already used invite"));

  // A second invite from the same machine name gets a suffixed token name.
  auto again = redeem(inviteCode("alice"), "My Laptop!");
  ASSERT_EQ(again.status, 200u) << again.body;
  EXPECT_TRUE(std::regex_match(parseBody(again)["token_name"].asString(),
                               std::regex("alice-MyLaptop-[A-Za-z0-9]{4}")))
      << again.body;
  EXPECT_TRUE(std::filesystem::exists(tokenPath("alice-MyLaptop")));
}

TEST_F(InvitesApi, RedeemTokenNameKeepsOnlyNameCharactersOfTheMachine) {
  struct Case {
    const char* machine;
    const char* tokenName;
  };
  // One user per case, so no name is taken yet.
  for (auto c : {Case{nullptr, "u0-device"}, Case{"", "u1-device"}, Case{"!!! ?", "u2-device"},
                 Case{"build_box.01-b", "u3-build_box.01-b"}, Case{"caf\xc3\xa9 #9", "u4-caf9"}}) {
    auto res = redeem(inviteCode(std::string(c.tokenName).substr(0, 2)), c.machine);
    ASSERT_EQ(res.status, 200u) << res.body;
    EXPECT_EQ(parseBody(res)["token_name"].asString(), c.tokenName)
        << (c.machine ? c.machine : "(absent)");
  }
}

TEST_F(InvitesApi, RedeemRefusesMalformedAndUnknownCodes) {
  const std::string bad = "missing or invalid ?code= parameter";
  EXPECT_TRUE(isError(send(Req("POST", "/api/invites/redeem").from(freshPeer())), 400, bad));
  EXPECT_TRUE(isError(redeem(""), 400, bad));
  EXPECT_TRUE(isError(redeem(std::string(129, 'A')), 400, bad));
  EXPECT_TRUE(isError(redeem(std::string(128, 'A')), 404, "invalid or already used invite"));
  EXPECT_TRUE(isError(redeem("abcdefghijklmnopqrstuvwx"), 404, "invalid or already used invite"));
  // A code that is no file-name material is hashed, never used as a path.
  EXPECT_TRUE(isError(redeem("../users/admin"), 404, "invalid or already used invite"));
  EXPECT_EQ(filesIn(data().users()), 0u);
  EXPECT_EQ(filesIn(data().tokens()), 0u);
}

TEST_F(InvitesApi, AnExpiredInviteIsRemovedByTheFirstAttempt) {
  const std::string code = inviteCode("late", {}, "late@example.com");
  age(code, 1);
  EXPECT_TRUE(isError(redeem(code, "box"), 404, "invite expired"));
  EXPECT_FALSE(std::filesystem::exists(invitePath(code)));
  EXPECT_FALSE(std::filesystem::exists(userPath("late")));
  EXPECT_EQ(filesIn(data().tokens()), 0u);
  EXPECT_TRUE(isError(redeem(code, "box"), 404, "invalid or already used invite"));
}

TEST_F(InvitesApi, RedeemForADisabledUserIsRefusedAndKeepsTheInvite) {
  seedGroup("testers");
  seedUser("dora", "member");
  Json::Value dora = readDoc(userPath("dora"));
  dora["disabled"] = true;
  ASSERT_TRUE(store::saveUser(data(), dora));
  const std::string before = readDoc(userPath("dora")).toStyledString();

  const std::string code = inviteCode("dora", {"testers"});
  EXPECT_TRUE(isError(redeem(code, "box"), 403,
                      "this user is disabled - ask the admin to re-enable the account first"));
  EXPECT_TRUE(std::filesystem::exists(invitePath(code)));
  EXPECT_EQ(readDoc(userPath("dora")).toStyledString(), before);
  EXPECT_FALSE(std::filesystem::exists(tokenPath("dora-box")));
}

TEST_F(InvitesApi, RedeemJoinsGroupsAndAnswersTheEffectiveChannels) {
  for (const char* channel : {"f", "c1", "c2", "c3"}) writeChannel(channel, false);
  seedGroup("g1", {"c1"});
  seedGroup("g2", {"c2", "c1"});
  seedGroup("g3", {"c3"});
  seedUser("erin", "publisher", {"c3"});
  Json::Value erin = readDoc(userPath("erin"));
  erin["groups"] = strings({"g1"});
  erin["follows"] = strings({"f"});
  erin["email"] = "old@example.com";
  ASSERT_TRUE(store::saveUser(data(), erin));

  auto res = redeem(inviteCode("erin", {"g2", "g1", "g3"}, "new@example.com", "New Name"), "ws");
  ASSERT_EQ(res.status, 200u) << res.body;
  Json::Value doc = parseBody(res);
  EXPECT_EQ(doc["role"].asString(), "publisher");
  EXPECT_EQ(doc["groups"], strings({"g1", "g2", "g3"}));
  EXPECT_EQ(doc["channels"], strings({"f", "c1", "c2", "c3"}));
  EXPECT_EQ(doc["token_name"].asString(), "erin-ws");

  // An existing user keeps its profile; only the groups are added.
  Json::Value stored = readDoc(userPath("erin"));
  EXPECT_EQ(stored["groups"], strings({"g1", "g2", "g3"}));
  EXPECT_EQ(stored["email"].asString(), "old@example.com");
  EXPECT_FALSE(stored.isMember("display_name"));
  EXPECT_EQ(stored["role"].asString(), "publisher");

  auto me = parseBody(send(Req("GET", "/api/me").bearer(doc["token"].asString())));
  EXPECT_EQ(me["channels"], doc["channels"]);
  EXPECT_EQ(me["groups"], doc["groups"]);
}

TEST_F(InvitesApi, RedeemIsChargedToTheCredentialBudgetWhetherItSucceedsOrNot) {
  const std::string code = inviteCode("gina");
  for (int i = 0; i < 5; ++i) {
    auto res = send(Req("POST", "/api/invites/redeem").q("code", "nope").from("10.0.0.5"));
    EXPECT_TRUE(isError(res, 404, "invalid or already used invite")) << i;
  }
  auto res = send(Req("POST", "/api/invites/redeem").q("code", code).from("10.0.0.5"));
  EXPECT_TRUE(isError(res, 429, "too many requests - slow down and retry later"));
  EXPECT_FALSE(headerOf(res, "Retry-After").empty());
  EXPECT_TRUE(std::filesystem::exists(invitePath(code)));
  EXPECT_FALSE(std::filesystem::exists(userPath("gina")));
  // Another address still has its budget.
  EXPECT_EQ(redeem(code).status, 200u);
}

}  // namespace
}  // namespace quill::test
