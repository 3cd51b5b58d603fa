// Single sign-on end to end: the real binary, a real OpenID provider (tests/sso-peers) and the
// desktop client's side of the handoff (a loopback listener), all on 127.0.0.1. The provider's
// development login and consent pages are driven with plain HTTP, and once in headless Chromium.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <thread>

#include "e2e/e2e_support.h"
#include "support/http_client.h"
#include "support/node_peer.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace quill::test {
namespace {

const std::filesystem::path kPeers =
    std::filesystem::path(QUILL_SOURCE_DIR) / "tests" / "sso-peers";

// The desktop client's listener: accepts one request on a loopback port and keeps its target.
class ClientListener {
 public:
  ClientListener() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::listen(fd_, 4);
    socklen_t len = sizeof addr;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
  }
  ~ClientListener() { ::close(fd_); }

  std::uint16_t port() const { return port_; }

  // Waits for one request (up to 10 seconds), answers it and returns its target ("" if none).
  std::string acceptOne() {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, 10000) <= 0) return "";
    const int conn = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    std::string head;
    char buffer[2048];
    while (head.find("\r\n\r\n") == std::string::npos) {
      const ssize_t n = ::recv(conn, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      head.append(buffer, static_cast<std::size_t>(n));
    }
    const std::string answer =
        "HTTP/1.1 200 OK\r\nContent-Length: 9\r\nConnection: close\r\n\r\nsigned in";
    ::send(conn, answer.data(), answer.size(), MSG_NOSIGNAL);
    ::close(conn);
    const std::size_t start = head.find(' ') + 1;
    return head.substr(start, head.find(' ', start) - start);
  }

 private:
  int fd_ = -1;
  std::uint16_t port_ = 0;
};

