// The user routes through the route table and the gate: each refusal in its order, the stored
// records, the recovery and last-admin rules, and what a failed write answers.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "http/json.h"
#include "store/documents.h"
#include "store/users.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

constexpr const char* kInvalidUser = "invalid user name";
constexpr const char* kNotFound = "user not found";
constexpr const char* kExists = "user already exists";
constexpr const char* kBadRole = "role must be admin, member or publisher";
constexpr const char* kBadValue = "?value= must be admin, member or publisher";
constexpr const char* kChannelsForPublisher = "?channels= only applies to role publisher";
constexpr const char* kBadChannelList = "invalid channel name in ?channels=";
constexpr const char* kServicePublisher = "service accounts always have role publisher";

std::string recovery(const char* verb) {
  return std::string("'admin' is the recovery account and cannot be ") + verb +
         " - it is how you get back in if every other sign-in is lost";
}

// "METHOD /path?name=value&name=value" as a request; values are taken verbatim.
Req line(const std::string& text) {
  const auto space = text.find(' ');
  const auto mark = text.find('?');
  Req req(text.substr(0, space), text.substr(space + 1, mark - std::min(mark, space + 1)));
  if (mark == std::string::npos) return req;
  std::istringstream params(text.substr(mark + 1));
  for (std::string pair; std::getline(params, pair, '&');) {
    const auto eq = pair.find('=');
    req.q(pair.substr(0, eq), eq == std::string::npos ? "" : pair.substr(eq + 1));
  }
  return req;
}

struct Refusal {
  std::string request;
  unsigned status;
  std::string error;
};

class UsersApiTest : public ApiTest {
 protected:
  void expectRefusals(const std::vector<Refusal>& cases) {
    for (const auto& c : cases) {
      EXPECT_TRUE(isError(asAdmin(line(c.request)), c.status, c.error)) << c.request;
    }
  }
  Json::Value stored(const std::string& name) { return readDoc(userPath(name)); }
  // The answer is 200 with the record now on disk; returns it.
  Json::Value answersStored(const http::Response& res, const std::string& name) {
    EXPECT_EQ(res.status, 200u) << res.body;
    Json::Value body = bodyOf(res);
    EXPECT_EQ(body, stored(name));
    return body;
  }
  Json::Value change(const std::string& request, const std::string& name) {
    return answersStored(asAdmin(line(request)), name);
  }
};

TEST_F(UsersApiTest, ListShowsEveryUserWithDefaultsFilledIn) {
  admin();
  const std::string member = seedUser("mia", "member");
  Json::Value odd = stored("mia");
  odd["name"] = "sven";
  odd["sso"] = true;
  odd["service"] = "yes";    // not a boolean: false
  odd["channels"] = "beta";  // not an array: empty
  odd["follows"] = strings({"stable"});
  odd["display_name"] = "Sven";
  odd["disabled"] = true;
  ASSERT_TRUE(store::saveUser(data(), odd));
  writeText(userPath("junk"), "[1]");

  http::Response res = as(member, Req("GET", "/api/users"));  // any role may list
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"schema_version", "users"}));
  std::map<std::string, std::string> byName;
  const Json::Value users = bodyOf(res)["users"];
  for (const auto& entry : users) {
    byName[entry["name"].asString()] = http::toCompactJson(entry);
  }
  ASSERT_EQ(byName.size(), 3u);
  EXPECT_EQ(byName["admin"],
            R"({"channels":[],"disabled":false,"display_name":"","email":"","follows":[],)"
            R"("groups":[],"name":"admin","recovery":true,"role":"admin","service":false,)"
            R"("sso":false})");
  EXPECT_EQ(byName["sven"], R"({"channels":[],"disabled":true,"display_name":"Sven","email":"",)"
                            R"("follows":["stable"],"groups":[],"name":"sven","recovery":false,)"
                            R"("role":"member","service":false,"sso":true})");
}

