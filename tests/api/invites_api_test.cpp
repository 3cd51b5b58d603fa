// Invites through the route table and the gate: minting with its checks in order, listing without
// codes, revoking, and single-use redemption with machine-named tokens.

#include <gtest/gtest.h>

#include <ctime>
#include <map>
#include <regex>

#include "http/json.h"
#include "store/invites.h"
#include "store/names.h"
#include "store/tokens.h"
#include "store/utc_time.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

constexpr const char* kUsed = "invalid or already used invite";

class InvitesApi : public ApiTest {
 protected:
  // POST /api/invites as the admin with the given query parameters.
  http::Response mint(const std::vector<std::pair<std::string, std::string>>& params) {
    Req req("POST", "/api/invites");
    for (const auto& [name, value] : params) req.q(name, value);
    return asAdmin(req);
  }
  // A code for `user` straight from the store.
  std::string inviteCode(const std::string& user, std::vector<std::string> groups = {},
                         const std::string& email = "", const std::string& displayName = "") {
    store::InviteRequest invite;
    invite.user = user;
    invite.groups = std::move(groups);
    invite.email = email;
    invite.displayName = displayName;
    auto created = store::createInvite(data(), invite);
    EXPECT_TRUE(created.has_value());
    return created ? (*created)["code"].asString() : "";
  }
  // Moves an invite's expiry `seconds` into the past.
  void age(const std::string& code, std::int64_t seconds) {
    setMember(invitePath(code), "expires_epoch", Json::Int64(std::time(nullptr) - seconds));
  }
};

TEST_F(InvitesApi, MintAnswersTheCreationDocumentAndFilesTheRecordUnderTheCodesHash) {
  seedGroup("testers");
  seedGroup("qa");
  const std::int64_t before = std::time(nullptr);
  auto res = mint({{"user", "newbie"},
                   {"groups", "testers,qa"},
                   {"email", "n@example.com"},
                   {"display_name", "New Bie"}});
  const std::int64_t after = std::time(nullptr);
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"code", "expires_at", "groups", "id",
                                                        "schema_version", "user"}));
  Json::Value doc = bodyOf(res);
  EXPECT_TRUE(isRandomText(doc["code"], 24)) << doc["code"];
  EXPECT_TRUE(isRandomText(doc["id"], 8)) << doc["id"];
  EXPECT_EQ(doc["groups"], strings({"testers", "qa"}));
  EXPECT_EQ(doc["user"], "newbie");

  Json::Value record = readDoc(invitePath(doc["code"].asString()));
  EXPECT_EQ(record["id"], doc["id"]);
  EXPECT_EQ(record["groups"], doc["groups"]);
  EXPECT_EQ(record["email"], "n@example.com");
  EXPECT_EQ(record["display_name"], "New Bie");
  EXPECT_FALSE(record.isMember("code"));
  const std::int64_t expires = record["expires_epoch"].asInt64();
  EXPECT_GE(expires, before + 7 * 86400);
  EXPECT_LE(expires, after + 7 * 86400);
  EXPECT_EQ(doc["expires_at"].asString(), store::formatUtc(expires));
  EXPECT_FALSE(fs::exists(userPath("newbie"))) << "minting creates no user";

  // Empty profile values are not stored; the lifetime's bounds are accepted.
  res = mint({{"user", "other"}, {"email", ""}, {"display_name", ""}, {"days", "3650"}});
  record = readDoc(invitePath(bodyOf(res)["code"].asString()));
  EXPECT_FALSE(record.isMember("email"));
  EXPECT_FALSE(record.isMember("display_name"));
  EXPECT_GE(record["expires_epoch"].asInt64(), before + 3650LL * 86400);
  EXPECT_TRUE(isOk(mint({{"user", "other"}, {"days", "1"}})));
}

TEST_F(InvitesApi, MintChecksUserThenServiceAccountThenGroupsThenDays) {
  seedUser("ci", "publisher", {}, true);
  seedGroup("testers");
  const std::string badUser = "missing or invalid ?user= parameter";
  const std::string service = "service accounts cannot be invited - they use tokens";
  const std::string badGroup = "invalid group name in ?groups=";
  const std::string noGroup = "group 'ghost' does not exist";
  const std::string badDays = "days must be 1..3650";
  struct Case {
    std::vector<std::pair<std::string, std::string>> params;
    unsigned status;
    std::string error;
  };
  std::vector<Case> cases = {
      {{}, 400, badUser},
      {{{"user", std::string(129, 'x')}}, 400, badUser},
      // A service account is refused before any group is examined.
      {{{"user", "ci"}}, 400, service},
      {{{"user", "ci"}, {"groups", "ghost"}, {"days", "0"}}, 400, service},
      {{{"user", "bob"}, {"groups", "testers,ghost"}}, 404, noGroup},
      {{{"user", "bob"}, {"groups", "ghost"}, {"days", "0"}}, 404, noGroup},
  };
  for (const char* user : {"", "bad name", "..", "con", "a/b"}) {
    cases.push_back({{{"user", user}, {"days", "0"}}, 400, badUser});
  }
  for (const char* groups : {"bad name", "testers,,testers", ",testers", "testers,..", "nul"}) {
    cases.push_back({{{"user", "bob"}, {"groups", groups}}, 400, badGroup});
  }
  for (const char* days :
       {"0", "3651", "-1", "abc", "", "7x", " 7", "1.5", "99999999999999999999"}) {
    cases.push_back({{{"user", "bob"}, {"days", days}}, 400, badDays});
  }
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_TRUE(isError(mint(cases[i].params), cases[i].status, cases[i].error)) << "case " << i;
  }
  EXPECT_EQ(filesIn(data().invites()), 0u);
}

