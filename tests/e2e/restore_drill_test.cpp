// The restore drill with the real binary and the S3 test peer: a server with users, tokens, builds
// and channels is backed up over HTTP, restored by the command into a new directory, and a server
// started there accepts the old token and serves the builds byte for byte. And a busy server, one
// build kept on another volume, backed up by the command while an upload streams in.

#include <gtest/gtest.h>
#include <json/value.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <thread>
#include <tuple>

#include "e2e/e2e_support.h"
#include "rill/s3_peers.h"
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
  std::uint16_t port() const { return server_->port(); }
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

namespace fs = std::filesystem;

// Every regular file under `root` with its bytes, walking links to directories as directories.
std::map<std::string, std::string> filesUnder(const fs::path& root) {
  std::map<std::string, std::string> files;
  for (const auto& entry :
       fs::recursive_directory_iterator(root, fs::directory_options::follow_directory_symlink)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    files[entry.path().lexically_relative(root).generic_string()] = {
        std::istreambuf_iterator<char>(in), {}};
  }
  return files;
}

TEST(RestoreDrill, ABusyServerWithABuildOnAnotherVolumeIsBackedUpWhole) {
  auto& peers = rill::test::S3Peers::shared();
  if (!peers.skipReason().empty()) GTEST_SKIP() << peers.skipReason();
  ASSERT_EQ(peers.failure(), "");
  TempDir tmp;
  const fs::path data = tmp.path() / "data";
  const std::string token = offlineAdminToken(data.string());
  fs::create_directories(tmp.path() / "volume" / "b2");
  fs::create_directories(data / "builds");
  fs::create_symlink(tmp.path() / "volume" / "b2", data / "builds" / "b2");
  // What a crash left of a document write, from before this server started.
  const fs::path leftover = data / "users" / "ci.json.AbCdEfGh1234.tmp";
  std::ofstream(leftover) << "{";
  fs::last_write_time(leftover, fs::file_time_type::clock::now() - std::chrono::hours(1));

  Session server(data.string(), token);
  ASSERT_TRUE(server.up());
  EXPECT_FALSE(fs::exists(leftover));
  for (const auto& [build, path, bytes] :
       std::vector<std::tuple<std::string, std::string, std::string>>{
           {"b1", "app.bin", randomBytes(1 << 20, 1)},
           {"b1", "d%2Falso-empty", ""},
           {"b2", "data.pak", randomBytes(2 << 20, 2)},
           {"b2", "sub%2Fempty", ""}}) {
    ASSERT_EQ(server.call("PUT", "/api/builds/" + build + "/files?path=" + path, bytes).status,
              200);
  }
  ASSERT_EQ(server.call("POST", "/api/builds/b1/finalize").status, 200);
  ASSERT_EQ(server.call("POST", "/api/builds/b2/finalize").status, 200);
  // A bucket of its own: set-up refuses one holding the other drill's snapshots.
  auto s3 = peers.settings();
  s3.bucket = "busy-server";
  ASSERT_TRUE(rill::S3Client(s3).put("", "").isSuccess());
  const std::string key = (tmp.path() / "backup.key").string();
  const auto init = runProcess(kBinary, {"backup", "init", "--endpoint", s3.endpoint, "--bucket",
                                         s3.bucket, "--access-key", s3.accessKey, "--secret-key",
                                         s3.secretKey, "--key", key, "--data-dir", data.string()});
  ASSERT_EQ(init.exitCode, 0) << init.err;

  // An upload that keeps streaming into the staging area while the backup reads the directory.
  RawConnection upload(server.port());
  ASSERT_TRUE(
      upload.send("PUT /api/builds/b3/files?path=big.bin HTTP/1.1\r\nHost: x\r\n"
                  "Authorization: Bearer " +
                  token + "\r\nContent-Length: 1000000000\r\n\r\n"));
  std::atomic<bool> done{false};
  std::thread streaming([&] {
    for (int i = 0; i < 6000 && !done && upload.send(std::string(32 * 1024, 'u')); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  const fs::path staging = data / "builds" / "~incoming";
  for (int i = 0; i < 200 && (!fs::exists(staging) || fs::is_empty(staging)); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  const auto made = runProcess(kBinary, {"backup", "--data-dir", data.string()});
  done = true;
  streaming.join();
  ASSERT_EQ(made.exitCode, 0) << made.err;
  ASSERT_FALSE(fs::is_empty(staging)) << "the upload was not streaming during the backup";
  const std::string snapshot = made.out.substr(7, 20);

  const fs::path restored = tmp.path() / "restored";
  const auto restore =
      runProcess(kBinary, {"restore", snapshot, "--data-dir", restored.string(), "--key", key,
                           "--from", (data / "backup.json").string()});
  // From here on the restore must write empty files in subdirectories (b1's d/also-empty, b2's
  // sub/empty): that is the pull's part, which fails "cannot open .../d/also-empty" until it can.
  ASSERT_EQ(restore.exitCode, 0) << restore.err;
  auto expected = filesUnder(data);
  std::erase_if(expected, [](const auto& file) {
    return file.first.starts_with("builds/~incoming/") || file.first == "backup-state.json";
  });
  EXPECT_EQ(expected.count("builds/b2/files/sub/empty"), 1u);
  EXPECT_TRUE(filesUnder(restored) == expected) << "the restored tree differs";
  EXPECT_FALSE(fs::exists(restored / "builds" / "~incoming"));
  EXPECT_FALSE(fs::is_symlink(restored / "builds" / "b2"));
}

}  // namespace
}  // namespace quill::test
