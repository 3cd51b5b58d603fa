// The first-admin claim through the route table and the gate: its state document, the checks in
// order (enabled, no admin yet, the exact PIN), the admin account and its machine-named token, and
// the credential budget that bounds PIN guessing.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "store/tokens.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

class ClaimApi : public ApiTest {
 protected:
  void open(const std::string& pin) {
    ctx().settings.claimable = true;
    ctx().settings.claimPin = pin;
  }

  http::Response claim(const char* pin, const char* machine = nullptr, std::string peer = "") {
    Req req("POST", "/api/claim");
    req.from(peer.empty() ? freshPeer() : peer);
    if (pin) req.q("pin", pin);
    if (machine) req.q("machine", machine);
    return send(req);
  }

  std::string state() { return send(Req("GET", "/api/claim").from(freshPeer())).body; }

  // A refused claim leaves no user and no token behind.
  void expectNothingWritten() {
    EXPECT_EQ(filesIn(data().users()), 0u);
    EXPECT_EQ(filesIn(data().tokens()), 0u);
  }
};

TEST_F(ClaimApi, OnlyTheExactPinOfAnEnabledClaimIsAccepted) {
  EXPECT_EQ(state(), R"({"claimable":false,"claimed":false,"schema_version":1})");
  EXPECT_TRUE(isError(claim("1234"), 404, "claiming is not enabled"));
  ctx().settings.claimPin = "1234";  // a PIN alone opens nothing
  EXPECT_TRUE(isError(claim("1234"), 404, "claiming is not enabled"));

  open("");  // claimable without a PIN can never succeed
  EXPECT_EQ(state(), R"({"claimable":true,"claimed":false,"schema_version":1})");
  for (const char* pin : {static_cast<const char*>(nullptr), "", "1234"}) {
    EXPECT_TRUE(isError(claim(pin), 403, "invalid claim pin"));
  }
  open("1234");
  for (const char* pin : {static_cast<const char*>(nullptr), "", "123", "12345", "1234 ", " 1234"}) {
    EXPECT_TRUE(isError(claim(pin), 403, "invalid claim pin")) << (pin ? pin : "(absent)");
  }
  // A PIN with an embedded zero byte is compared by its length, not as a C string.
  open(std::string("12\0" "34", 5));
  EXPECT_TRUE(isError(claim("12"), 403, "invalid claim pin"));
  expectNothingWritten();
}

TEST_F(ClaimApi, TheRightPinMakesTheAdminAndAnAdminDeviceTokenAndThenCloses) {
  open("1234");
  auto res = claim("1234");
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"role", "schema_version", "token", "token_name", "user"}));
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(doc["token_name"].asString(), "admin-device");
  EXPECT_EQ(doc["user"].asString(), "admin");
  EXPECT_EQ(doc["role"].asString(), "admin");
  EXPECT_EQ(doc["schema_version"].asInt(), 1);
  ASSERT_TRUE(isRandomText(doc["token"], 48));

  Json::Value user = readDoc(userPath("admin"));
  EXPECT_EQ(user["role"].asString(), "admin");
  EXPECT_EQ(user["groups"], Json::Value(Json::arrayValue));
  EXPECT_FALSE(user.isMember("channels"));
  EXPECT_FALSE(user.isMember("email"));
  EXPECT_FALSE(user.isMember("display_name"));
  EXPECT_EQ(readDoc(tokenPath("admin-device"))["token_hash"].asString(),
            store::hashToken(doc["token"].asString()));

  // The token is an admin's: it may write.
  auto made = send(Req("POST", "/api/groups/crew").bearer(doc["token"].asString()));
  EXPECT_EQ(made.status, 200u) << made.body;

  EXPECT_EQ(state(), R"({"claimable":true,"claimed":true,"schema_version":1})");
  EXPECT_TRUE(isError(claim("1234"), 409, "already set up - an admin exists"));
  // An admin existing is checked before the PIN.
  EXPECT_TRUE(isError(claim("0000"), 409, "already set up - an admin exists"));
  EXPECT_EQ(filesIn(data().tokens()), 1u);
  // ... and after whether claiming is enabled at all.
  ctx().settings.claimable = false;
  EXPECT_TRUE(isError(claim("1234"), 404, "claiming is not enabled"));
  EXPECT_EQ(state(), R"({"claimable":false,"claimed":true,"schema_version":1})");
}

TEST_F(ClaimApi, AnyAdminClosesTheClaimButUnreadableRecordsDoNot) {
  open("1234");
  std::ofstream(userPath("ghost")) << R"({"name":"ghost","role":"admin")";
  EXPECT_EQ(state(), R"({"claimable":true,"claimed":false,"schema_version":1})");

  seedUser("boss", "admin");
  setMember(userPath("boss"), "disabled", true);  // disabled admins count too
  EXPECT_EQ(state(), R"({"claimable":true,"claimed":true,"schema_version":1})");
  EXPECT_TRUE(isError(claim("1234"), 409, "already set up - an admin exists"));
  EXPECT_FALSE(fs::exists(userPath("admin")));
}

TEST_F(ClaimApi, TokenNameFollowsTheMachineAndAvoidsTakenNames) {
  open("1234");
  // A token of the plain name exists already (from some earlier set-up).
  ASSERT_FALSE(store::mintToken(data(), "admin-MyBox", "someone").empty());
  auto res = claim("1234", "My Box!");
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_TRUE(std::regex_match(bodyOf(res)["token_name"].asString(),
                               std::regex("admin-MyBox-[A-Za-z0-9]{4}")))
      << res.body;
}

TEST_F(ClaimApi, TheSixthAttemptFromOneAddressIsRefusedBeforeThePinIsExamined) {
  open("1234");
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(isError(claim("0000", nullptr, "10.0.0.7"), 403, "invalid claim pin")) << i;
  }
  auto res = claim("1234", nullptr, "10.0.0.7");
  EXPECT_TRUE(isError(res, 429, "too many requests - slow down and retry later"));
  EXPECT_FALSE(headerOf(res, "Retry-After").empty());
  expectNothingWritten();

  EXPECT_EQ(claim("1234", "box", "10.0.0.9").status, 200u);
}

}  // namespace
}  // namespace quill::test
