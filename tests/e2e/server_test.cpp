// The real binary serving on 127.0.0.1: start-up, the service routes and the error shape.

#include <gtest/gtest.h>
#include <json/value.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "e2e/e2e_support.h"
#include "support/http_client.h"
#include "support/temp_dir.h"

namespace quill::test {
namespace {

std::string hint(const std::string& dir) {
  return "\n  No tokens exist yet - every request will be rejected with 401.\n"
         "  Mint your first (admin) token with:\n\n"
         "    quillmoord user create <name> --role admin --data-dir " +
         dir +
         "\n"
         "    quillmoord token create <token-name> --user <name> --data-dir " +
         dir +
         "\n\n"
         "  Configure clients with:  quillmoor config set token <token>\n\n";
}

std::string banner(const std::string& dir, std::uint16_t port, const char* mode = "") {
  return "quillmoord 0.7.10+g1b83633\n  listening on http://127.0.0.1:" + std::to_string(port) +
         mode + "\n  data dir: " + dir + "\n";
}

std::string waitForOutput(const ServerProcess& server, std::size_t bytes) {
  std::string out;
  for (int i = 0; i < 200 && (out = server.output()).size() < bytes; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return out;
}

TEST(Server, FreshDataDirectoryGetsItsLayoutBannerAndHint) {
  TempDir tmp;
  const std::string dir = (tmp.path() / "nested" / "data").string();
  ServerProcess server(kBinary, {"--data-dir", dir});
  ASSERT_TRUE(server.waitUntilListening());
  std::string expected = banner(dir, server.port()) + hint(dir);
  EXPECT_EQ(waitForOutput(server, expected.size()), expected);
  for (const char* sub :
       {"users", "tokens", "channels", "groups", "invites", "access-requests", "builds"}) {
    EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::path(dir) / sub)) << sub;
  }
}

TEST(Server, NoHintOnceATokenExistsAndRillOnlyShowsInTheBanner) {
  TempDir tmp;
  std::filesystem::create_directories(tmp.path() / "tokens");
  std::ofstream(tmp.path() / "tokens" / "ci.json") << R"({"name":"ci","schema_version":1})";
  ServerProcess server(kBinary, {"--data-dir", tmp.path().string(), "--rill-only"});
  ASSERT_TRUE(server.waitUntilListening());
  std::string expected = banner(tmp.path().string(), server.port(), "  (Rill-only)");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(waitForOutput(server, expected.size()), expected);
}

TEST(Server, DefaultDataDirectoryFollowsLocalAppData) {
  TempDir tmp;
  ::setenv("LOCALAPPDATA", tmp.path().c_str(), 1);
  ServerProcess server(kBinary, {});
  ::unsetenv("LOCALAPPDATA");
  ASSERT_TRUE(server.waitUntilListening());
  EXPECT_TRUE(
      std::filesystem::is_directory(tmp.path() / "Quillmoor" / "quillmoord-data" / "users"));
}

class ServiceRoutes : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    tmp = std::make_unique<TempDir>();
    server = std::make_unique<ServerProcess>(
        kBinary, std::vector<std::string>{"--data-dir", tmp->path().string()});
    ASSERT_TRUE(server->waitUntilListening());
  }
  static void TearDownTestSuite() {
    server.reset();
    tmp.reset();
  }
  static inline std::unique_ptr<TempDir> tmp;
  static inline std::unique_ptr<ServerProcess> server;
  Client client;
};

TEST_F(ServiceRoutes, ServeTheirDocumentsWithTheirContentTypes) {
  std::ifstream in(QUILL_SOURCE_DIR "/src/app/resources/openapi.yaml", std::ios::binary);
  std::string openapi;  // the stored document with CRLF line ends
  for (char ch : std::string{std::istreambuf_iterator<char>(in), {}}) {
    if (ch == '\n') openapi += '\r';
    openapi += ch;
  }
  const std::string html = "text/html; charset=utf-8";
  struct Case {
    std::string path;
    std::string type;
    std::vector<std::string> contains;
  };
  const std::vector<Case> cases = {
      {"/",
       html,
       {"<title>Quillmoor server</title>", "This is a Quillmoor server.", "href=\"/api/docs\""}},
      {"/api/docs",
       html,
       {"<title>Quillmoor API</title>", "spec-url=\"/api/openapi.yaml\"",
        "JavaScript (and internet access for the viewer script) is needed\nto render this page - "
        "the raw API description is at /api/openapi.yaml."}},
      {"/api/openapi.yaml", "text/plain; charset=utf-8", {openapi}},
      {"/api/version",
       "application/json; charset=utf-8",
       {R"({"name":"quillmoord","schema_version":1,"version":"0.7.10+g1b83633"})"}},
  };
  for (const Case& c : cases) {
    auto r = client.fetch("GET", server->url(c.path));
    EXPECT_EQ(r.status, 200) << c.path;
    EXPECT_EQ(r.headers["content-type"], c.type) << c.path;
    for (const auto& text : c.contains) EXPECT_NE(r.body.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(client.fetch("GET", server->url("/api/openapi.yaml")).body, openapi);
}

TEST_F(ServiceRoutes, ErrorsAreOneMemberDocumentsAndOptionsListsTheMethods) {
  struct Case {
    const char* method;
    const char* path;
    long status;
  };
  for (auto c : {Case{"GET", "/nowhere", 404}, Case{"PATCH", "/api/version", 405},
                 Case{"GET", "/api/version/", 404}, Case{"POST", "/api/invites/redeem/x", 404}}) {
    auto r = client.fetch(c.method, server->url(c.path));
    EXPECT_EQ(r.status, c.status) << c.path;
    EXPECT_EQ(r.headers["content-type"], "application/json; charset=utf-8");
    Json::Value doc = parseJson(r.body);
    EXPECT_EQ(doc.getMemberNames(), std::vector<std::string>{"error"}) << r.body;
    EXPECT_TRUE(doc["error"].isString());
  }
  auto r = client.fetch("OPTIONS", server->url("/api/storage"));
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.headers["allow"], "GET, HEAD, PUT, DELETE, OPTIONS");
}

TEST_F(ServiceRoutes, SlowHeadDoesNotStallOthers) {
  RawConnection slow(server->port());
  const std::string head = "GET /api/version HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  for (std::size_t i = 0; i < head.size(); ++i) {
    ASSERT_TRUE(slow.send(head.substr(i, 1)));
    if (i % 10 == 0) {
      auto r = client.fetch("GET", server->url("/api/version"));
      EXPECT_EQ(r.status, 200);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(15));
  }
  EXPECT_NE(slow.readUntil("}", std::chrono::seconds(5)).find("0.7.10+g1b83633"),
            std::string::npos);
}

}  // namespace
}  // namespace quill::test
