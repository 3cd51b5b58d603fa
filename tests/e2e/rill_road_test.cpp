// The whole Rill road with the real programs on 127.0.0.1: quillmoor-rill publishes a signed build
// to the S3 peer, the server is given the bucket and a rill channel, and quillmoor-rill pulls the
// build through the server's presigned links with plain HTTP.

#include <json/value.h>

#include "e2e/e2e_support.h"
#include "rill/rill_trees.h"
#include "rill/transport/s3_client.h"
#include "rill/s3_peers.h"

namespace quill::test {
namespace {

namespace fs = std::filesystem;
using rill::test::treeContent;

const std::string kTool = QUILL_RILL_TOOL;

TEST(RillRoadE2E, SignedBuildFromCiToATesterAndRefusals) {
  QUILL_REQUIRE_S3_PEERS();
  Served s;
  ASSERT_TRUE(s.up);
  const fs::path tmp = s.tmp.path();
  const auto s3 = rill::test::S3Peers::shared().settings();
  const auto publish = [&](const fs::path& dir, const std::string& channel,
                           const std::vector<std::string>& extra) {
    std::vector<std::string> args{"publish",    dir.string(), "--channel",    channel,
                                  "--force",    "--endpoint", s3.endpoint,    "--bucket",
                                  s3.bucket,    "--access-key", s3.accessKey, "--secret-key",
                                  s3.secretKey};
    args.insert(args.end(), extra.begin(), extra.end());
    return runProcess(kTool, args);
  };
  const auto pull = [&](const std::string& into, const std::string& key = "") {
    std::vector<std::string> args{"pull", "road", (tmp / into).string(), "--server", s.url(""),
                                  "--token", s.token};
    if (!key.empty()) args.insert(args.end(), {"--verify-key", key});
    return runProcess(kTool, args);
  };

  const fs::path keyFile = tmp / "rill-secret.key";
  const auto keygen = runProcess(kTool, {"keygen", "--secret-file", keyFile.string()});
  ASSERT_EQ(keygen.exitCode, 0) << keygen.err;
  std::smatch m;
  ASSERT_TRUE(std::regex_search(keygen.out, m, std::regex("public key: ([0-9a-f]{64})\n")));
  const std::string publicKey = m.str(1);
  EXPECT_EQ(fs::status(keyFile).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);

  const fs::path source = tmp / "build";
  rill::test::writeBuild(source);
  const auto published = publish(source, "road", {"--build", "1.0.7", "--sign-key",
                                                  keyFile.string()});
  ASSERT_EQ(published.exitCode, 0) << published.err;
  EXPECT_TRUE(std::regex_search(published.out,
                                std::regex("^published road build 1.0.7: files 4, chunks [0-9]+, "
                                           "new [0-9]+, bytes [0-9.]+ (B|[KMG]iB), stored [0-9.]+ "
                                           "(B|[KMG]iB), time [0-9.]+ s \\([0-9.]+ "
                                           "(B|[KMG]iB)/s\\)\n")))
      << published.out;
  EXPECT_EQ(published.err, "") << "no progress line when the output is not a terminal";

  Json::Value creds(Json::objectValue);
  creds["endpoint"] = s3.endpoint;
  creds["bucket"] = s3.bucket;
  creds["access_key"] = s3.accessKey;
  creds["secret_key"] = s3.secretKey;
  ASSERT_EQ(s.admin("PUT", "/api/storage", creds.toStyledString()).status, 200);
  ASSERT_EQ(s.admin("POST", "/api/channels/road?engine=rill").status, 200);

  const auto pulled = pull("tester", publicKey);
  ASSERT_EQ(pulled.exitCode, 0) << pulled.err;
  EXPECT_EQ(treeContent(tmp / "tester"), treeContent(source));
  EXPECT_NE(pulled.out.find("pulled road build 1.0.7: files 4"), std::string::npos) << pulled.out;

  // Refusals, each into a fresh directory so nothing is copied from an earlier pull.
  rill::S3Client bucket(s3);
  const std::string manifestKey = "channels/road/manifest.json";
  const std::string manifest = bucket.get(manifestKey).body;
  ASSERT_EQ(bucket.put(manifestKey, manifest + " ").status, 200);
  EXPECT_EQ(pull("t1", publicKey).err, "signature does not verify\n");
  ASSERT_EQ(publish(source, "other", {}).exitCode, 0);
  ASSERT_EQ(bucket.put(manifestKey, bucket.get("channels/other/manifest.json").body).status, 200);
  EXPECT_EQ(pull("t2").err, "manifest is for channel 'other', not 'road'\n");
  ASSERT_EQ(bucket.put(manifestKey, manifest).status, 200);
  ASSERT_TRUE(std::regex_search(manifest, m, std::regex("\"h\" : \"([0-9a-f]{64})\"")));
  const std::string id = m.str(1);
  const std::string chunkKey = "chunks/" + id.substr(0, 2) + "/" + id;
  const std::string chunk = bucket.get(chunkKey).body;
  ASSERT_EQ(bucket.put(chunkKey, "tampered").status, 200);
  EXPECT_EQ(pull("t3", publicKey).err,
            "chunk " + id + " failed to decode/verify (corrupt or tampered)\n");

  // A pull that breaks off on a missing chunk leaves the finished files; the next run completes
  // and downloads only what is still missing.
  ASSERT_EQ(bucket.remove(chunkKey).status / 100, 2);
  const auto broken = pull("resumed", publicKey);
  EXPECT_EQ(broken.exitCode, 1);
  EXPECT_EQ(broken.err, "chunk URL -> HTTP 404\n");
  ASSERT_EQ(bucket.put(chunkKey, chunk).status, 200);
  const auto again = pull("resumed", publicKey);
  ASSERT_EQ(again.exitCode, 0) << again.err;
  EXPECT_EQ(treeContent(tmp / "resumed"), treeContent(source));
  ASSERT_TRUE(std::regex_search(again.out, m,
                                std::regex("chunks ([0-9]+), new ([0-9]+), reused ([0-9]+)")));
  EXPECT_LT(std::stoi(m.str(2)), std::stoi(m.str(1))) << again.out;
  EXPECT_GT(std::stoi(m.str(3)), 0) << again.out;

  EXPECT_EQ(runProcess(kTool, {"pull", "road", (tmp / "x").string(), "--server", s.url("")}).err,
            "server answered HTTP 401: missing or invalid token\n");
}

TEST(RillRoadE2E, ToolRefusesBadCommandLines) {
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
}

}  // namespace
}  // namespace quill::test
