// The real binary serving on 127.0.0.1: start-up and the first admin, the service routes and the
// error shape, and clients that misbehave, none of which may stall others, end the process or
// make it reserve memory it did not mean to.

#include <cstdlib>
#include <fstream>

#include "e2e/e2e_support.h"

namespace quill::test {
namespace {

// Waits for the banner, then for anything printed after it.
void expectBanner(ServerProcess& server, const std::string& mode, const std::string& dir,
                  const std::string& hint) {
  const std::string expected = "quillmoord 0.7.10+g1b83633\n  listening on http://127.0.0.1:" +
                               std::to_string(server.port()) + mode + "\n  data dir: " + dir +
                               "\n" + hint;
  eventually([&] { return server.output().size() >= expected.size(); });
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(server.output(), expected);
}

TEST(StartUp, BannersTheClaimOfflineCommandsAndTheDefaultDataDirectory) {
  TempDir tmp;
  const std::string dir = (tmp.path() / "nested" / "data").string();
  Served fresh({"--claimable", "--claimpin", "1234"}, dir);
  ASSERT_TRUE(fresh.up);
  expectBanner(*fresh.server, "", dir,
               std::regex_replace(R"(
  No tokens exist yet - every request will be rejected with 401.
  Mint your first (admin) token with:

    quillmoord user create <name> --role admin --data-dir DIR
    quillmoord token create <token-name> --user <name> --data-dir DIR

  Configure clients with:  quillmoor config set token <token>

)",
                                  std::regex("DIR"), dir));
  for (const char* sub : {"users", "tokens", "channels", "groups", "invites", "access-requests"}) {
    EXPECT_TRUE(fs::is_directory(fs::path(dir) / sub)) << sub;
  }
  Client& client = fresh.client;  // the claim, enabled on the command line
  const auto me = [&](const std::string& token) {
    return client.fetch("GET", fresh.url("/api/me"), "", bearer(token)).body;
  };
  const auto claimed = client.fetch("POST", fresh.url("/api/claim?pin=1234"));
  EXPECT_EQ(me(parseJson(claimed.body)["token"].asString()),
            R"({"channels":[],"groups":[],"name":"admin","role":"admin","schema_version":1})");
  // Offline commands beside the running server take effect at its next request.
  const std::string token = offlineAdminToken(dir);
  EXPECT_EQ(parseJson(me(token))["name"], "ci");
  EXPECT_EQ(runProcess(kBinary, {"token", "delete", "ci", "--data-dir", dir}).exitCode, 0);
  EXPECT_EQ(me(token), R"({"error":"missing or invalid token"})");

  // Where a token exists there is no hint; a document write a crash left before start-up is swept.
  const fs::path leftover = fs::path(dir) / "users" / "admin.json.AbCdEfGh1234.tmp";
  std::ofstream(leftover) << "{";
  fs::last_write_time(leftover, fs::file_time_type::clock::now() - std::chrono::hours(1));
  fresh.server.reset();
  fresh.server = std::make_unique<ServerProcess>(kBinary, Args{"--data-dir", dir, "--rill-only"});
  ASSERT_TRUE(fresh.server->waitUntilListening());
  expectBanner(*fresh.server, "  (Rill-only)", dir, "");
  EXPECT_FALSE(fs::exists(leftover));

  ::setenv("LOCALAPPDATA", tmp.path().c_str(), 1);
  ServerProcess byDefault(kBinary, {});
  ::unsetenv("LOCALAPPDATA");
  ASSERT_TRUE(byDefault.waitUntilListening());
  EXPECT_TRUE(fs::is_directory(tmp.path() / "Quillmoor" / "quillmoord-data" / "users"));
}

class ServedE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { s = std::make_unique<Served>(); }
  static void TearDownTestSuite() { s.reset(); }
  void SetUp() override { ASSERT_TRUE(s->up); }
  static inline std::unique_ptr<Served> s;
};