TEST_F(UsersApiTest, CreateChecksNameRoleChannelsExistenceServiceInThatOrder) {
  writeChannel("a");
  seedUser("taken", "member");
  expectRefusals({
      {"POST /api/users/con?role=owner", 400, kInvalidUser},
      {"POST /api/users/" + std::string(129, 'n'), 400, kInvalidUser},
      {"POST /api/users/x?role=owner&channels=a,,b", 400, kBadRole},
      {"POST /api/users/x?channels=missing", 400, kChannelsForPublisher},
      {"POST /api/users/x?role=member&channels=a&service=1", 400, kChannelsForPublisher},
      {"POST /api/users/x?role=publisher&channels=a,,b", 400, kBadChannelList},
      {"POST /api/users/x?role=publisher&channels=a,missing", 404,
       "channel 'missing' does not exist"},
      {"POST /api/users/taken?role=publisher&channels=gone", 404, "channel 'gone' does not exist"},
      {"POST /api/users/taken?service=1", 409, kExists},
      {"POST /api/users/x?service=true&role=admin", 400, kServicePublisher},
  });
  EXPECT_FALSE(fs::exists(userPath("x")));
}

TEST_F(UsersApiTest, CreateAnswersTheStoredRecord) {
  writeChannel("a");
  writeChannel("b");
  http::Response plain = asAdmin(line("POST /api/users/bob?role=&service=yes"));
  EXPECT_EQ(memberOrder(plain),
            (std::vector<std::string>{"created_at", "groups", "name", "role", "schema_version"}));
  EXPECT_EQ(answersStored(plain, "bob")["role"], "member");

  http::Response ci = asAdmin(line("POST /api/users/ci?service=1&role=publisher"));
  EXPECT_EQ(memberOrder(ci), (std::vector<std::string>{"channels", "created_at", "groups", "name",
                                                       "role", "schema_version", "service"}));
  EXPECT_EQ(answersStored(ci, "ci")["channels"], Json::Value(Json::arrayValue));

  // A trailing comma ends the list; profile text is cleaned and cut.
  Json::Value pub = change(
      "POST /api/users/pub?role=publisher&channels=b,a,&display_name="
      "Pub\tLisher\n&email=" +
          std::string(300, 'e'),
      "pub");
  EXPECT_EQ(pub["channels"], strings({"b", "a"}));
  EXPECT_EQ(pub["display_name"], "Pub Lisher ");
  EXPECT_EQ(pub["email"], std::string(256, 'e'));

  Json::Value blank = change("POST /api/users/bea?display_name=&email=", "bea");
  EXPECT_FALSE(blank.isMember("display_name"));
  EXPECT_FALSE(blank.isMember("email"));
}

TEST_F(UsersApiTest, AnUnreadableRecordIsNotFoundButStillTakesTheName) {
  writeText(userPath("broken"), "{\"name\": ");
  expectRefusals({
      {"DELETE /api/users/broken", 404, kNotFound},
      {"POST /api/users/broken/role?value=member", 404, kNotFound},
      {"POST /api/users/broken", 409, kExists},
  });
  EXPECT_EQ(readBytes(userPath("broken")), "{\"name\": ");
}

TEST_F(UsersApiTest, DeleteRemovesTheUserAndExactlyItsTokens) {
  admin();
  const std::string tokens[] = {seedUser("bob", "member"), mintFor("bob", "bob-2")};
  const std::string other = seedUser("eve", "member");
  writeText(tokenPath("junk"), "[\"bob\"]");  // a stray token file breaks nothing
  seedGroup("team");
  setMember(userPath("bob"), "groups", strings({"team"}));

  EXPECT_EQ(asAdmin(Req("DELETE", "/api/users/bob")).body,
            R"({"deleted":"bob","tokens_removed":2})");
  EXPECT_FALSE(fs::exists(userPath("bob")));
  for (const auto& token : tokens) EXPECT_EQ(as(token, Req("GET", "/api/me")).status, 401u);
  EXPECT_EQ(as(other, Req("GET", "/api/me")).status, 200u);
  EXPECT_TRUE(fs::exists(groupPath("team")));
  EXPECT_TRUE(isError(asAdmin(Req("DELETE", "/api/users/bob")), 404, kNotFound));
}

