// Access requests through the route table and the gate: submission with its checks and the cap of
// pending requests, the admin-only list, approval into an invite, and declining.

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <map>

#include "http/json.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

class AccessRequestsApi : public ApiTest {
 protected:
  using Params = std::vector<std::pair<std::string, std::string>>;

  static std::string body(const std::string& name, const std::string& email,
                          const std::string& message = "") {
    Json::Value doc(Json::objectValue);
    doc["name"] = name;
    doc["email"] = email;
    if (!message.empty()) doc["message"] = message;
    return http::toCompactJson(doc);
  }

  http::Response submit(const std::string& json, const std::string& peer = "") {
    return send(Req("POST", "/api/access-requests").from(peer.empty() ? freshPeer() : peer).body(json));
  }

  // Submits a request and answers its id.
  std::string pending(const std::string& name, const std::string& email) {
    const auto before = ids();
    auto res = submit(body(name, email));
    EXPECT_EQ(res.status, 200u) << res.body;
    for (const auto& id : ids()) {
      if (std::find(before.begin(), before.end(), id) == before.end()) return id;
    }
    ADD_FAILURE() << "no request filed for " << name;
    return "";
  }

  std::vector<std::string> ids() const {
    std::vector<std::string> found;
    std::error_code ec;
    if (!fs::exists(data().accessRequests(), ec)) return found;
    for (const auto& entry : fs::directory_iterator(data().accessRequests())) {
      found.push_back(entry.path().stem().string());
    }
    return found;
  }

  fs::path requestPath(const std::string& id) const {
    return store::DataDir::recordPath(data().accessRequests(), id);
  }

  http::Response approve(const std::string& id, const Params& params = {}) {
    Req req("POST", "/api/access-requests/" + id + "/approve");
    req.bearer(admin());
    for (const auto& [name, value] : params) req.q(name, value);
    return send(req);
  }
};

TEST_F(AccessRequestsApi, SubmitStoresTheRequestWithProfileTextRules) {
  auto res = submit(body("newbie", "newbie@example.com", "let me\tin\nplease"));
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(res.body, R"({"accepted":true})");

  auto found = ids();
  ASSERT_EQ(found.size(), 1u);
  Json::Value record = readDoc(requestPath(found[0]));
  EXPECT_TRUE(isRandomText(record["id"], 8));
  EXPECT_TRUE(isUtcStamp(record["created_at"]));
  record.removeMember("created_at");
  EXPECT_EQ(http::toCompactJson(record),
            R"({"email":"newbie@example.com","id":")" + found[0] +
                R"(","message":"let me in please","name":"newbie","schema_version":1})");

  // No message is an empty message; a long one is cut to 256 bytes.
  const std::string quiet = pending("quiet", "q@example.com");
  EXPECT_EQ(readDoc(requestPath(quiet))["message"], Json::Value(""));
  ASSERT_EQ(submit(body("chatty", "c@example.com", std::string(300, 'm'))).status, 200u);
  for (const auto& id : ids()) {
    Json::Value r = readDoc(requestPath(id));
    if (r["name"].asString() == "chatty") {
      EXPECT_EQ(r["message"].asString(), std::string(256, 'm'));
    }
  }
  // A name of 128 characters is still a name.
  EXPECT_EQ(submit(body(std::string(128, 'n'), "n@example.com")).status, 200u);
}