TEST_F(ServedE2E, ServiceRoutesAndErrorDocuments) {
  std::string openapi;  // served with CR LF line ends
  for (char c : readFile(QUILL_SOURCE_DIR "/src/app/resources/openapi.yaml")) {
    openapi += c == '\n' ? "\r\n" : std::string(1, c);
  }
  const std::string html = "text/html; charset=utf-8", json = "application/json; charset=utf-8";
  // clang-format off
  const std::tuple<const char*, const char*, long, std::string, std::string> cases[] = {
      {"GET", "/", 200, html, "<title>Quillmoor server</title>"},
      {"GET", "/api/docs", 200, html, "spec-url=\"/api/openapi.yaml\""},
      {"GET", "/api/openapi.yaml", 200, "text/plain; charset=utf-8", openapi},
      {"GET", "/api/version", 200, json,
       R"({"name":"quillmoord","schema_version":1,"version":"0.7.10+g1b83633"})"},
      {"GET", "/nowhere", 404, json, "{\"error\":"}, {"PATCH", "/api/version", 405, json, "{\"error\":"},
      {"GET", "/api/version/", 404, json, "{\"error\":"},
      {"POST", "/api/invites/redeem/x", 404, json, "{\"error\":"}};
  // clang-format on
  for (const auto& [method, path, status, type, contains] : cases) {
    auto r = s->client.fetch(method, s->url(path));
    EXPECT_EQ(std::tie(r.status, r.headers["content-type"]), std::tie(status, type)) << path;
    EXPECT_NE(r.body.find(contains), std::string::npos) << path;
    const Args members = status == 200 ? Args{"error"} : parseJson(r.body).getMemberNames();
    EXPECT_EQ(members, Args{"error"}) << r.body;  // an error is a document of one message
  }
  EXPECT_EQ(s->client.fetch("GET", s->url("/api/openapi.yaml")).body, openapi);  // nothing more
  auto r = s->client.fetch("OPTIONS", s->url("/api/storage"));
  EXPECT_EQ(std::tie(r.status, r.headers["allow"]),
            std::make_tuple(200L, std::string("GET, HEAD, PUT, DELETE, OPTIONS")));
}

TEST_F(ServedE2E, ASlowHeadStallsNoOneAndHugeAnnouncedBodiesReserveNothing) {
  RawConnection slow(s->server->port());
  const std::string head = "GET /api/version HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  for (std::size_t i = 0; i < head.size(); ++i, std::this_thread::sleep_for(15ms)) {
    ASSERT_TRUE(slow.send(head.substr(i, 1)));
    EXPECT_EQ(i % 10 ? 200 : s->client.fetch("GET", s->url("/api/version")).status, 200);
  }
  EXPECT_NE(slow.readUntil("}", 5s).find("0.7.10+g1b83633"), std::string::npos);

  const auto addressSpaceKiB = [] {  // VmSize
    std::ifstream status("/proc/" + std::to_string(s->server->pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("VmSize:")) return std::stol(line.substr(7));
    }
    return 0L;
  };
  const long before = addressSpaceKiB();
  std::vector<std::unique_ptr<RawConnection>> open;
  std::ifstream routes(QUILL_SOURCE_DIR "/tests/e2e/routes.txt");
  for (std::string method, path, access; routes >> method >> path >> access;) {
    path = std::regex_replace(path, std::regex("\\{[a-z]+\\}"), "x");
    for (const std::string& auth : {std::string(), s->auth()}) {
      open.push_back(std::make_unique<RawConnection>(s->server->port()));
      open.back()->send(rawHead(method, path, 2147483648, auth) + std::string(4096, '{'));
    }
  }
  std::this_thread::sleep_for(500ms);
  EXPECT_LT(addressSpaceKiB() - before, 512L * 1024) << "KiB of address space reserved";
  open.clear();
  EXPECT_TRUE(s->server->running());
  EXPECT_EQ(s->client.fetch("GET", s->url("/api/version")).status, 200);
}

}  // namespace
}  // namespace quill::test
