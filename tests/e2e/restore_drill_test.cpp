// The restore drill with the real binary and the S3 test peer: a server with users, tokens, builds
// and channels is backed up over HTTP, restored by the command into a new directory, and a server
// started there accepts the old token and serves the builds byte for byte.

#include <gtest/gtest.h>
#include <json/value.h>

#include <chrono>
#include <memory>
#include <regex>
#include <thread>

#include "rill/s3_peers.h"
#include "e2e/e2e_support.h"
#include "support/http_client.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace quill::test {
namespace {

class Session {
 public:
  Session(const std::string& dataDir, std::string token)
      : server_(std::make_unique<ServerProcess>(kBinary,
                                                std::vector<std::string>{"--data-dir", dataDir})),
        token_(std::move(token)) {}
  bool up() { return server_->waitUntilListening(); }
  Fetched call(const std::string& method, const std::string& path, const std::string& body = "") {
    return client_.fetch(method, server_->url(path), body, {"Authorization: Bearer " + token_});
  }

 private:
  std::unique_ptr<ServerProcess> server_;
  std::string token_;
  Client client_;
};

TEST(RestoreDrill, ARestoredServerAcceptsTheOldTokensAndServesTheSameBuilds) {
  auto& peers = rill::test::S3Peers::shared();
  if (!peers.skipReason().empty()) GTEST_SKIP() << peers.skipReason();
  ASSERT_EQ(peers.failure(), "");
  TempDir tmp;
  const std::string data = (tmp.path() / "data").string();
  ASSERT_EQ(runProcess(kBinary, {"user", "create", "ops", "--role", "admin", "--data-dir", data})
                .exitCode,
            0);
  const auto minted =
      runProcess(kBinary, {"token", "create", "t", "--user", "ops", "--data-dir", data});
  std::smatch m;
  ASSERT_TRUE(std::regex_search(minted.out, m, std::regex("\n  ([A-Za-z0-9]{48})\n")));
  const std::string token = m.str(1);
  const std::string app = randomBytes(3 << 20, 42);

  std::string key;
  std::string snapshot;
  {
    Session old(data, token);
    ASSERT_TRUE(old.up());
    ASSERT_EQ(old.call("PUT", "/api/builds/b1/files?path=bin%2Fapp.bin", app).status, 200);
    ASSERT_EQ(old.call("POST", "/api/builds/b1/finalize").status, 200);
    ASSERT_EQ(old.call("POST", "/api/channels/stable").status, 200);
    ASSERT_EQ(old.call("POST", "/api/channels/stable/promote?build=b1").status, 200);
    const auto s3 = peers.settings();
    auto init = old.call("POST", "/api/backup/init",
                         R"({"mode":"separate","endpoint":")" + s3.endpoint + R"(","bucket":")" +
                             s3.bucket + R"(","access_key":")" + s3.accessKey +
                             R"(","secret_key":")" + s3.secretKey + R"("})");
    ASSERT_EQ(init.status, 200) << init.body;
    key = parseJson(init.body)["key"].asString();
    auto started = old.call("POST", "/api/backup");
    ASSERT_EQ(started.status, 202) << started.body;
    snapshot = parseJson(started.body)["snapshot"].asString();
    Json::Value last;
    for (int i = 0; i < 200 && last["snapshot"].asString() != snapshot; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      last = parseJson(old.call("GET", "/api/backups").body)["last"];
    }
    ASSERT_EQ(last["ok"], true) << last["error"].asString();
  }

  const std::string restoredDir = (tmp.path() / "restored").string();
  const auto restored = runProcess(kBinary, {"restore", snapshot, "--data-dir", restoredDir,
                                             "--key", key, "--from", data + "/backup.json"});
  ASSERT_EQ(restored.exitCode, 0) << restored.err;
  EXPECT_TRUE(std::regex_match(restored.out,
                               std::regex("restored " + snapshot + " -> " + restoredDir +
                                          ": [0-9]+ file\\(s\\), [0-9]+ bytes \\(verified\\)\n"
                                          "Check backup.json's key_file path on this machine "
                                          "before the next backup.\n")))
      << restored.out;

  Session fresh(restoredDir, token);
  ASSERT_TRUE(fresh.up());
  EXPECT_EQ(parseJson(fresh.call("GET", "/api/me").body)["name"], "ops");
  auto download = fresh.call("GET", "/api/builds/b1/files?path=bin%2Fapp.bin");
  EXPECT_EQ(download.status, 200);
  EXPECT_TRUE(download.body == app) << "the build differs after the restore";
  EXPECT_EQ(parseJson(fresh.call("GET", "/api/channels/stable").body)["build"], "b1");
}

}  // namespace
}  // namespace quill::test
