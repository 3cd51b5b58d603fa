// The whole Rill road with the real programs on 127.0.0.1: quillmoor-rill publishes a signed build
// to the S3 peer, the server is given the bucket and a rill channel, and quillmoor-rill pulls the
// build through the server's presigned links with plain HTTP.

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>

#include <regex>

#include "rill/rill_trees.h"
#include "rill/s3_client.h"
#include "rill/s3_peers.h"
#include "e2e/e2e_support.h"
#include "support/http_client.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace quill::test {
namespace {

namespace fs = std::filesystem;
using rill::test::S3Peers;
using rill::test::treeContent;

const std::string kTool = QUILL_RILL_TOOL;

class RillRoadE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    QUILL_REQUIRE_S3_PEERS();
    data_ = (tmp_.path() / "data").string();
    token_ = offlineAdminToken(data_);
    server_ =
        std::make_unique<ServerProcess>(kBinary, std::vector<std::string>{"--data-dir", data_});
    ASSERT_TRUE(server_->waitUntilListening());
  }

  std::vector<std::string> storage() const {
    return {
        "--endpoint",   S3Peers::shared().endpoint(), "--bucket",     rill::test::kPeerBucket,
        "--access-key", rill::test::kPeerAccessKey,   "--secret-key", rill::test::kPeerSecretKey};
  }

  ProcessResult publish(const fs::path& dir, const std::string& channel,
                        std::vector<std::string> extra = {}) {
    std::vector<std::string> args{"publish", dir.string(), "--channel", channel, "--force"};
    args.insert(args.end(), extra.begin(), extra.end());
    for (const auto& a : storage()) args.push_back(a);
    return runProcess(kTool, args);
  }

  ProcessResult pull(const std::string& channel, const fs::path& dir, const std::string& key = "") {
    std::vector<std::string> args{"pull",           channel,   dir.string(), "--server",
                                  server_->url(""), "--token", token_};
    if (!key.empty()) args.insert(args.end(), {"--verify-key", key});
    return runProcess(kTool, args);
  }

  Fetched asAdmin(const std::string& method, const std::string& path,
                  const std::string& body = "") {
    return client_.fetch(method, server_->url(path), body, bearer(token_));
  }

  // Gives the server the peer's bucket and makes `channel` a rill channel.
  void serveFromBucket(const std::string& channel) {
    Json::Value creds(Json::objectValue);
    creds["endpoint"] = S3Peers::shared().endpoint();
    creds["bucket"] = rill::test::kPeerBucket;
    creds["access_key"] = rill::test::kPeerAccessKey;
    creds["secret_key"] = rill::test::kPeerSecretKey;
    const std::string body = Json::writeString(Json::StreamWriterBuilder(), creds);
    ASSERT_EQ(asAdmin("PUT", "/api/storage", body).status, 200);
    ASSERT_EQ(asAdmin("POST", "/api/channels/" + channel + "?engine=rill").status, 200);
  }

  TempDir tmp_;
  std::string data_;
  std::string token_;
  std::unique_ptr<ServerProcess> server_;
  Client client_;
};