TEST_F(AccessRequestsApi, SubmitRefusesBadBodiesNamesAndAddressesWritingNothing) {
  for (const char* bad : {"", "not json", "[1,2]", "\"name\"", "42", "null"}) {
    EXPECT_TRUE(isError(submit(bad), 400, "JSON body required")) << bad;
  }
  const std::string badName = "missing or invalid name";
  EXPECT_TRUE(isError(submit(R"({"email":"a@example.com"})"), 400, badName));
  EXPECT_TRUE(isError(submit(R"({"name":42,"email":"a@example.com"})"), 400, badName));
  for (const std::string& name : {std::string(""), std::string(129, 'n'), std::string(".."),
                                  std::string("con"), std::string("Aux.txt"),
                                  std::string("a..b"), std::string("x..")}) {
    EXPECT_TRUE(isError(submit(body(name, "a@example.com")), 400, badName)) << name;
  }
  // The name is checked before the address.
  EXPECT_TRUE(isError(submit(body("", "bad")), 400, badName));

  const std::string badEmail = "a valid email address is required";
  EXPECT_TRUE(isError(submit(R"({"name":"ann"})"), 400, badEmail));
  for (const char* email : {"", "@example.com", "ann@example", "ann.x@example", "ann @example.com",
                            "ann@example.com ", "annexample.com"}) {
    EXPECT_TRUE(isError(submit(body("ann", email)), 400, badEmail)) << email;
  }
  EXPECT_TRUE(ids().empty());
  EXPECT_EQ(submit(body("ann", "a@b.c")).status, 200u);
}

TEST_F(AccessRequestsApi, FiftyPendingRequestsCloseTheDoorAndEveryAttemptIsStillCharged) {
  for (int i = 0; i < 50; ++i) {
    Json::Value record(Json::objectValue);
    const std::string id = "req" + std::to_string(10000 + i);
    record["schema_version"] = 1;
    record["id"] = id;
    record["name"] = "person" + std::to_string(i);
    record["email"] = "p@example.com";
    record["message"] = "";
    record["created_at"] = "2026-01-01T00:00:00Z";
    writeDoc(requestPath(id), record);
  }
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(isError(submit(body("late", "late@example.com"), "10.0.0.8"), 429,
                        "too many pending requests - try again later"))
        << i;
  }
  auto res = submit(body("late", "late@example.com"), "10.0.0.8");
  EXPECT_TRUE(isError(res, 429, "too many requests - slow down and retry later"));
  EXPECT_FALSE(headerOf(res, "Retry-After").empty());
  EXPECT_EQ(ids().size(), 50u);

  // Declining one opens a place again.
  ASSERT_EQ(send(Req("DELETE", "/api/access-requests/req10000").bearer(admin())).status,
            200u);
  EXPECT_EQ(submit(body("late", "late@example.com")).status, 200u);
  EXPECT_TRUE(isError(submit(body("later", "later@example.com")), 429,
                      "too many pending requests - try again later"));
}

TEST_F(AccessRequestsApi, ListIsForAdminsAndTellsWhetherTheUserExists) {
  seedUser("known", "member");
  const std::string forKnown = pending("known", "k@example.com");
  const std::string forNew = pending("fresh", "f@example.com");
  std::ofstream(requestPath("broken")) << "{";

  auto res = send(Req("GET", "/api/access-requests").bearer(admin()));
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"requests", "schema_version"}));
  Json::Value doc = bodyOf(res);
  ASSERT_EQ(doc["requests"].size(), 2u);
  std::map<std::string, Json::Value> byId;
  for (const auto& item : doc["requests"]) byId[item["id"].asString()] = item;
  ASSERT_EQ(byId.count(forKnown), 1u);
  ASSERT_EQ(byId.count(forNew), 1u);
  auto names = byId[forKnown].getMemberNames();
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"created_at", "email", "id", "message", "name",
                                             "user_exists"}));
  EXPECT_EQ(byId[forKnown]["user_exists"], Json::Value(true));
  EXPECT_EQ(byId[forKnown]["email"].asString(), "k@example.com");
  EXPECT_EQ(byId[forKnown]["created_at"], readDoc(requestPath(forKnown))["created_at"]);
  EXPECT_EQ(byId[forNew]["user_exists"], Json::Value(false));
  EXPECT_EQ(byId[forNew]["name"].asString(), "fresh");
  EXPECT_EQ(byId[forNew]["message"].asString(), "");
}

