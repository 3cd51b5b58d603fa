// Service-account tokens minted over the API: the checks in order, a secret shown once and
// stored only as its hash.

#include <gtest/gtest.h>

#include <string>

#include "store/tokens.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

constexpr const char* kNotService =
    "tokens can only be minted for service accounts - people redeem an invite";
constexpr const char* kBadTokenName = "missing or invalid ?name= (token name)";

class ServiceTokensApiTest : public ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    seedUser("ci", "publisher", {"beta"}, true);
  }
  http::Response mint(const std::string& user, const char* tokenName) {
    Req req("POST", "/api/users/" + user + "/tokens");
    if (tokenName) req.q("name", tokenName);
    return send(req.bearer(admin()));
  }
  std::string meName(const std::string& token) {
    http::Response res = send(Req("GET", "/api/me").bearer(token));
    return res.status == 200 ? bodyOf(res)["name"].asString() : "";
  }
};

TEST_F(ServiceTokensApiTest, ChecksInOrder) {
  seedUser("bob", "member");
  EXPECT_TRUE(isError(mint("con", "t"), 400, "invalid user name"));
  EXPECT_TRUE(isError(mint("ghost", nullptr), 404, "user not found"));
  // People never get tokens here, administrators included; that is said before the name is read.
  EXPECT_TRUE(isError(mint("bob", nullptr), 400, kNotService));
  EXPECT_TRUE(isError(mint("admin", "t"), 400, kNotService));
  for (const char* name : {static_cast<const char*>(nullptr), "", "con", "a b", ".."}) {
    EXPECT_TRUE(isError(mint("ci", name), 400, kBadTokenName)) << (name ? name : "(absent)");
  }
  // Token names are unique server-wide, whoever owns the existing one.
  EXPECT_TRUE(isError(mint("ci", "bob-token"), 409, "token name already exists"));
  EXPECT_TRUE(isError(mint("ci", "ci-token"), 409, "token name already exists"));
  EXPECT_FALSE(fs::exists(tokenPath("t")));
}

TEST_F(ServiceTokensApiTest, TheTokenIsShownOnceAndAuthenticatesAsTheAccount) {
  http::Response res = mint("ci", "deploy");
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"name", "schema_version", "token", "user"}));
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(doc["schema_version"], 1);
  EXPECT_EQ(doc["user"], "ci");
  EXPECT_EQ(doc["name"], "deploy");
  ASSERT_TRUE(isRandomText(doc["token"], 48));
  const std::string token = doc["token"].asString();
  EXPECT_EQ(readBytes(tokenPath("deploy")).find(token), std::string::npos);
  Json::Value record = readDoc(tokenPath("deploy"));
  EXPECT_EQ(record["token_hash"], store::hashToken(token));
  EXPECT_EQ(record["user"], "ci");

  const std::string second = bodyOf(mint("ci", "deploy-2"))["token"].asString();
  EXPECT_NE(second, token);
  EXPECT_EQ(meName(token), "ci");
  EXPECT_EQ(meName(second), "ci");
  EXPECT_TRUE(isError(mint("ci", "deploy"), 409, "token name already exists"));
}

TEST_F(ServiceTokensApiTest, AnUnstorableTokenIsNotHandedOut) {
  admin();  // the caller's token first: the block covers the whole token directory
  if (!blockWrites(tokenPath("deploy"))) GTEST_SKIP() << "no immutable files here";
  EXPECT_TRUE(isError(mint("ci", "deploy"), 500, "could not store token"));
  EXPECT_FALSE(fs::exists(tokenPath("deploy")));
}

}  // namespace
}  // namespace quill::test
