// Getting in, with the real binary on 127.0.0.1: the offline commands against a running server,
// the first-admin claim, and a member onboarded by invite.

#include <gtest/gtest.h>
#include <json/value.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "e2e/e2e_support.h"
#include "support/http_client.h"
#include "support/temp_dir.h"

namespace quill::test {
namespace {

// The secret an offline command printed (token or invite code); the command must have succeeded
// with nothing on standard error.
std::string secretFrom(const ProcessResult& r, const std::regex& shape) {
  std::smatch m;
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");
  if (!std::regex_match(r.out, m, shape)) {
    ADD_FAILURE() << r.out;
    return "";
  }
  return m[1];
}

const std::regex kTokenOutput(
    "Token 'laptop' created for user 'alice'\\. Save it now - it is shown only once:\n\n"
    "  ([A-Za-z0-9]{48})\n");
const std::regex kInviteOutput(
    "Invite for user 'alice' created, valid until [0-9T:Z-]{20}\\. Single use, shown only "
    "once:\n\n  ([A-Za-z0-9]{24})\n");

void writeChannel(const std::filesystem::path& dataDir, const std::string& name) {
  std::filesystem::create_directories(dataDir / "channels");
  std::ofstream(dataDir / "channels" / (name + ".json"))
      << R"({"schema_version":1,"engine":"barge","build":"","created_at":"2026-01-01T00:00:00Z"})";
}

TEST(Onboarding, OfflineCommandsTakeEffectOnARunningServerAtTheNextRequest) {
  TempDir tmp;
  const std::string dir = (tmp.path() / "data").string();
  ServerProcess server(kBinary, {"--data-dir", dir});
  ASSERT_TRUE(server.waitUntilListening());
  Client client;
  const std::string unknown(48, 'Q');
  EXPECT_EQ(client.fetch("GET", server.url("/api/me"), "", bearer(unknown)).status, 401);

  ASSERT_EQ(runProcess(kBinary, {"user", "create", "alice", "--role", "admin", "--data-dir", dir})
                .exitCode,
            0);
  const std::string token = secretFrom(
      runProcess(kBinary, {"token", "create", "laptop", "--user", "alice", "--data-dir", dir}),
      kTokenOutput);
  ASSERT_FALSE(token.empty());

  auto me = client.fetch("GET", server.url("/api/me"), "", bearer(token));
  EXPECT_EQ(me.status, 200);
  EXPECT_EQ(me.body,
            R"({"channels":[],"groups":[],"name":"alice","role":"admin","schema_version":1})");

  // A negative --days is no --days: a seven-day invite, redeemable over HTTP.
  const std::string code = secretFrom(
      runProcess(kBinary, {"invite", "create", "alice", "--days", "-3", "--data-dir", dir}),
      kInviteOutput);
  ASSERT_FALSE(code.empty());
  auto redeemed =
      client.fetch("POST", server.url("/api/invites/redeem?code=" + code + "&machine=phone"));
  EXPECT_EQ(redeemed.status, 200) << redeemed.body;
  EXPECT_EQ(parseJson(redeemed.body)["token_name"].asString(), "alice-phone");

  EXPECT_EQ(runProcess(kBinary, {"token", "delete", "laptop", "--data-dir", dir}).exitCode, 0);
  me = client.fetch("GET", server.url("/api/me"), "", bearer(token));
  EXPECT_EQ(me.status, 401);
  EXPECT_EQ(me.body, R"({"error":"missing or invalid token"})");

  // The same name minted again at once: the new secret works, the old one stays dead.
  const std::string second = secretFrom(
      runProcess(kBinary, {"token", "create", "laptop", "--user", "alice", "--data-dir", dir}),
      kTokenOutput);
  EXPECT_EQ(client.fetch("GET", server.url("/api/me"), "", bearer(second)).status, 200);
  EXPECT_EQ(client.fetch("GET", server.url("/api/me"), "", bearer(token)).status, 401);
}

TEST(Onboarding, ClaimWithThePinGivesAWorkingAdminToken) {
  TempDir tmp;
  ServerProcess server(kBinary,
                       {"--data-dir", tmp.path().string(), "--claimable", "--claimpin", "1234"});
  ASSERT_TRUE(server.waitUntilListening());
  Client client;
  EXPECT_EQ(client.fetch("GET", server.url("/api/claim")).body,
            R"({"claimable":true,"claimed":false,"schema_version":1})");
  auto wrong = client.fetch("POST", server.url("/api/claim?pin=9999&machine=box"));
  EXPECT_EQ(wrong.status, 403);
  EXPECT_EQ(wrong.body, R"({"error":"invalid claim pin"})");

  auto claimed = client.fetch("POST", server.url("/api/claim?pin=1234&machine=box"));
  ASSERT_EQ(claimed.status, 200) << claimed.body;
  Json::Value doc = parseJson(claimed.body);
  EXPECT_EQ(doc["token_name"].asString(), "admin-box");
  EXPECT_EQ(doc["user"].asString(), "admin");
  EXPECT_EQ(doc["role"].asString(), "admin");

  auto me = client.fetch("GET", server.url("/api/me"), "", bearer(doc["token"].asString()));
  EXPECT_EQ(me.status, 200);
  EXPECT_EQ(me.body,
            R"({"channels":[],"groups":[],"name":"admin","role":"admin","schema_version":1})");
  EXPECT_EQ(client.fetch("GET", server.url("/api/claim")).body,
            R"({"claimable":true,"claimed":true,"schema_version":1})");
  auto late = client.fetch("POST", server.url("/api/claim?pin=1234&machine=box"));
  EXPECT_EQ(late.status, 409);
  EXPECT_EQ(late.body, R"({"error":"already set up - an admin exists"})");
}

TEST(Onboarding, AMemberInvitedWithGroupsGetsTheirChannels) {
  TempDir tmp;
  const std::filesystem::path dataDir = tmp.path() / "data";
  const std::string dir = dataDir.string();
  ASSERT_EQ(runProcess(kBinary, {"user", "create", "alice", "--role", "admin", "--data-dir", dir})
                .exitCode,
            0);
  const std::string admin = secretFrom(
      runProcess(kBinary, {"token", "create", "laptop", "--user", "alice", "--data-dir", dir}),
      kTokenOutput);
  writeChannel(dataDir, "stable");
  writeChannel(dataDir, "beta");
  ServerProcess server(kBinary, {"--data-dir", dir});
  ASSERT_TRUE(server.waitUntilListening());
  Client client;

  EXPECT_EQ(client.fetch("POST", server.url("/api/groups/testers"), "", bearer(admin)).status, 200);
  for (const char* channel : {"stable", "beta"}) {
    auto r = client.fetch(
        "POST", server.url(std::string("/api/groups/testers/channels?channel=") + channel), "",
        bearer(admin));
    EXPECT_EQ(r.status, 200) << r.body;
  }
  auto minted = client.fetch(
      "POST",
      server.url("/api/invites?user=carol&groups=testers&email=carol%40example.com&display_name="
                 "Carol%20C"),
      "", bearer(admin));
  ASSERT_EQ(minted.status, 200) << minted.body;
  const std::string code = parseJson(minted.body)["code"].asString();

  // The person redeems, naming their machine; no token is needed.
  auto redeemed = client.fetch(
      "POST", server.url("/api/invites/redeem?code=" + code + "&machine=Carol%27s%20PC"));
  ASSERT_EQ(redeemed.status, 200) << redeemed.body;
  Json::Value doc = parseJson(redeemed.body);
  EXPECT_EQ(doc["token_name"].asString(), "carol-CarolsPC");
  EXPECT_EQ(doc["user"].asString(), "carol");
  EXPECT_EQ(doc["role"].asString(), "member");
  EXPECT_EQ(doc["groups"], parseJson(R"(["testers"])"));
  EXPECT_EQ(doc["channels"], parseJson(R"(["stable","beta"])"));

  auto me = client.fetch("GET", server.url("/api/me"), "", bearer(doc["token"].asString()));
  EXPECT_EQ(me.status, 200);
  EXPECT_EQ(me.body, R"({"channels":["stable","beta"],"groups":["testers"],"name":"carol",)"
                     R"("role":"member","schema_version":1})");

  auto reused = client.fetch("POST", server.url("/api/invites/redeem?code=" + code));
  EXPECT_EQ(reused.status, 404);
  EXPECT_EQ(reused.body, R"({"error":"invalid or already used invite"})");
  auto overreach = client.fetch("POST", server.url("/api/invites?user=dave"), "",
                                bearer(doc["token"].asString()));
  EXPECT_EQ(overreach.status, 403);
}

}  // namespace
}  // namespace quill::test