// A browser as far as the provider's development pages need one: cookies, redirects one hop at a
// time, and the login and consent forms.
class FormBrowser {
 public:
  FormBrowser() : curl_(curl_easy_init(), curl_easy_cleanup) {
    curl_easy_setopt(curl_.get(), CURLOPT_COOKIEFILE, "");
    curl_easy_setopt(curl_.get(), CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(curl_.get(), CURLOPT_WRITEFUNCTION, collect);
  }

  struct Page {
    long status = 0;
    std::string url, body;
  };

  // Follows `url` until it leads to `stopPort` (returning that URL unvisited as `url`) or to a page
  // that is neither a redirect nor a provider form.
  Page signIn(std::string url, const std::string& login, std::uint16_t stopPort) {
    std::string form;
    for (int hop = 0; hop < 25; ++hop) {
      if (url.starts_with("http://127.0.0.1:" + std::to_string(stopPort) + "/"))
        return {0, url, ""};
      Page page = fetch(url, form);
      form.clear();
      if (page.status >= 300 && page.status < 400) {
        url = page.url;
        continue;
      }
      std::smatch m;
      if (page.status != 200 ||
          !std::regex_search(
              page.body, m,
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
  static std::size_t collect(char* data, std::size_t size, std::size_t n, void* out) {
    static_cast<std::string*>(out)->append(data, size * n);
    return size * n;
  }

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
    const std::string dir = data_.path().string();
    admin_ = offlineAdminToken(dir);
    ASSERT_FALSE(admin_.empty());
    server_ = std::make_unique<ServerProcess>(kBinary, std::vector<std::string>{"--data-dir", dir});
    ASSERT_TRUE(server_->waitUntilListening());
  }

  std::string accounts() const { return (data_.path() / "accounts.json").string(); }
  void writeAccounts(const std::string& json) const { std::ofstream(accounts()) << json; }

  Fetched admin(const std::string& method, const std::string& path, const std::string& body = "") {
    return http_.fetch(method, server_->url(path), body, bearer(admin_));
  }

  void configure(const std::string& clientId) {
    auto res = admin("PUT", "/api/sso/config",
                     R"({"issuer":")" + provider_->origin() + R"(/","client_id":")" + clientId +
                         R"(","client_secret":"quill-secret"})");
    ASSERT_EQ(res.status, 200) << res.body;
    EXPECT_EQ(res.body.find("quill-secret"), std::string::npos);
  }

  // What the desktop client does: listen, send the browser to the start page, take the handoff
  // code from the request the browser makes to the listener, and redeem it.
  Json::Value clientSignIn(FormBrowser& browser) {
    ClientListener client;
    auto page = browser.signIn(server_->url("/api/sso/start?port=" + std::to_string(client.port())),
                               "ann", client.port());
    if (page.status != 0) {
      ADD_FAILURE() << "sign-in ended at " << page.url << ": " << page.status << " " << page.body;
      return {};
    }
    std::thread visit([&] { Client().fetch("GET", page.url); });
    const std::string target = client.acceptOne();
    visit.join();
    std::smatch m;
    if (!std::regex_match(target, m, std::regex("/\\?handoff=([A-Za-z0-9]{32})"))) {
      ADD_FAILURE() << "client saw " << target;
      return {};
    }
    const std::string body = R"({"code":")" + std::string(m[1]) + "\"}";
    auto res = http_.fetch("POST", server_->url("/api/sso/handoff"), body);
    EXPECT_EQ(res.status, 200) << res.body;
    EXPECT_EQ(http_.fetch("POST", server_->url("/api/sso/handoff"), body).status, 404);
    return parseJson(res.body);
  }

  TempDir data_;
  std::unique_ptr<NodePeer> provider_;
  std::unique_ptr<ServerProcess> server_;
  std::string admin_;
  Client http_;
};

TEST_F(SsoEndToEnd, TheClientSignsInAndMappedRolesAndGroupsFollowTheProvider) {
  configure("quill");
  for (const char* group : {"qa", "beta"}) {
    ASSERT_EQ(admin("POST", std::string("/api/groups/") + group).status, 200);
  }
  ASSERT_EQ(admin("PUT", "/api/sso/mapping",
                  R"({"roles":{"dev":"publisher","ops":"admin"},)"
                  R"("groups":{"qa-team":"qa","beta-team":"beta"}})")
                .status,
            200);

  FormBrowser browser;
  Json::Value answer = clientSignIn(browser);
  EXPECT_EQ(answer["user"], "ann.lee");
  EXPECT_EQ(answer["role"], "publisher");
  auto me = http_.fetch("GET", server_->url("/api/me"), "", bearer(answer["token"].asString()));
  ASSERT_EQ(me.status, 200) << me.body;
  EXPECT_EQ(parseJson(me.body)["name"], "ann.lee");
  EXPECT_EQ(parseJson(me.body)["groups"][0], "qa");

  // The same person, now an operator in the beta team.
  writeAccounts(R"({"ann":{"preferred_username":"ann-renamed","roles":["ops"],)"
                R"("groups":["beta-team"]}})");
  answer = clientSignIn(browser);
  EXPECT_EQ(answer["user"], "ann.lee");
  EXPECT_EQ(answer["role"], "admin");
  EXPECT_EQ(answer["groups"].size(), 1u);
  EXPECT_EQ(answer["groups"][0], "beta");
  auto users = parseJson(admin("GET", "/api/users").body)["users"];
  EXPECT_EQ(users.size(), 2u) << users;
  // The server printed nothing beyond its banner: no secret, code or token in its output.
  EXPECT_EQ(server_->output().find("quill-secret"), std::string::npos);
  EXPECT_EQ(server_->output().find(answer["token"].asString()), std::string::npos);
}

TEST_F(SsoEndToEnd, IdTokensSignedWithASharedSecretAreRejected) {
  configure("quill-hs");
  FormBrowser browser;
  ClientListener client;
  auto page = browser.signIn(server_->url("/api/sso/start?port=" + std::to_string(client.port())),
                             "ann", client.port());
  EXPECT_EQ(page.status, 401) << page.url;
  EXPECT_NE(page.body.find("<title>Sign-in rejected</title>"), std::string::npos) << page.body;
  EXPECT_NE(page.body.find("token alg is not RS256"), std::string::npos) << page.body;
}

TEST_F(SsoEndToEnd, AHeadlessBrowserSignsInAndTheClientRedeemsTheCode) {
  const std::filesystem::path chromium = programOnPath("chromium");
  if (chromium.empty()) GTEST_SKIP() << "chromium is not installed; the browser sign-in is skipped";
  configure("quill");
  const std::string port = "47811";  // intercepted in the browser: nothing listens there
  auto run = runProcess(
      programOnPath("node").string(),
      {(kPeers / "browser.mjs").string(), "--start", server_->url("/api/sso/start?port=" + port),
       "--client-port", port, "--login", "ann", "--chromium", chromium.string()});
  std::smatch m;
  ASSERT_TRUE(std::regex_search(
      run.out, m, std::regex("handoff http://127\\.0\\.0\\.1:47811/\\?handoff=([A-Za-z0-9]{32})")))
      << run.out << run.err;
  auto res = http_.fetch("POST", server_->url("/api/sso/handoff"),
                         R"({"code":")" + std::string(m[1]) + "\"}");
  ASSERT_EQ(res.status, 200) << res.body;
  EXPECT_EQ(parseJson(res.body)["user"], "ann.lee");
}

}  // namespace
}  // namespace quill::test
