// Single sign-on with the real binary, a real OpenID provider (tests/sso-peers) and headless
// Chromium, all on 127.0.0.1: the browser walks the provider's development login and consent
// pages, and the desktop client redeems the handoff code it is sent.

#include "e2e/e2e_support.h"
#include "http/json.h"
#include "support/node_peer.h"

namespace quill::test {
namespace {

TEST(Sso, ABrowserSignsInAndTheClientGetsTheMappedRoleAndGroup) {
  const fs::path peers = fs::path(QUILL_SOURCE_DIR) / "tests" / "sso-peers";
  const fs::path chromium = programOnPath("chromium");
  if (chromium.empty()) GTEST_SKIP() << "chromium is not installed; the browser sign-in is skipped";
  Served s;
  const std::string accounts = (s.tmp.path() / "accounts.json").string();
  writeFile(accounts, R"({"ann":{"preferred_username":"Ann.Lee@example.com","roles":["dev"],)"
                      R"("groups":["qa-team"]}})");
  NodePeer provider(peers / "provider.mjs", {"--accounts", accounts});
  ASSERT_EQ(provider.failure(), "") << "run scripts/install-deps.sh";
  ASSERT_TRUE(s.up);
  for (const auto& [method, path, body] : std::vector<std::array<std::string, 3>>{
           {"PUT", "/api/sso/config",
            R"({"issuer":")" + provider.origin() +
                R"(/","client_id":"quill","client_secret":"quill-secret"})"},
           {"POST", "/api/groups/qa", ""},
           {"PUT", "/api/sso/mapping",
            R"({"roles":{"dev":"publisher"},"groups":{"qa-team":"qa"}})"}})
    ASSERT_EQ(s.admin(method, path, body).status, 200) << path;
  // The browser stops at the redirect to the client's port, where nothing listens.
  const auto run = runProcess(programOnPath("node"),
                              {peers / "browser.mjs", "--start", s.url("/api/sso/start?port=47811"),
                               "--client-port", "47811", "--login", "ann", "--chromium", chromium});
  std::smatch m;
  ASSERT_TRUE(std::regex_search(
      run.out, m,
      std::regex("handoff http://127\\.0\\.0\\.1:47811/\\?handoff=([A-Za-z0-9]{32})\n")))
      << run.out << run.err;
  const std::string code = R"({"code":")" + m.str(1) + "\"}";
  const Json::Value answer =
      parseJson(s.client.fetch("POST", s.url("/api/sso/handoff"), code).body);
  EXPECT_EQ(s.client.fetch("POST", s.url("/api/sso/handoff"), code).status, 404) << "used once";
  const std::string token = answer["token"].asString();
  const auto me = parseJson(s.client.fetch("GET", s.url("/api/me"), "", bearer(token)).body);
  EXPECT_EQ(answer["user"].asString() + " " + answer["role"].asString() + " " +
                http::toCompactJson(me["groups"]),
            R"(ann.lee publisher ["qa"])");
  // The server printed nothing beyond its banner: no secret, code or token.
  for (const std::string& secret : {std::string("quill-secret"), m.str(1), token})
    EXPECT_EQ(s.server->output().find(secret), std::string::npos) << secret;
}

}  // namespace
}  // namespace quill::test