TEST_F(InvitesApi, ListShowsEveryReadableInviteWithExpiryAndNeverTheCode) {
  seedGroup("testers");
  const std::string member = seedUser("mo", "member");
  auto plain = bodyOf(mint({{"user", "bob"}}));
  auto rich = bodyOf(mint({{"user", "carol"},
                           {"groups", "testers"},
                           {"email", "c@example.com"},
                           {"display_name", "Carol"}}));
  auto old = bodyOf(mint({{"user", "dave"}}));
  age(old["code"].asString(), 60);
  writeText(data().invites() / "broken.json", "{");

  auto res = as(member, Req("GET", "/api/invites"));
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"invites", "schema_version"}));
  for (const auto& made : {plain, rich, old}) {
    EXPECT_EQ(res.body.find(made["code"].asString()), std::string::npos);
  }
  // Each entry is the stored record less its hash and epoch, with the expiry as text and a flag.
  std::map<std::string, Json::Value> byUser;
  const Json::Value list = bodyOf(res)["invites"];
  for (const auto& item : list) byUser[item["user"].asString()] = item;
  ASSERT_EQ(byUser.size(), 3u);
  for (const auto& [made, expired] : {std::pair{plain, false}, {rich, false}, {old, true}}) {
    Json::Value expected = readDoc(invitePath(made["code"].asString()));
    expected["expires_at"] = store::formatUtc(expected["expires_epoch"].asInt64());
    expected["expired"] = expired;
    for (const char* hidden : {"expires_epoch", "schema_version", "code_hash"}) {
      expected.removeMember(hidden);
    }
    EXPECT_EQ(byUser[made["user"].asString()], expected);
  }
}

TEST_F(InvitesApi, RevokeRemovesTheInviteByItsPublicId) {
  auto made = bodyOf(mint({{"user", "bob"}}));
  auto kept = bodyOf(mint({{"user", "bob"}}));
  const std::string id = made["id"].asString();
  EXPECT_EQ(asAdmin(Req("DELETE", "/api/invites/" + id)).body, R"({"revoked":")" + id + "\"}");
  EXPECT_FALSE(fs::exists(invitePath(made["code"].asString())));
  EXPECT_TRUE(isError(redeem(made["code"].asString()), 404, kUsed));

  EXPECT_TRUE(isError(asAdmin(Req("DELETE", "/api/invites/" + id)), 404, "no such invite"));
  for (const char* bad : {"..", "con", "a b", "caf\xc3\xa9"}) {
    EXPECT_TRUE(isError(asAdmin(Req("DELETE", std::string("/api/invites/") + bad)), 400,
                        "invalid invite id"))
        << bad;
  }
  EXPECT_TRUE(fs::exists(invitePath(kept["code"].asString())));
}

TEST_F(InvitesApi, RedeemCreatesTheMissingUserAndATokenNamedAfterTheMachine) {
  const std::string code = inviteCode("alice", {}, "alice@example.com", "Alice A");
  auto res = redeem(code, "My Laptop!");
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"channels", "groups", "role", "schema_version", "token",
                                      "token_name", "user"}));
  Json::Value doc = bodyOf(res);
  ASSERT_TRUE(isRandomText(doc["token"], 48));
  const std::string token = doc["token"].asString();
  doc.removeMember("token");
  EXPECT_EQ(
      http::toCompactJson(doc),
      R"({"channels":[],"groups":[],"role":"member","schema_version":1,"token_name":"alice-MyLaptop","user":"alice"})");

  Json::Value user = readDoc(userPath("alice"));
  EXPECT_EQ(user["role"], "member");
  EXPECT_EQ(user["email"], "alice@example.com");
  EXPECT_EQ(user["display_name"], "Alice A");
  EXPECT_EQ(readDoc(tokenPath("alice-MyLaptop"))["token_hash"], store::hashToken(token));
  EXPECT_FALSE(fs::exists(invitePath(code)));
  EXPECT_EQ(bodyOf(as(token, Req("GET", "/api/me")))["name"], "alice");

  EXPECT_TRUE(isError(redeem(code, "My Laptop!"), 404, kUsed)) << "single use";

  // A second invite from the same machine name gets a suffixed token name.
  auto again = redeem(inviteCode("alice"), "My Laptop!");
  EXPECT_TRUE(std::regex_match(bodyOf(again)["token_name"].asString(),
                               std::regex("alice-MyLaptop-[A-Za-z0-9]{4}")))
      << again.body;
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
    EXPECT_EQ(bodyOf(res)["token_name"], c.tokenName) << (c.machine ? c.machine : "(absent)");
  }
}