TEST_F(AccessRequestsApi, ApproveTurnsTheRequestIntoAnInviteCarryingTheAddress) {
  const std::string id = pending("newbie", "newbie@example.com");
  const std::int64_t before = std::time(nullptr);
  auto res = approve(id);
  const std::int64_t after = std::time(nullptr);
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"code", "email", "expires_at", "groups",
                                                        "id", "schema_version", "user"}));
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(doc["email"].asString(), "newbie@example.com");
  EXPECT_EQ(doc["user"].asString(), "newbie");
  EXPECT_EQ(doc["groups"], Json::Value(Json::arrayValue));
  EXPECT_TRUE(isRandomText(doc["code"], 24));
  EXPECT_FALSE(fs::exists(requestPath(id)));

  Json::Value invite = readDoc(invitePath(doc["code"].asString()));
  EXPECT_EQ(invite["email"].asString(), "newbie@example.com");
  EXPECT_FALSE(invite.isMember("display_name"));
  EXPECT_EQ(invite["id"], doc["id"]);
  EXPECT_GE(invite["expires_epoch"].asInt64(), before + 7 * 86400);
  EXPECT_LE(invite["expires_epoch"].asInt64(), after + 7 * 86400);

  auto redeemed = redeem(doc["code"].asString(), "desk");
  ASSERT_EQ(redeemed.status, 200u) << redeemed.body;
  EXPECT_EQ(readDoc(userPath("newbie"))["email"].asString(), "newbie@example.com");
  EXPECT_EQ(readDoc(userPath("newbie"))["role"].asString(), "member");

  EXPECT_TRUE(isError(approve(id), 404, "no such request"));
}

TEST_F(AccessRequestsApi, ApproveTakesGroupsAndDaysAndWorksForAnExistingUser) {
  seedGroup("testers", {"beta"});
  seedUser("known", "publisher", {"stable"});
  const std::string userBefore = readDoc(userPath("known")).toStyledString();
  const std::string id = pending("known", "k@example.com");

  auto res = approve(id, {{"groups", "testers"}, {"days", "30"}});
  ASSERT_EQ(res.status, 200u) << res.body;
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(doc["user"].asString(), "known");
  EXPECT_EQ(doc["groups"], strings({"testers"}));
  Json::Value invite = readDoc(invitePath(doc["code"].asString()));
  EXPECT_LE(invite["expires_epoch"].asInt64(), std::time(nullptr) + 30 * 86400);
  EXPECT_GT(invite["expires_epoch"].asInt64(), std::time(nullptr) + 29 * 86400);
  EXPECT_EQ(readDoc(userPath("known")).toStyledString(), userBefore);
}

TEST_F(AccessRequestsApi, RefusedApprovalsKeepTheRequestAndWriteNoInvite) {
  seedGroup("testers");
  const std::string id = pending("newbie", "newbie@example.com");

  EXPECT_TRUE(
      isError(approve(id, {{"groups", "bad name"}}), 400, "invalid group name in ?groups="));
  EXPECT_TRUE(
      isError(approve(id, {{"groups", "testers,ghost"}}), 404, "group 'ghost' does not exist"));
  for (const char* days : {"0", "3651", "x"}) {
    EXPECT_TRUE(isError(approve(id, {{"days", days}}), 400, "days must be 1..3650")) << days;
  }
  EXPECT_TRUE(isError(approve("nosuch"), 404, "no such request"));
  EXPECT_TRUE(isError(approve("con"), 404, "no such request"));
  EXPECT_TRUE(fs::exists(requestPath(id)));
  EXPECT_EQ(filesIn(data().invites()), 0u);

  EXPECT_EQ(approve(id, {{"days", "3650"}}).status, 200u);
}

TEST_F(AccessRequestsApi, DeclineRemovesTheRequest) {
  const std::string id = pending("newbie", "newbie@example.com");
  const std::string other = pending("other", "o@example.com");

  auto res = send(Req("DELETE", "/api/access-requests/" + id).bearer(admin()));
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(res.body, R"({"declined":")" + id + R"("})");
  EXPECT_FALSE(fs::exists(requestPath(id)));
  EXPECT_TRUE(fs::exists(requestPath(other)));
  EXPECT_EQ(filesIn(data().invites()), 0u);

  EXPECT_TRUE(isError(send(Req("DELETE", "/api/access-requests/" + id).bearer(admin())),
                      404, "no such request"));
  EXPECT_TRUE(isError(send(Req("DELETE", "/api/access-requests/con").bearer(admin())), 404,
                      "no such request"));
}

}  // namespace
}  // namespace quill::test
