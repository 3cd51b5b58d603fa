// The restore drill with the real binary and the S3 test peer: a server with users, tokens, builds
// and channels is backed up over HTTP, restored by the command into a new directory, and a server
// started there accepts the old token and serves the builds byte for byte. And a busy server, one
// build kept on another volume, backed up by the command while an upload streams in.

#include <json/value.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>
#include <tuple>

#include "e2e/e2e_support.h"
#include "rill/s3_peers.h"

namespace quill::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

ProcessResult restoreCommand(const std::string& snapshot, const fs::path& into,
                             const std::string& key, const std::string& data) {
  return runProcess(kBinary, {"restore", snapshot, "--data-dir", into.string(), "--key", key,
                              "--from", data + "/backup.json"});
}

TEST(RestoreDrill, ARestoredServerAcceptsTheOldTokensAndServesTheSameBuilds) {
  QUILL_REQUIRE_S3_PEERS();
  Served old;
  ASSERT_TRUE(old.up);
  const std::string app = randomBytes(3 << 20, 42);
  ASSERT_EQ(old.admin("PUT", "/api/builds/b1/files?path=bin%2Fapp.bin", app).status, 200);
  for (const char* step : {"/api/builds/b1/finalize", "/api/channels/stable",
                           "/api/channels/stable/promote?build=b1"}) {
    ASSERT_EQ(old.admin("POST", step).status, 200) << step;
  }
  const auto s3 = rill::test::S3Peers::shared().settings();
  auto init = old.admin("POST", "/api/backup/init",
                        R"({"mode":"separate","endpoint":")" + s3.endpoint + R"(","bucket":")" +
                            s3.bucket + R"(","access_key":")" + s3.accessKey +
                            R"(","secret_key":")" + s3.secretKey + R"("})");
  ASSERT_EQ(init.status, 200) << init.body;
  const std::string key = parseJson(init.body)["key"].asString();
  auto started = old.admin("POST", "/api/backup");
  ASSERT_EQ(started.status, 202) << started.body;
  const std::string snapshot = parseJson(started.body)["snapshot"].asString();
  Json::Value last;
  eventually([&] {
    last = parseJson(old.admin("GET", "/api/backups").body)["last"];
    return last["snapshot"].asString() == snapshot;
  });
  ASSERT_EQ(last["ok"], true) << last["error"].asString();
  old.server.reset();

  const fs::path into = old.tmp.path() / "restored";
  const auto restored = restoreCommand(snapshot, into, key, old.data());
  ASSERT_EQ(restored.exitCode, 0) << restored.err;
  EXPECT_TRUE(std::regex_match(restored.out,
                               std::regex("restored " + snapshot + " -> " + into.string() +
                                          ": [0-9]+ file\\(s\\), [0-9]+ bytes \\(verified\\)\n"
                                          "Check backup.json's key_file path on this machine "
                                          "before the next backup.\n")))
      << restored.out;
  ServerProcess fresh(kBinary, {"--data-dir", into.string()});
  ASSERT_TRUE(fresh.waitUntilListening());
  Client client;
  const auto get = [&](const std::string& path) {
    return client.fetch("GET", fresh.url(path), "", bearer(old.token));
  };
  EXPECT_EQ(parseJson(get("/api/me").body)["name"], "ci");
  EXPECT_TRUE(get("/api/builds/b1/files?path=bin%2Fapp.bin").body == app) << "the build differs";
  EXPECT_EQ(parseJson(get("/api/channels/stable").body)["build"], "b1");
}

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
  QUILL_REQUIRE_S3_PEERS();
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

  ServerProcess server(kBinary, {"--data-dir", data.string()});
  ASSERT_TRUE(server.waitUntilListening());
  EXPECT_FALSE(fs::exists(leftover));
  Client client;
  for (const auto& [target, bytes] : std::vector<std::pair<std::string, std::string>>{
           {"b1/files?path=app.bin", randomBytes(1 << 20, 1)},
           {"b1/files?path=d%2Falso-empty", ""},
           {"b2/files?path=data.pak", randomBytes(2 << 20, 2)},
           {"b2/files?path=sub%2Fempty", ""}}) {
    ASSERT_EQ(client.fetch("PUT", server.url("/api/builds/" + target), bytes, bearer(token)).status,
              200);
  }
  for (const char* build : {"b1", "b2"}) {
    ASSERT_EQ(client.fetch("POST", server.url(std::string("/api/builds/") + build + "/finalize"),
                           "", bearer(token)).status, 200);
  }
  // A bucket of its own: set-up refuses one holding the other drill's snapshots.
  auto s3 = rill::test::S3Peers::shared().settings();
  s3.bucket = "busy-server";
  ASSERT_TRUE(rill::S3Client(s3).put("", "").isSuccess());
  const std::string key = (tmp.path() / "backup.key").string();
  const auto init = runProcess(kBinary, {"backup", "init", "--endpoint", s3.endpoint, "--bucket",
                                         s3.bucket, "--access-key", s3.accessKey, "--secret-key",
                                         s3.secretKey, "--key", key, "--data-dir", data.string()});
  ASSERT_EQ(init.exitCode, 0) << init.err;

  // An upload that keeps streaming into the staging area while the backup reads the directory.
  RawConnection upload(server.port());
  ASSERT_TRUE(upload.send("PUT /api/builds/b3/files?path=big.bin HTTP/1.1\r\nHost: x\r\n"
                          "Authorization: Bearer " + token +
                          "\r\nContent-Length: 1000000000\r\n\r\n"));
  std::atomic<bool> done{false};
  std::thread streaming([&] {
    for (int i = 0; i < 6000 && !done && upload.send(std::string(32 * 1024, 'u')); ++i) {
      std::this_thread::sleep_for(5ms);
    }
  });
  const fs::path staging = data / "builds" / "~incoming";
  eventually([&] { return fs::exists(staging) && !fs::is_empty(staging); });
  const auto made = runProcess(kBinary, {"backup", "--data-dir", data.string()});
  done = true;
  streaming.join();
  ASSERT_EQ(made.exitCode, 0) << made.err;
  ASSERT_FALSE(fs::is_empty(staging)) << "the upload was not streaming during the backup";

  const fs::path restored = tmp.path() / "restored";
  // Empty files in subdirectories (b1's d/also-empty, b2's sub/empty) are the pull's to write.
  const auto restore = restoreCommand(made.out.substr(7, 20), restored, key, data.string());
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
