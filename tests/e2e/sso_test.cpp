// Single sign-on end to end: the real binary and a real OpenID provider (tests/sso-peers), both on
// 127.0.0.1. The provider's development login and consent pages are driven with plain HTTP, and
// once in headless Chromium; the desktop client's side is the handoff code in the final redirect.

#include <curl/curl.h>
#include <json/value.h>

#include <filesystem>
#include <fstream>

#include "e2e/e2e_support.h"
#include "support/node_peer.h"

namespace quill::test {
namespace {

const std::filesystem::path kPeers =
    std::filesystem::path(QUILL_SOURCE_DIR) / "tests" / "sso-peers";

// A browser as far as the provider's development pages need one: cookies, redirects one hop at a
// time, and the login and consent forms.
class FormBrowser {
 public:
  FormBrowser() : curl_(curl_easy_init(), curl_easy_cleanup) {
    curl_easy_setopt(curl_.get(), CURLOPT_COOKIEFILE, "");
    curl_easy_setopt(curl_.get(), CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(curl_.get(), CURLOPT_WRITEFUNCTION, +[](char* d, size_t s, size_t n, void* o) {
      static_cast<std::string*>(o)->append(d, s * n);
      return s * n;
    });
  }
  struct Page {
    long status = 0;
    std::string url, body;
  };

  // Follows `url` until it leads to the client's loopback `port` (returning that URL unvisited,
  // status 0) or to a page that is neither a redirect nor a provider form.
  Page signIn(std::string url, const std::string& login, std::uint16_t port) {
    std::string form;
    for (int hop = 0; hop < 25; ++hop) {
      if (url.starts_with("http://127.0.0.1:" + std::to_string(port) + "/")) return {0, url, ""};
      Page page = fetch(url, form);
      form.clear();
      if (page.status >= 300 && page.status < 400) {
        url = page.url;
        continue;
      }
      std::smatch m;
      if (page.status != 200 ||
          !std::regex_search(page.body, m,
                             std::regex(R"re(action="([^"]+)"[\s\S]*name="prompt" value="(\w+)")re"))) {
        page.url = url;
        return page;
      }
      url = m[1];
      form = m[2] == "login" ? "prompt=login&login=" + login + "&password=any" : "prompt=consent";
    }
    return {};
  }

 private:
  // One request; for a redirect, `url` is where it leads.
  Page fetch(const std::string& url, const std::string& form) {
    CURL* h = curl_.get();
    Page page;
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &page.body);
    curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
    if (!form.empty()) curl_easy_setopt(h, CURLOPT_COPYPOSTFIELDS, form.c_str());
    if (auto rc = curl_easy_perform(h); rc != CURLE_OK) {
      page.body = curl_easy_strerror(rc);
      return page;
    }
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &page.status);
    char* next = nullptr;
    curl_easy_getinfo(h, CURLINFO_REDIRECT_URL, &next);
    if (next) page.url = next;
    return page;
  }
  std::unique_ptr<CURL, void (*)(CURL*)> curl_;
};

class SsoEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    writeAccounts(R"({"ann":{"preferred_username":"Ann.Lee@example.com","roles":["dev"],)"
                  R"("groups":["qa-team"]}})");
    provider_ = std::make_unique<NodePeer>(kPeers / "provider.mjs",
                                           std::vector<std::string>{"--accounts", accounts()});
    ASSERT_EQ(provider_->failure(), "") << "run scripts/install-deps.sh";
    ASSERT_TRUE(s_.up);
  }
  std::string accounts() const { return (s_.tmp.path() / "accounts.json").string(); }
  void writeAccounts(const std::string& json) const { std::ofstream(accounts()) << json; }
  void configure(const std::string& clientId) {
    auto res = s_.admin("PUT", "/api/sso/config",
                        R"({"issuer":")" + provider_->origin() + R"(/","client_id":")" +
                            clientId + R"(","client_secret":"quill-secret"})");
    ASSERT_EQ(res.status, 200) << res.body;
    EXPECT_EQ(res.body.find("quill-secret"), std::string::npos);
  }
  std::string startUrl(std::uint16_t port) {
    return s_.url("/api/sso/start?port=" + std::to_string(port));
  }
  // Redeems the handoff code of the client's URL, once.
  Json::Value redeem(const std::string& clientUrl) {
    std::smatch m;
    if (!std::regex_search(clientUrl, m, std::regex("/\\?handoff=([A-Za-z0-9]{32})$"))) {
      ADD_FAILURE() << "the client was sent to " << clientUrl;
      return {};
    }
    const std::string body = R"({"code":")" + std::string(m[1]) + "\"}";
    auto res = s_.client.fetch("POST", s_.url("/api/sso/handoff"), body);
    EXPECT_EQ(res.status, 200) << res.body;
    EXPECT_EQ(s_.client.fetch("POST", s_.url("/api/sso/handoff"), body).status, 404);
    return parseJson(res.body);
  }

  Served s_;
  std::unique_ptr<NodePeer> provider_;
};