TEST_F(RillRoadE2E, SignedBuildFromCiToATesterAndRefusals) {
  const fs::path keyFile = tmp_.path() / "rill-secret.key";
  const auto keygen = runProcess(kTool, {"keygen", "--secret-file", keyFile.string()});
  ASSERT_EQ(keygen.exitCode, 0) << keygen.err;
  std::smatch m;
  ASSERT_TRUE(std::regex_search(keygen.out, m, std::regex("public key: ([0-9a-f]{64})\n")));
  const std::string publicKey = m.str(1);
  EXPECT_EQ(fs::status(keyFile).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);

  const fs::path source = tmp_.path() / "build";
  rill::test::writeBuild(source);
  const auto published =
      publish(source, "road", {"--build", "1.0.7", "--sign-key", keyFile.string()});
  ASSERT_EQ(published.exitCode, 0) << published.err;
  EXPECT_TRUE(std::regex_search(published.out,
                                std::regex("^published road build 1.0.7: files 4, chunks [0-9]+, "
                                           "new [0-9]+, bytes [0-9.]+ (B|[KMG]iB), stored [0-9.]+ "
                                           "(B|[KMG]iB), time [0-9.]+ s \\([0-9.]+ "
                                           "(B|[KMG]iB)/s\\)\n")))
      << published.out;
  EXPECT_EQ(published.err, "") << "no progress line when the output is not a terminal";

  serveFromBucket("road");

  const fs::path tester = tmp_.path() / "tester";
  const auto pulled = pull("road", tester, publicKey);
  ASSERT_EQ(pulled.exitCode, 0) << pulled.err;
  EXPECT_EQ(treeContent(tester), treeContent(source));
  EXPECT_NE(pulled.out.find("pulled road build 1.0.7: files 4"), std::string::npos) << pulled.out;

  // Refusals, each into a fresh directory so nothing is copied from an earlier pull.
  rill::S3Client bucket(S3Peers::shared().settings());
  const std::string manifestKey = "channels/road/manifest.json";
  const std::string manifest = bucket.get(manifestKey).body;
  ASSERT_EQ(bucket.put(manifestKey, manifest + " ").status, 200);
  auto refused = pull("road", tmp_.path() / "t1", publicKey);
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.err, "signature does not verify\n");

  ASSERT_EQ(publish(source, "other").exitCode, 0);
  ASSERT_EQ(bucket.put(manifestKey, bucket.get("channels/other/manifest.json").body).status, 200);
  refused = pull("road", tmp_.path() / "t2");
  EXPECT_EQ(refused.err, "manifest is for channel 'other', not 'road'\n");

  ASSERT_EQ(bucket.put(manifestKey, manifest).status, 200);
  ASSERT_TRUE(std::regex_search(manifest, m, std::regex("\"h\" : \"([0-9a-f]{64})\"")));
  const std::string id = m.str(1);
  const std::string chunkKey = "chunks/" + id.substr(0, 2) + "/" + id;
  const std::string chunk = bucket.get(chunkKey).body;
  ASSERT_EQ(bucket.put(chunkKey, "tampered").status, 200);
  refused = pull("road", tmp_.path() / "t3", publicKey);
  EXPECT_EQ(refused.err, "chunk " + id + " failed to decode/verify (corrupt or tampered)\n");

  // A pull that breaks off on a missing chunk leaves the finished files; the next run completes
  // and downloads only what is still missing.
  ASSERT_EQ(bucket.remove(chunkKey).status / 100, 2);
  const fs::path resumed = tmp_.path() / "resumed";
  refused = pull("road", resumed, publicKey);
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.err, "chunk URL -> HTTP 404\n");
  ASSERT_EQ(bucket.put(chunkKey, chunk).status, 200);
  const auto again = pull("road", resumed, publicKey);
  ASSERT_EQ(again.exitCode, 0) << again.err;
  EXPECT_EQ(treeContent(resumed), treeContent(source));
  ASSERT_TRUE(std::regex_search(again.out, m,
                                std::regex("chunks ([0-9]+), new ([0-9]+), reused ([0-9]+)")));
  EXPECT_LT(std::stoi(m.str(2)), std::stoi(m.str(1))) << again.out;
  EXPECT_GT(std::stoi(m.str(3)), 0) << again.out;
}

TEST_F(RillRoadE2E, UpdatesFollowShapeChangesEmptyFilesAndClashingNames) {
  serveFromBucket("shapes");
  const fs::path source = tmp_.path() / "build";
  const fs::path tester = tmp_.path() / "tester";
  rill::test::writeFile(source / "d/also-empty", "");
  rill::test::writeFile(source / "data.pak", rill::test::randomBytes(3 << 20, 5));
  rill::test::writeFile(source / "data.pak.part", std::string(1000, 'p'));
  rill::test::writeFile(source / "a", "a file");
  ASSERT_EQ(publish(source, "shapes").exitCode, 0);
  auto pulled = pull("shapes", tester);
  ASSERT_EQ(pulled.exitCode, 0) << pulled.err;
  EXPECT_EQ(treeContent(tester), treeContent(source));

  // The next build: a file becomes a directory, a directory a file, a file is dropped.
  fs::remove_all(source);
  rill::test::writeFile(source / "a/inside", "now a directory");
  rill::test::writeFile(source / "d", "now a file");
  rill::test::writeFile(source / "data.pak", rill::test::randomBytes(3 << 20, 5));
  ASSERT_EQ(publish(source, "shapes").exitCode, 0);
  pulled = pull("shapes", tester);
  ASSERT_EQ(pulled.exitCode, 0) << pulled.err;
  EXPECT_EQ(treeContent(tester), treeContent(source));
}

TEST_F(RillRoadE2E, ToolRefusesBadCommandLines) {
  EXPECT_EQ(runProcess(kTool, {"publish", "--help"}).exitCode, 0);
  const struct {
    std::vector<std::string> args;
    std::string err;
  } cases[] = {
      {{}, "a command is required: publish, pull or keygen\n"},
      {{"push"}, "unknown command 'push'\n"},
      {{"publish", "dir"}, "--channel is required\n"},
      {{"publish", "dir", "--channel", "bad name"}, "invalid channel name\n"},
      {{"publish", "dir", "--channel", "c", "--endpoint"}, "--endpoint needs a value\n"},
      {{"pull", "c", "dir", "--wat"}, "unknown option --wat\n"},
      {{"publish", "dir", "--channel", "c", "--endpoint", "ftp://x", "--bucket", "b",
        "--access-key", "a", "--secret-key", "s"},
       "endpoint must start with https:// (or http:// for a local test server)\n"},
      {{"pull", "c", "dir", "--server", "http://127.0.0.1:" + std::to_string(freePort())},
       "cannot reach server: curl: "},
  };
  for (const auto& c : cases) {
    const auto r = runProcess(kTool, c.args);
    EXPECT_EQ(r.exitCode, 1) << c.err;
    EXPECT_EQ(r.err.substr(0, c.err.size()), c.err);
  }
  const auto unauthorised = runProcess(
      kTool, {"pull", "road", (tmp_.path() / "x").string(), "--server", server_->url("")});
  EXPECT_EQ(unauthorised.err, "server answered HTTP 401: missing or invalid token\n");
}

}  // namespace
}  // namespace quill::test
