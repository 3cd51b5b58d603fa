// The real binary serving on 127.0.0.1: start-up, the service routes and the error shape, and
// clients that misbehave, none of which may stall others, end the process or make it reserve
// memory it did not mean to.

#include <json/value.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

#include "e2e/e2e_support.h"

namespace quill::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string startUpText(const std::string& dir, std::uint16_t port, bool rillOnly) {
  std::string text = "quillmoord 0.7.10+g1b83633\n  listening on http://127.0.0.1:" +
                     std::to_string(port) + (rillOnly ? "  (Rill-only)" : "") +
                     "\n  data dir: " + dir + "\n";
  if (rillOnly) return text;  // a token exists there: no hint
  return text +
         "\n  No tokens exist yet - every request will be rejected with 401.\n"
         "  Mint your first (admin) token with:\n\n"
         "    quillmoord user create <name> --role admin --data-dir " + dir + "\n"
         "    quillmoord token create <token-name> --user <name> --data-dir " + dir + "\n\n"
         "  Configure clients with:  quillmoor config set token <token>\n\n";
}

TEST(StartUp, BannerHintLayoutAndDefaultDataDirectory) {
  TempDir tmp;
  const std::string fresh = (tmp.path() / "nested" / "data").string();
  const std::string minted = (tmp.path() / "minted").string();
  fs::create_directories(minted + "/tokens");
  std::ofstream(minted + "/tokens/ci.json") << R"({"name":"ci","schema_version":1})";
  for (const auto& [dir, rillOnly] : {std::pair{fresh, false}, {minted, true}}) {
    std::vector<std::string> args{"--data-dir", dir};
    if (rillOnly) args.push_back("--rill-only");
    ServerProcess server(kBinary, args);
    ASSERT_TRUE(server.waitUntilListening());
    const std::string expected = startUpText(dir, server.port(), rillOnly);
    for (int i = 0; i < 200 && server.output().size() < expected.size(); ++i) {
      std::this_thread::sleep_for(10ms);
    }
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(server.output(), expected);
  }
  for (const char* sub :
       {"users", "tokens", "channels", "groups", "invites", "access-requests", "builds"}) {
    EXPECT_TRUE(fs::is_directory(fs::path(fresh) / sub)) << sub;
  }
  ::setenv("LOCALAPPDATA", tmp.path().c_str(), 1);
  ServerProcess byDefault(kBinary, {});
  ::unsetenv("LOCALAPPDATA");
  ASSERT_TRUE(byDefault.waitUntilListening());
  EXPECT_TRUE(fs::is_directory(tmp.path() / "Quillmoor" / "quillmoord-data" / "users"));
}

class ServedE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s = std::make_unique<Served>();
    ASSERT_TRUE(s->up);
  }
  static void TearDownTestSuite() { s.reset(); }
  bool stillServing() {
    return s->server->running() && client.fetch("GET", s->url("/api/version")).status == 200;
  }
  static inline std::unique_ptr<Served> s;
  Client client;
};

TEST_F(ServedE2E, ServiceRoutesAndErrorDocuments) {
  std::ifstream in(QUILL_SOURCE_DIR "/src/app/resources/openapi.yaml", std::ios::binary);
  std::string openapi;  // served with CR LF line ends
  for (char ch : std::string{std::istreambuf_iterator<char>(in), {}}) {
    if (ch == '\n') openapi += '\r';
    openapi += ch;
  }
  const std::string html = "text/html; charset=utf-8", json = "application/json; charset=utf-8";
  const struct {
    const char* method;
    const char* path;
    long status;
    std::string type;
    std::vector<std::string> contains;
  } cases[] = {
      {"GET", "/", 200, html,
       {"<title>Quillmoor server</title>", "This is a Quillmoor server.", "href=\"/api/docs\""}},
      {"GET", "/api/docs", 200, html,
       {"<title>Quillmoor API</title>", "spec-url=\"/api/openapi.yaml\"",
        "JavaScript (and internet access for the viewer script) is needed\nto render this page - "
        "the raw API description is at /api/openapi.yaml."}},
      {"GET", "/api/openapi.yaml", 200, "text/plain; charset=utf-8", {openapi}},
      {"GET", "/api/version", 200, json,
       {R"({"name":"quillmoord","schema_version":1,"version":"0.7.10+g1b83633"})"}},
      {"GET", "/nowhere", 404, json, {}},
      {"PATCH", "/api/version", 405, json, {}},
      {"GET", "/api/version/", 404, json, {}},
      {"POST", "/api/invites/redeem/x", 404, json, {}},
  };
  for (const auto& c : cases) {
    auto r = client.fetch(c.method, s->url(c.path));
    EXPECT_EQ(r.status, c.status) << c.path;
    EXPECT_EQ(r.headers["content-type"], c.type) << c.path;
    for (const auto& text : c.contains) EXPECT_NE(r.body.find(text), std::string::npos) << text;
    if (c.status == 200) continue;
    const Json::Value doc = parseJson(r.body);
    EXPECT_EQ(doc.getMemberNames(), std::vector<std::string>{"error"}) << r.body;
    EXPECT_TRUE(doc["error"].isString());
  }
  EXPECT_EQ(client.fetch("GET", s->url("/api/openapi.yaml")).body, openapi);
  auto r = client.fetch("OPTIONS", s->url("/api/storage"));
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.headers["allow"], "GET, HEAD, PUT, DELETE, OPTIONS");
}

TEST_F(ServedE2E, ASlowHeadDoesNotStallOthers) {
  RawConnection slow(s->server->port());
  const std::string head = "GET /api/version HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  for (std::size_t i = 0; i < head.size(); ++i) {
    ASSERT_TRUE(slow.send(head.substr(i, 1)));
    if (i % 10 == 0) {
      EXPECT_EQ(client.fetch("GET", s->url("/api/version")).status, 200);
    }
    std::this_thread::sleep_for(15ms);
  }
  EXPECT_NE(slow.readUntil("}", 5s).find("0.7.10+g1b83633"), std::string::npos);
}

// The process's address space in KiB (VmSize), or 0 when unreadable.
long addressSpaceKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmSize:", 0) == 0) return std::stol(line.substr(7));
  }
  return 0;
}

TEST_F(ServedE2E, HugeAnnouncedBodiesOnEveryRouteReserveNothing) {
  const long before = addressSpaceKiB(s->server->pid());
  std::vector<std::unique_ptr<RawConnection>> open;
  std::ifstream table(QUILL_SOURCE_DIR "/tests/e2e/routes.txt");
  for (std::string method, path; table >> method >> path;) {
    path = std::regex_replace(path, std::regex("\\{[a-z]+\\}"), "x");
    for (const std::string& auth : {std::string(), "Authorization: Bearer " + s->token + "\r\n"}) {
      open.push_back(std::make_unique<RawConnection>(s->server->port()));
      open.back()->send(method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + auth +
                        "Content-Length: 2147483648\r\n\r\n" + std::string(4096, '{'));
    }
  }
  std::this_thread::sleep_for(500ms);
  const long after = addressSpaceKiB(s->server->pid());
  EXPECT_LT(after - before, 512L * 1024) << "address space grew from " << before << " to "
                                         << after << " KiB";
  open.clear();
  EXPECT_TRUE(stillServing());
}

}  // namespace
}  // namespace quill::test