TEST_F(SsoEndToEnd, TheClientSignsInAndMappedRolesAndGroupsFollowTheProvider) {
  // Tokens signed with a shared secret are refused.
  configure("quill-hs");
  FormBrowser browser;
  const std::uint16_t port = freePort();
  auto page = browser.signIn(startUrl(port), "ann", port);
  EXPECT_EQ(page.status, 401) << page.url;
  EXPECT_NE(page.body.find("<title>Sign-in rejected</title>"), std::string::npos) << page.body;
  EXPECT_NE(page.body.find("token alg is not RS256"), std::string::npos) << page.body;

  configure("quill");
  for (const char* group : {"qa", "beta"}) {
    ASSERT_EQ(s_.admin("POST", std::string("/api/groups/") + group).status, 200);
  }
  ASSERT_EQ(s_.admin("PUT", "/api/sso/mapping",
                     R"({"roles":{"dev":"publisher","ops":"admin"},)"
                     R"("groups":{"qa-team":"qa","beta-team":"beta"}})").status, 200);
  Json::Value answer = redeem(browser.signIn(startUrl(port), "ann", port).url);
  EXPECT_EQ(answer["user"], "ann.lee");
  EXPECT_EQ(answer["role"], "publisher");
  auto me = s_.client.fetch("GET", s_.url("/api/me"), "", bearer(answer["token"].asString()));
  EXPECT_EQ(parseJson(me.body)["name"], "ann.lee") << me.body;
  EXPECT_EQ(parseJson(me.body)["groups"][0], "qa");

  // The same person, now an operator in the beta team.
  writeAccounts(R"({"ann":{"preferred_username":"ann-renamed","roles":["ops"],)"
                R"("groups":["beta-team"]}})");
  answer = redeem(browser.signIn(startUrl(port), "ann", port).url);
  EXPECT_EQ(answer["user"], "ann.lee");
  EXPECT_EQ(answer["role"], "admin");
  EXPECT_EQ(answer["groups"], parseJson(R"(["beta"])"));
  EXPECT_EQ(parseJson(s_.admin("GET", "/api/users").body)["users"].size(), 2u);
  // The server printed nothing beyond its banner: no secret, code or token in its output.
  EXPECT_EQ(s_.server->output().find("quill-secret"), std::string::npos);
  EXPECT_EQ(s_.server->output().find(answer["token"].asString()), std::string::npos);
}

TEST_F(SsoEndToEnd, AHeadlessBrowserSignsInAndTheClientRedeemsTheCode) {
  const std::filesystem::path chromium = programOnPath("chromium");
  if (chromium.empty()) GTEST_SKIP() << "chromium is not installed; the browser sign-in is skipped";
  configure("quill");
  const std::string port = "47811";  // intercepted in the browser: nothing listens there
  auto run = runProcess(programOnPath("node").string(),
                        {(kPeers / "browser.mjs").string(), "--start", startUrl(47811),
                         "--client-port", port, "--login", "ann", "--chromium", chromium.string()});
  std::smatch m;
  ASSERT_TRUE(std::regex_search(run.out, m, std::regex("handoff (http://127\\.0\\.0\\.1:47811/\\S*)")))
      << run.out << run.err;
  EXPECT_EQ(redeem(m.str(1))["user"], "ann.lee");
}

}  // namespace
}  // namespace quill::test
