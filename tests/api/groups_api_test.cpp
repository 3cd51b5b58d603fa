#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "api/groups.h"
#include "http/json.h"
#include "store/groups.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

constexpr const char* kInvalidGroup = "invalid group name";
constexpr const char* kNotFound = "group not found";
constexpr const char* kBadChannelParam = "missing or invalid ?channel= parameter";
constexpr const char* kNoChannel = "channel does not exist - create it first";

class GroupsApiTest : public ApiTest {
 protected:
  void joinGroups(const std::string& user, const Json::Value& groups) {
    setMember(userPath(user), "groups", groups);
  }
};

TEST_F(GroupsApiTest, ListShowsChannelsAndComputedMembers) {
  const std::string member = seedUser("mia", "member");
  seedUser("bob", "member");
  seedUser("pete", "publisher");
  seedGroup("team", {"beta", "stable"});
  seedGroup("empty");
  Json::Value managed = store::newGroupRecord("managed");
  managed["sso_managed"] = true;
  ASSERT_TRUE(store::saveGroup(data(), managed));
  writeText(groupPath("junk"), "\"not a record\"");
  joinGroups("mia", strings({"team", "managed"}));
  joinGroups("pete", strings({"team"}));

  http::Response res = send(Req("GET", "/api/groups").bearer(member));
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"groups", "schema_version"}));
  std::map<std::string, std::string> byName;
  const Json::Value groups = bodyOf(res)["groups"];
  for (const auto& entry : groups) {
    Json::Value sorted = entry;
    if (entry["members"] == strings({"pete", "mia"})) {
      sorted["members"] = strings({"mia", "pete"});  // members come in directory order
    }
    byName[entry["name"].asString()] = http::toCompactJson(sorted);
  }
  EXPECT_EQ(
      byName,
      (std::map<std::string, std::string>{
          {"empty", R"({"channels":[],"members":[],"name":"empty","sso_managed":false})"},
          {"managed", R"({"channels":[],"members":["mia"],"name":"managed","sso_managed":true})"},
          {"team", R"({"channels":["beta","stable"],"members":["mia","pete"],)"
                   R"("name":"team","sso_managed":false})"}}));
}

TEST_F(GroupsApiTest, CreateAnswersTheNewRecord) {
  for (const char* bad : {"con", "a%2Fb"}) {
    EXPECT_TRUE(
        isError(asAdmin(Req("POST", std::string("/api/groups/") + bad)), 400, kInvalidGroup));
  }

  http::Response res = asAdmin(Req("POST", "/api/groups/team"));
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"channels", "created_at", "name", "schema_version"}));
  EXPECT_EQ(bodyOf(res), readDoc(groupPath("team")));
  EXPECT_EQ(bodyOf(res)["channels"], Json::Value(Json::arrayValue));
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/groups/team")), 409, "group already exists"));

  // Any file under the name counts as existing.
  writeText(groupPath("broken"), "{");
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/groups/broken")), 409, "group already exists"));
}

TEST_F(GroupsApiTest, DeleteDropsTheGroupFromEveryUser) {
  admin();
  for (const char* name : {"u1", "u2", "u3", "u4"}) seedUser(name, "member");
  seedGroup("team");
  seedGroup("other");
  joinGroups("u1", strings({"team"}));
  joinGroups("u2", strings({"other", "team", "team"}));
  joinGroups("u3", strings({"team", "other"}));
  joinGroups("u4", strings({"other"}));

  EXPECT_EQ(asAdmin(Req("DELETE", "/api/groups/con")).status, 400u);

  http::Response res = asAdmin(Req("DELETE", "/api/groups/team"));
  EXPECT_EQ(res.status, 200u);
  EXPECT_EQ(res.body, R"({"deleted":"team","removed_from_users":3})");
  EXPECT_FALSE(fs::exists(groupPath("team")));
  EXPECT_EQ(readDoc(userPath("u1"))["groups"], Json::Value(Json::arrayValue));
  for (const char* user : {"u2", "u3", "u4"}) {
    EXPECT_EQ(readDoc(userPath(user))["groups"], strings({"other"})) << user;
  }
  EXPECT_TRUE(isError(asAdmin(Req("DELETE", "/api/groups/team")), 404, kNotFound));

  EXPECT_EQ(asAdmin(Req("DELETE", "/api/groups/other")).body,
            R"({"deleted":"other","removed_from_users":3})");
}

