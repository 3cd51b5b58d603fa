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
    return send(
        Req("POST", "/api/access-requests").from(peer.empty() ? freshPeer() : peer).body(json));
  }

  // Submits a request and answers its id.
  std::string pending(const std::string& name, const std::string& email,
                      const std::string& message = "") {
    const auto before = ids();
    auto res = submit(body(name, email, message));
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
  const std::string chatty = pending("chatty", "c@example.com", std::string(300, 'm'));
  EXPECT_EQ(readDoc(requestPath(chatty))["message"].asString(), std::string(256, 'm'));
  // A name of 128 characters is still a name.
  EXPECT_EQ(submit(body(std::string(128, 'n'), "n@example.com")).status, 200u);
}

TEST_F(AccessRequestsApi, SubmitRefusesBadBodiesNamesAndAddressesWritingNothing) {
  for (const char* bad : {"", "not json", "[1,2]", "\"name\"", "42", "null"}) {
    EXPECT_TRUE(isError(submit(bad), 400, "JSON body required")) << bad;
  }
  const std::string deep = std::string(1001, '[') + std::string(1001, ']');
  EXPECT_TRUE(isError(submit(R"({"name":)" + deep + "}"), 400, "JSON body required"));
  const std::string badName = "missing or invalid name";
  EXPECT_TRUE(isError(submit(R"({"email":"a@example.com"})"), 400, badName));
  EXPECT_TRUE(isError(submit(R"({"name":42,"email":"a@example.com"})"), 400, badName));
  for (const std::string& name :
       {std::string(""), std::string(129, 'n'), std::string(".."), std::string("con"),
        std::string("Aux.txt"), std::string("a..b"), std::string("x..")}) {
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
    const std::string id = "req" + std::to_string(10000 + i);
    writeDoc(requestPath(id), parseJson(R"({"schema_version":1,"id":")" + id +
                                        R"(","name":"person)" + std::to_string(i) +
                                        R"(","email":"p@example.com","message":"",)"
                                        R"("created_at":"2026-01-01T00:00:00Z"})"));
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
  ASSERT_EQ(send(Req("DELETE", "/api/access-requests/req10000").bearer(admin())).status, 200u);
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
  // Each entry is the stored record less its schema version, plus whether the user exists.
  for (const auto& [id, exists] : {std::pair{forKnown, true}, std::pair{forNew, false}}) {
    Json::Value expected = readDoc(requestPath(id));
    expected.removeMember("schema_version");
    expected["user_exists"] = exists;
    EXPECT_EQ(byId[id], expected);
  }
}

TEST_F(AccessRequestsApi, ApproveTurnsTheRequestIntoAnInviteCarryingTheAddress) {
  const std::string id = pending("newbie", "newbie@example.com");
  auto res = approve(id);
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"code", "email", "expires_at", "groups",
                                                        "id", "schema_version", "user"}));
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(doc["email"].asString(), "newbie@example.com");
  EXPECT_EQ(doc["user"].asString(), "newbie");
  EXPECT_EQ(doc["groups"], Json::Value(Json::arrayValue));
  EXPECT_FALSE(fs::exists(requestPath(id)));
  Json::Value invite = readDoc(invitePath(doc["code"].asString()));
  EXPECT_EQ(invite["id"], doc["id"]);
  EXPECT_FALSE(invite.isMember("display_name"));

  ASSERT_EQ(redeem(doc["code"].asString(), "desk").status, 200u);
  EXPECT_EQ(readDoc(userPath("newbie"))["email"].asString(), "newbie@example.com");
  EXPECT_EQ(readDoc(userPath("newbie"))["role"].asString(), "member");
}

TEST_F(AccessRequestsApi, ApproveTakesGroupsAndDaysAndLeavesAnExistingUserAlone) {
  seedGroup("testers", {"beta"});
  seedUser("known", "publisher", {"stable"});
  const std::string userBefore = readBytes(userPath("known"));
  const std::string id = pending("known", "k@example.com");

  // A refused approval keeps the request and writes no invite (the messages are the mint's own).
  EXPECT_EQ(approve(id, {{"groups", "testers,ghost"}}).status, 404u);
  EXPECT_EQ(approve(id, {{"days", "3651"}}).status, 400u);
  EXPECT_EQ(filesIn(data().invites()), 0u);

  auto res = approve(id, {{"groups", "testers"}, {"days", "30"}});
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(bodyOf(res)["groups"], strings({"testers"}));
  const auto expires = readDoc(invitePath(bodyOf(res)["code"].asString()))["expires_epoch"];
  EXPECT_LE(expires.asInt64(), std::time(nullptr) + 30 * 86400);
  EXPECT_GT(expires.asInt64(), std::time(nullptr) + 29 * 86400);
  EXPECT_EQ(readBytes(userPath("known")), userBefore);
}

TEST_F(AccessRequestsApi, DeclineRemovesOnlyThatRequestAndEitherEndsIt) {
  const std::string id = pending("newbie", "newbie@example.com");
  const std::string other = pending("other", "o@example.com");
  const std::string approved = pending("third", "t@example.com");
  ASSERT_EQ(approve(approved).status, 200u);

  auto res = send(Req("DELETE", "/api/access-requests/" + id).bearer(admin()));
  EXPECT_EQ(res.body, R"({"declined":")" + id + R"("})");
  EXPECT_FALSE(fs::exists(requestPath(id)));
  EXPECT_TRUE(fs::exists(requestPath(other)));
  EXPECT_EQ(filesIn(data().invites()), 1u);

  for (const Req& gone : {Req("DELETE", "/api/access-requests/" + id),
                          Req("POST", "/api/access-requests/" + approved + "/approve"),
                          Req("DELETE", "/api/access-requests/con"),
                          Req("POST", "/api/access-requests/nosuch/approve")}) {
    EXPECT_TRUE(isError(as(admin(), gone), 404, "no such request")) << gone.build().path;
  }
}

}  // namespace
}  // namespace quill::test
