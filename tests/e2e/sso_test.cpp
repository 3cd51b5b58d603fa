// Single sign-on with the real binary and a real OpenID provider (tests/sso-peers), both on
// 127.0.0.1. The provider's development login and consent pages are walked with the curl program,
// and once in headless Chromium; the desktop client's side is the handoff code in the last URL.

#include "e2e/e2e_support.h"
#include "support/node_peer.h"

namespace quill::test {
namespace {

const fs::path kPeers = fs::path(QUILL_SOURCE_DIR) / "tests" / "sso-peers";

// Walks from `url` as a browser would (a cookie jar, redirects one hop at a time, the login and
// consent forms filled in for "ann") until the way leads to `client`: that URL, unvisited; or
// what the page where the way ended said.
std::string signIn(std::string url, const std::string& client) {
  const TempDir jar;
  const std::regex form(R"re(action="([^"]+)"[\s\S]*name="prompt" value="(\w+)")re");
  Args post;
  for (int hop = 0; hop < 25 && !url.starts_with(client); ++hop) {
    Args args{"-sS",
              "-b",
              jar.path() / "c",
              "-c",
              jar.path() / "c",
              "-w",
              "\n%{http_code} %{redirect_url}"};
    args.insert(args.end(), post.begin(), post.end());
    args.push_back(url);
    const std::string out = runProcess("/usr/bin/curl", args).out;
    const std::string last = out.substr(out.rfind('\n') + 1);
    std::smatch m;
    post.clear();
    if (last[0] == '3') {
      url = last.substr(4);
    } else if (last.starts_with("200") && std::regex_search(out, m, form)) {
      url = m[1];
      post = {"-d", m[2] == "login" ? "prompt=login&login=ann&password=any" : "prompt=consent"};
    } else {
      return out;
    }
  }
  return url;
}

TEST(Sso, TheClientSignsInWithTheMappedRoleAndGroupInCurlAndInChromium) {
  Served s;
  const std::string accounts = (s.tmp.path() / "accounts.json").string();
  writeFile(accounts, R"({"ann":{"preferred_username":"Ann.Lee@example.com","roles":["dev"],)"
                      R"("groups":["qa-team"]}})");
  NodePeer provider(kPeers / "provider.mjs", {"--accounts", accounts});
  ASSERT_EQ(provider.failure(), "") << "run scripts/install-deps.sh";
  ASSERT_TRUE(s.up);
  const auto config = s.admin("PUT", "/api/sso/config",
                              R"({"issuer":")" + provider.origin() +
                                  R"(/","client_id":"quill","client_secret":"quill-secret"})");
  ASSERT_EQ(config.status, 200) << config.body;
  ASSERT_EQ(s.admin("POST", "/api/groups/qa").status, 200);
  ASSERT_EQ(s.admin("PUT", "/api/sso/mapping",
                    R"({"roles":{"dev":"publisher"},"groups":{"qa-team":"qa"}})")
                .status,
            200);
  // Redeems the handoff code the client was sent, once.
  const auto redeem = [&](const std::string& clientUrl) {
    std::smatch m;
    EXPECT_TRUE(std::regex_search(clientUrl, m, std::regex("/\\?handoff=([A-Za-z0-9]{32})$")))
        << "the client was sent to " << clientUrl;
    const std::string body = R"({"code":")" + m.str(1) + "\"}";
    const auto res = s.client.fetch("POST", s.url("/api/sso/handoff"), body);
    EXPECT_EQ(s.client.fetch("POST", s.url("/api/sso/handoff"), body).status, 404);
    return parseJson(res.body);
  };
  const std::string client = "http://127.0.0.1:" + std::to_string(freePort());
  const Json::Value answer =
      redeem(signIn(s.url("/api/sso/start?port=") + client.substr(17), client + "/"));
  EXPECT_EQ(std::tie(answer["user"], answer["role"]),
            std::make_tuple(Json::Value("ann.lee"), Json::Value("publisher")));
  const auto me = s.client.fetch("GET", s.url("/api/me"), "", bearer(answer["token"].asString()));
  EXPECT_EQ(parseJson(me.body)["groups"], parseJson(R"(["qa"])")) << me.body;
  // The server printed nothing beyond its banner: no secret, code or token.
  for (const std::string& secret : {std::string("quill-secret"), answer["token"].asString()}) {
    EXPECT_EQ(s.server->output().find(secret), std::string::npos) << secret;
  }

  const fs::path chromium = programOnPath("chromium");
  if (chromium.empty()) GTEST_SKIP() << "chromium is not installed; the browser sign-in is skipped";
  // Intercepted in the browser: nothing listens at the client's port.
  const auto run = runProcess(
      programOnPath("node"), {kPeers / "browser.mjs", "--start", s.url("/api/sso/start?port=47811"),
                              "--client-port", "47811", "--login", "ann", "--chromium", chromium});
  std::smatch m;
  ASSERT_TRUE(
      std::regex_search(run.out, m, std::regex("handoff (http://127\\.0\\.0\\.1:47811/\\S*)")))
      << run.out << run.err;
  EXPECT_EQ(redeem(m.str(1))["user"], "ann.lee");
}

}  // namespace
}  // namespace quill::test
