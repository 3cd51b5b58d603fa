// The real binary against clients that misbehave: none of them may end the process or make it
// reserve memory it did not mean to.

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "e2e/e2e_support.h"
#include "support/http_client.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace quill::test {
namespace {

using namespace std::chrono_literals;

// The process's address space in KiB (VmSize), or 0 when unreadable.
long addressSpaceKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmSize:", 0) == 0) return std::stol(line.substr(7));
  }
  return 0;
}

// Every route of the table, with its captures filled in.
std::vector<std::pair<std::string, std::string>> everyRoute() {
  std::vector<std::pair<std::string, std::string>> routes;
  std::ifstream table(std::string(QUILL_SOURCE_DIR) + "/tests/e2e/routes.txt");
  std::string method, path;
  while (table >> method >> path) {
    routes.emplace_back(method, std::regex_replace(path, std::regex("\\{[a-z]+\\}"), "x"));
  }
  return routes;
}

class HostileClients : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string data = (tmp.path() / "data").string();
    token = offlineAdminToken(data);
    ASSERT_FALSE(token.empty());
    server = std::make_unique<ServerProcess>(kBinary, std::vector<std::string>{"--data-dir", data});
    ASSERT_TRUE(server->waitUntilListening());
  }

  Fetched asAdmin(const std::string& method, const std::string& path, const std::string& body = "") {
    return client.fetch(method, server->url(path), body, bearer(token));
  }
  bool stillServing() {
    return server->running() && client.fetch("GET", server->url("/api/version")).status == 200;
  }

  TempDir tmp;
  std::string token;
  std::unique_ptr<ServerProcess> server;
  Client client;
};

TEST_F(HostileClients, AnonymousReadersCancellingDownloadsOfAPublicChannel) {
  ASSERT_EQ(asAdmin("PUT", "/api/builds/b1/files?path=big.bin", std::string(64 << 20, 'q')).status,
            200);
  ASSERT_EQ(asAdmin("POST", "/api/builds/b1/finalize").status, 200);
  ASSERT_EQ(asAdmin("POST", "/api/channels/beta").status, 200);
  ASSERT_EQ(asAdmin("POST", "/api/channels/beta/promote?build=b1").status, 200);
  ASSERT_EQ(asAdmin("POST", "/api/channels/beta/public?value=true").status, 200);
  for (int i = 0; i < 8; ++i) {
    RawConnection reader(server->port());
    reader.send("GET /api/builds/b1/files?path=big.bin HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    ASSERT_NE(reader.readUntil("qqqq", 5s).find("200 OK"), std::string::npos);
  }  // each closes with unread bytes: the server's next write meets a reset connection
  std::this_thread::sleep_for(300ms);
  EXPECT_TRUE(stillServing());
}

TEST_F(HostileClients, HugeAnnouncedBodiesOnEveryRouteReserveNothing) {
  const long before = addressSpaceKiB(server->pid());
  std::vector<std::unique_ptr<RawConnection>> open;
  for (const auto& [method, path] : everyRoute()) {
    for (const std::string& auth : {std::string(), "Authorization: Bearer " + token + "\r\n"}) {
      auto c = std::make_unique<RawConnection>(server->port());
      c->send(method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + auth +
              "Content-Length: 2147483648\r\n\r\n" + std::string(4096, '{'));
      open.push_back(std::move(c));
    }
  }
  std::this_thread::sleep_for(500ms);
  const long after = addressSpaceKiB(server->pid());
  EXPECT_LT(after - before, 512L * 1024) << "address space grew from " << before << " to "
                                         << after << " KiB";
  open.clear();
  EXPECT_TRUE(stillServing());
}

}  // namespace
}  // namespace quill::test