TEST_F(InvitesApi, RedeemWithALongMachineNameMintsATokenThatPassesTheNameRule) {
  // Two redemptions per case: the second name carries the random suffix.
  for (const std::string& user : {std::string("bo"), std::string(128, 'u')}) {
    for (std::size_t length : {200u, 300u}) {
      for (int round = 0; round < 2; ++round) {
        auto res = redeem(inviteCode(user), std::string(length, 'm').c_str());
        ASSERT_EQ(res.status, 200u) << res.body;
        const std::string name = bodyOf(res)["token_name"].asString();
        EXPECT_TRUE(store::isValidName(name)) << name;
        EXPECT_EQ(name.rfind(user.substr(0, 100), 0), 0u) << name;
        EXPECT_TRUE(fs::is_regular_file(tokenPath(name))) << name;
      }
    }
  }
}

TEST_F(InvitesApi, RedeemRefusesMalformedUnknownAndExpiredCodes) {
  EXPECT_TRUE(isError(send(Req("POST", "/api/invites/redeem").from(freshPeer())), 400,
                      "missing or invalid ?code= parameter"));
  EXPECT_EQ(redeem("").status, 400u);
  EXPECT_EQ(redeem(std::string(129, 'A')).status, 400u);
  EXPECT_TRUE(isError(redeem(std::string(128, 'A')), 404, kUsed));
  // A code that is no file-name material is hashed, never used as a path.
  EXPECT_TRUE(isError(redeem("../users/admin"), 404, kUsed));

  // An expired invite is removed by the first attempt.
  const std::string code = inviteCode("late", {}, "late@example.com");
  age(code, 1);
  EXPECT_TRUE(isError(redeem(code, "box"), 404, "invite expired"));
  EXPECT_FALSE(fs::exists(invitePath(code)));
  EXPECT_TRUE(isError(redeem(code, "box"), 404, kUsed));
  EXPECT_EQ(filesIn(data().users()), 0u);
  EXPECT_EQ(filesIn(data().tokens()), 0u);
}

TEST_F(InvitesApi, RedeemForADisabledUserIsRefusedAndKeepsTheInvite) {
  seedGroup("testers");
  seedUser("dora", "member");
  setMember(userPath("dora"), "disabled", true);
  const std::string before = readBytes(userPath("dora"));
  const std::string code = inviteCode("dora", {"testers"});
  EXPECT_TRUE(isError(redeem(code, "box"), 403,
                      "this user is disabled - ask the admin to re-enable the account first"));
  EXPECT_TRUE(fs::exists(invitePath(code)));
  EXPECT_EQ(readBytes(userPath("dora")), before);
  EXPECT_FALSE(fs::exists(tokenPath("dora-box")));
}

TEST_F(InvitesApi, RedeemJoinsGroupsAndAnswersTheEffectiveChannels) {
  for (const char* channel : {"f", "c1", "c2", "c3"}) writeChannel(channel);
  seedGroup("g1", {"c1"});
  seedGroup("g2", {"c2", "c1"});
  seedGroup("g3", {"c3"});
  seedUser("erin", "publisher", {"c3"});
  setMember(userPath("erin"), "groups", strings({"g1"}));
  setMember(userPath("erin"), "follows", strings({"f"}));
  setMember(userPath("erin"), "email", "old@example.com");

  auto res = redeem(inviteCode("erin", {"g2", "g1", "g3"}, "new@example.com", "New Name"), "ws");
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(doc["role"], "publisher");
  EXPECT_EQ(doc["groups"], strings({"g1", "g2", "g3"}));
  EXPECT_EQ(doc["channels"], strings({"f", "c1", "c2", "c3"}));

  // An existing user keeps its profile; only the groups are added.
  Json::Value stored = readDoc(userPath("erin"));
  EXPECT_EQ(stored["groups"], strings({"g1", "g2", "g3"}));
  EXPECT_EQ(stored["email"], "old@example.com");
  EXPECT_FALSE(stored.isMember("display_name"));
  EXPECT_EQ(bodyOf(as(doc["token"].asString(), Req("GET", "/api/me")))["channels"],
            doc["channels"]);
}

}  // namespace
}  // namespace quill::test