TEST_F(UsersApiTest, TheRecoveryAccountIsNeverDeletedDisabledOrDemoted) {
  // Checked before the last-admin rule, and holds beside other admins.
  for (int round = 0; round < 2; ++round) {
    expectRefusals({
        {"DELETE /api/users/admin", 409, recovery("deleted")},
        {"POST /api/users/admin/role?value=publisher", 409, recovery("demoted")},
        {"POST /api/users/admin/disabled?value=true", 409, recovery("disabled")},
    });
    seedUser("root" + std::to_string(round), "admin");
  }
  // Re-enabling it, and "demoting" it to admin, change nothing and are allowed.
  EXPECT_EQ(change("POST /api/users/admin/disabled?value=false", "admin")["disabled"], false);
  EXPECT_EQ(change("POST /api/users/admin/role?value=admin", "admin")["role"], "admin");
}

TEST_F(UsersApiTest, TheLastAdminStaysUntilAnotherExistsEvenADisabledOne) {
  const std::string root = seedUser("root", "admin");
  EXPECT_TRUE(
      isError(as(root, Req("DELETE", "/api/users/root")), 409, "cannot delete the last admin"));
  // Checked before the allow-list is looked at.
  for (const char* request : {"POST /api/users/root/role?value=member",
                              "POST /api/users/root/role?value=publisher&channels=nope"}) {
    EXPECT_TRUE(isError(as(root, line(request)), 409, "cannot demote the last admin")) << request;
  }
  seedUser("spare", "admin");
  setMember(userPath("spare"), "disabled", true);
  answersStored(as(root, line("POST /api/users/root/role?value=member")), "root");
  setMember(userPath("root"), "role", "admin");
  EXPECT_EQ(as(root, Req("DELETE", "/api/users/root")).body,
            R"({"deleted":"root","tokens_removed":1})");
}

TEST_F(UsersApiTest, RoleChecksInOrder) {
  writeChannel("beta");
  seedUser("bob", "member");
  seedUser("ci", "publisher", {}, true);
  expectRefusals({
      {"POST /api/users/con/role?value=nobody", 400, kInvalidUser},
      {"POST /api/users/ghost/role", 400, kBadValue},
      {"POST /api/users/ghost/role?value=member&channels=beta", 400, kChannelsForPublisher},
      {"POST /api/users/ghost/role?value=member", 404, kNotFound},
      {"POST /api/users/ci/role?value=admin", 400, kServicePublisher},
      {"POST /api/users/bob/role?value=publisher&channels=beta,,x", 400, kBadChannelList},
      {"POST /api/users/bob/role?value=publisher&channels=beta,nope", 404,
       "channel 'nope' does not exist"},
  });
  EXPECT_EQ(stored("bob")["role"], "member");
}

TEST_F(UsersApiTest, RoleChangesKeepEverythingButTheAllowList) {
  writeChannel("beta");
  writeChannel("stable");
  seedUser("pat", "publisher", {"beta"});
  setMember(userPath("pat"), "follows", strings({"stable"}));
  auto setRole = [&](const std::string& name, const std::string& query) {
    return change("POST /api/users/" + name + "/role?value=" + query, name);
  };
  EXPECT_EQ(setRole("pat", "publisher")["channels"], strings({"beta"}));
  EXPECT_EQ(setRole("pat", "publisher&channels=stable,")["channels"], strings({"stable"}));
  EXPECT_FALSE(setRole("pat", "member").isMember("channels"));
  Json::Value pat = setRole("pat", "publisher");
  EXPECT_EQ(pat["channels"], Json::Value(Json::arrayValue));
  EXPECT_EQ(pat["follows"], strings({"stable"}));

  // A list stored on another role (given at creation) is kept on becoming publisher.
  seedUser("mo", "member", {"beta"});
  EXPECT_EQ(setRole("mo", "publisher")["channels"], strings({"beta"}));
  seedUser("ci", "publisher", {}, true);
  EXPECT_EQ(setRole("ci", "publisher&channels=beta")["service"], true);
}