TEST_F(GroupsApiTest, ChannelAssignmentChecksAndIsIdempotent) {
  seedGroup("team");
  writeChannel("beta");

  EXPECT_EQ(asAdmin(Req("POST", "/api/groups/con/channels").q("channel", "beta")).status, 400u);
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/groups/nope/channels")), 400, kBadChannelParam));
  EXPECT_TRUE(isError(asAdmin(Req("DELETE", "/api/groups/nope/channels").q("channel", "a b")), 400,
                      kBadChannelParam));
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/groups/nope/channels").q("channel", "missing")),
                      404, kNotFound));
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/groups/team/channels").q("channel", "missing")),
                      404, kNoChannel));

  for (int i = 0; i < 2; ++i) {
    http::Response res = asAdmin(Req("POST", "/api/groups/team/channels").q("channel", "beta"));
    ASSERT_EQ(res.status, 200u) << res.body;
    EXPECT_EQ(bodyOf(res), readDoc(groupPath("team")));
  }
  EXPECT_EQ(readDoc(groupPath("team"))["channels"], strings({"beta"}));

  // Unassigning needs no existing channel and succeeds with nothing to remove.
  const Json::Value before = readDoc(groupPath("team"));
  http::Response unchanged = asAdmin(Req("DELETE", "/api/groups/team/channels").q("channel", "x"));
  ASSERT_EQ(unchanged.status, 200u);
  EXPECT_EQ(bodyOf(unchanged), before);

  seedGroup("dups", {"beta", "x", "beta"});
  http::Response removed = asAdmin(Req("DELETE", "/api/groups/dups/channels").q("channel", "beta"));
  ASSERT_EQ(removed.status, 200u);
  EXPECT_EQ(bodyOf(removed)["channels"], strings({"x"}));
}

TEST_F(GroupsApiTest, WriteFailures) {
  admin();
  writeChannel("beta");
  seedGroup("team");
  if (!blockWrites(groupPath("team"))) GTEST_SKIP() << "no immutable files here";
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/groups/team/channels").q("channel", "beta")), 500,
                      "could not update group"));
  EXPECT_TRUE(isError(asAdmin(Req("DELETE", "/api/groups/team/channels").q("channel", "beta")), 500,
                      "could not update group"));
  if (!blockWrites(groupPath("fresh"))) GTEST_SKIP() << "no immutable files here";
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/groups/fresh")), 500, "could not create group"));
  EXPECT_FALSE(fs::exists(groupPath("fresh")));

  // A member whose record cannot be rewritten still counts as removed.
  seedUser("u1", "member");
  seedUser("u2", "member");
  joinGroups("u1", strings({"team"}));
  joinGroups("u2", strings({"team"}));
  if (!blockWrites(userPath("u2"))) GTEST_SKIP() << "no immutable files here";
  EXPECT_EQ(asAdmin(Req("DELETE", "/api/groups/team")).body,
            R"({"deleted":"team","removed_from_users":2})");
  EXPECT_EQ(readDoc(userPath("u1"))["groups"], Json::Value(Json::arrayValue));
  EXPECT_EQ(readDoc(userPath("u2"))["groups"], strings({"team"}));
}

TEST_F(GroupsApiTest, MeTellsTheCallerWhoItIsAndWhatToFollow) {
  const std::string token = seedUser("mia", "publisher", {"zeta"});
  seedGroup("g1", {"a", "c"});
  seedGroup("g2", {"c", "d"});
  joinGroups("mia", strings({"g1", "deleted-by-hand", "g2"}));
  setMember(userPath("mia"), "follows", strings({"b", "a"}));

  http::Response res = send(Req("GET", "/api/me").bearer(token));
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"channels", "groups", "name", "role", "schema_version"}));
  EXPECT_EQ(res.body, R"({"channels":["b","a","c","d"],"groups":["g1","deleted-by-hand","g2"],)"
                      R"("name":"mia","role":"publisher","schema_version":1})");

  const std::string plain = seedUser("bob", "member");
  EXPECT_EQ(send(Req("GET", "/api/me").bearer(plain)).body,
            R"({"channels":[],"groups":[],"name":"bob","role":"member","schema_version":1})");
}

TEST_F(GroupsApiTest, MeResolvesTheCallerItselfGateOrNot) {
  const std::string token = seedUser("mia", "member");
  for (const Req& req : {Req("GET", "/api/me"), Req("GET", "/api/me").bearer(token + "x"),
                         Req("GET", "/api/me").header("authorization", "bearer " + token)}) {
    EXPECT_TRUE(isError(api::me(req.build(), ctx()), 401, "missing or invalid token"));
  }
  EXPECT_EQ(api::me(Req("GET", "/api/me").header("AUTHORIZATION", "Bearer " + token).build(), ctx())
                .status,
            200u);
}

}  // namespace
}  // namespace quill::test
