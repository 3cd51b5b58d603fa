// Getting in, with the real binary on 127.0.0.1: the first-admin claim enabled on the command line,
// then the offline commands against the running server, taking effect at the next request.

#include <json/value.h>

#include "e2e/e2e_support.h"

namespace quill::test {
namespace {

// The secret an offline command printed (token or invite code); the command must have succeeded
// with nothing on standard error.
std::string secretFrom(const ProcessResult& r, const std::string& shape) {
  std::smatch m;
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");
  if (std::regex_match(r.out, m, std::regex(shape))) return m[1];
  ADD_FAILURE() << r.out;
  return "";
}

const std::string kTokenOutput =
    "Token 'laptop' created for user 'alice'\\. Save it now - it is shown only once:\n\n"
    "  ([A-Za-z0-9]{48})\n";

TEST(Onboarding, ClaimThenOfflineCommandsTakeEffectAtTheNextRequest) {
  TempDir tmp;
  const std::string dir = (tmp.path() / "data").string();
  ServerProcess server(kBinary, {"--data-dir", dir, "--claimable", "--claimpin", "1234"});
  ASSERT_TRUE(server.waitUntilListening());
  Client client;
  const auto me = [&](const std::string& token) {
    return client.fetch("GET", server.url("/api/me"), "", bearer(token));
  };
  const auto offline = [&](std::vector<std::string> words) {
    words.insert(words.end(), {"--data-dir", dir});
    return runProcess(kBinary, words);
  };
  EXPECT_EQ(client.fetch("GET", server.url("/api/claim")).body,
            R"({"claimable":true,"claimed":false,"schema_version":1})");
  EXPECT_EQ(client.fetch("POST", server.url("/api/claim?pin=9999&machine=box")).body,
            R"({"error":"invalid claim pin"})");
  auto claimed = client.fetch("POST", server.url("/api/claim?pin=1234&machine=box"));
  ASSERT_EQ(claimed.status, 200) << claimed.body;
  EXPECT_EQ(me(parseJson(claimed.body)["token"].asString()).body,
            R"({"channels":[],"groups":[],"name":"admin","role":"admin","schema_version":1})");
  EXPECT_EQ(client.fetch("POST", server.url("/api/claim?pin=1234&machine=box")).status, 409);

  EXPECT_EQ(me(std::string(48, 'Q')).status, 401);
  ASSERT_EQ(offline({"user", "create", "alice", "--role", "admin"}).exitCode, 0);
  const std::string token =
      secretFrom(offline({"token", "create", "laptop", "--user", "alice"}), kTokenOutput);
  EXPECT_EQ(me(token).body,
            R"({"channels":[],"groups":[],"name":"alice","role":"admin","schema_version":1})");

  // A negative --days is no --days: a seven-day invite, redeemable over HTTP.
  const std::string code = secretFrom(
      offline({"invite", "create", "alice", "--days", "-3"}),
      "Invite for user 'alice' created, valid until [0-9T:Z-]{20}\\. Single use, shown only "
      "once:\n\n  ([A-Za-z0-9]{24})\n");
  auto redeemed =
      client.fetch("POST", server.url("/api/invites/redeem?code=" + code + "&machine=phone"));
  EXPECT_EQ(parseJson(redeemed.body)["token_name"].asString(), "alice-phone") << redeemed.body;

  EXPECT_EQ(offline({"token", "delete", "laptop"}).exitCode, 0);
  EXPECT_EQ(me(token).body, R"({"error":"missing or invalid token"})");
  // The same name minted again at once: the new secret works, the old one stays dead.
  const std::string second =
      secretFrom(offline({"token", "create", "laptop", "--user", "alice"}), kTokenOutput);
  EXPECT_EQ(me(second).status, 200);
  EXPECT_EQ(me(token).status, 401);
}

}  // namespace
}  // namespace quill::test