TEST_F(UsersApiTest, GroupsAndFollowsCheckInOrderAndAreIdempotent) {
  seedUser("bob", "member");
  seedGroup("team");
  writeChannel("beta");
  const char* badGroup = "missing or invalid ?group= parameter";
  const char* badChannel = "missing or invalid ?channel= parameter";
  expectRefusals({
      {"POST /api/users/con/groups", 400, kInvalidUser},
      {"POST /api/users/ghost/groups", 400, badGroup},
      {"POST /api/users/ghost/groups?group=nope", 404, kNotFound},
      {"POST /api/users/bob/groups?group=nope", 404, "group does not exist - create it first"},
      {"POST /api/users/ghost/channels?channel=", 400, badChannel},
      {"POST /api/users/ghost/channels?channel=nope", 404, kNotFound},
      {"POST /api/users/bob/channels?channel=nope", 404,
       "channel does not exist - create it first"},
  });
  EXPECT_EQ(stored("bob")["groups"], Json::Value(Json::arrayValue));
  // Unfollowing on a user without follows leaves an empty list.
  EXPECT_EQ(change("DELETE /api/users/bob/channels?channel=x", "bob")["follows"],
            Json::Value(Json::arrayValue));

  for (int i = 0; i < 2; ++i) {
    change("POST /api/users/bob/groups?group=team", "bob");
    change("POST /api/users/bob/channels?channel=beta", "bob");
  }
  EXPECT_EQ(stored("bob")["groups"], strings({"team"}));
  EXPECT_EQ(stored("bob")["follows"], strings({"beta"}));

  // Removal takes every occurrence and asks nothing about existence.
  setMember(userPath("bob"), "groups", strings({"team", "x", "team"}));
  EXPECT_EQ(change("DELETE /api/users/bob/groups?group=team", "bob")["groups"], strings({"x"}));
  EXPECT_EQ(change("DELETE /api/users/bob/groups?group=nope", "bob")["groups"], strings({"x"}));
  EXPECT_EQ(change("DELETE /api/users/bob/channels?channel=beta", "bob")["follows"],
            Json::Value(Json::arrayValue));
}

TEST_F(UsersApiTest, DisablingSuspendsTokensAndOnlyFalseReEnables) {
  const std::string token = seedUser("bob", "member");
  const std::string tokenBefore = readBytes(tokenPath("bob-token"));
  for (const char* request :
       {"POST /api/users/bob/disabled", "POST /api/users/bob/disabled?value=False"}) {
    EXPECT_EQ(change(request, "bob")["disabled"], true);
    EXPECT_EQ(as(token, Req("GET", "/api/me")).status, 401u);
    EXPECT_EQ(change("POST /api/users/bob/disabled?value=false", "bob")["disabled"], false);
    EXPECT_EQ(as(token, Req("GET", "/api/me")).status, 200u);
  }
  EXPECT_EQ(readBytes(tokenPath("bob-token")), tokenBefore);
}

TEST_F(UsersApiTest, ProfileAppliesOnlyThePresentParameters) {
  seedUser("bob", "member");
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/users/ghost/profile")), 404, kNotFound));
  Json::Value bob = change("POST /api/users/bob/profile?display_name=Bob\x01&email=a@x", "bob");
  EXPECT_EQ(bob["display_name"], "Bob ");
  bob = change("POST /api/users/bob/profile?email=new@x", "bob");
  EXPECT_EQ(bob["display_name"], "Bob ");
  EXPECT_EQ(bob["email"], "new@x");
  // An empty value is stored as the empty string.
  EXPECT_EQ(change("POST /api/users/bob/profile?display_name=", "bob")["display_name"], "");
}

TEST_F(UsersApiTest, WriteFailuresAreReportedExceptOnCreation) {
  admin();
  writeChannel("beta");
  seedGroup("team");
  seedUser("bob", "member");
  const Json::Value before = stored("bob");
  if (!blockWrites(userPath("bob"))) GTEST_SKIP() << "no immutable files here";
  const char* failed = "could not update user";
  expectRefusals({
      {"POST /api/users/bob/groups?group=team", 500, failed},
      {"POST /api/users/bob/channels?channel=beta", 500, failed},
      {"POST /api/users/bob/disabled", 500, failed},
      {"POST /api/users/bob/role?value=publisher", 500, failed},
      {"POST /api/users/bob/profile?email=b@x", 500, failed},
  });
  EXPECT_EQ(stored("bob"), before);

  // Creation answers the record even though it could not be stored.
  if (!blockWrites(userPath("zed"))) GTEST_SKIP() << "no immutable files here";
  http::Response created = asAdmin(line("POST /api/users/zed?role=publisher"));
  ASSERT_EQ(created.status, 200u) << created.body;
  EXPECT_EQ(bodyOf(created)["name"], "zed");
  EXPECT_FALSE(fs::exists(userPath("zed")));
}

}  // namespace
}  // namespace quill::test
