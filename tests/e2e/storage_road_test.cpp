// The real programs with the S3 peer on 127.0.0.1. One road: CI publishes Barge builds (one kept
// on another volume) and, with quillmoor-rill, a signed Rill build that a tester pulls through the
// server's presigned links; the server is backed up, restored by the command, and the restored
// server serves both kinds to the old token. And a bucket that never answers holds up no route
// but its own. What a snapshot leaves out (uploads arriving) is the snapshot engine's tests'.

#include "e2e/e2e_support.h"
#include "rill/hostile_bucket.h"
#include "rill/s3_peers.h"
#include "rill/transport/s3_client.h"

namespace quill::test {
namespace {

// `words` followed by the options naming the bucket of `s3`.
Args withBucket(Args words, const rill::S3Settings& s3) {
  words.insert(words.end(), {"--endpoint", s3.endpoint, "--bucket", s3.bucket, "--access-key",
                             s3.accessKey, "--secret-key", s3.secretKey});
  return words;
}

TEST(StorageRoad, PublishPullBackUpRestoreAndServeAgain) {
  QUILL_REQUIRE_S3_PEERS();
  Served old;
  ASSERT_TRUE(old.up);
  const fs::path tmp = old.tmp.path(), data = old.data, key = tmp / "rill.key";
  const TempDir shm("/dev/shm");
  const fs::path volume = shm.path().empty() ? tmp / "volume" : shm.path();
  fs::create_directories(volume / "b2");
  fs::create_directory_symlink(volume / "b2", data / "builds" / "b2");
  for (const auto& [target, bytes] :
       std::map<std::string, std::string>{{"b1/files?path=app.bin", randomBytes(1 << 20, 1)},
                                          {"b1/files?path=d%2Fempty", ""},
                                          {"b2/files?path=data.pak", randomBytes(2 << 20, 2)},
                                          {"b2/files?path=s%2Fempty", ""},
                                          {"b1/finalize", ""}, {"b2/finalize", ""}}) {
    const bool finalize = target.ends_with("finalize");
    ASSERT_EQ(old.admin(finalize ? "POST" : "PUT", "/api/builds/" + target, bytes).status, 200);
  }

  const auto s3 = rill::test::S3Peers::shared().settings();
  std::smatch m;
  const auto keygen = runProcess(kTool, {"keygen", "--secret-file", key});
  ASSERT_TRUE(std::regex_search(keygen.out, m, std::regex("public key: ([0-9a-f]{64})\n")));
  const std::string publicKey = m.str(1);
  EXPECT_EQ(fs::status(key).permissions() & fs::perms::all, fs::perms(0600));
  rill::test::writeBuild(tmp / "build");
  const Args publish{"publish",  tmp / "build", "--channel", "road", "--force",
                     "--build",  "1.0.7",       "--sign-key", key};
  const auto published = runProcess(kTool, withBucket(publish, s3));
  const std::string size = "[0-9.]+ (B|[KMG]iB)";
  EXPECT_TRUE(std::regex_match(published.out,
                               std::regex("published road build 1.0.7: files 4, chunks [0-9]+, new "
                                          "[0-9]+, bytes " + size + ", stored " + size +
                                          ", time [0-9.]+ s \\(" + size + "/s\\)\n")))
      << published.out;
  EXPECT_EQ(published.err, "") << "no progress line when the output is not a terminal";
  const std::string storage = R"({"endpoint":")" + s3.endpoint + R"(","bucket":")" + s3.bucket +
                              R"(","access_key":")" + s3.accessKey + R"(","secret_key":")" +
                              s3.secretKey + "\"}";
  ASSERT_EQ(old.admin("PUT", "/api/storage", storage).status, 200);
  ASSERT_EQ(old.admin("POST", "/api/channels/road?engine=rill").status, 200);
  const auto pull = [&](const Served& from, const std::string& into, const std::string& token) {
    return runProcess(kTool, {"pull", "road", tmp / into, "--server", from.url(""), "--token",
                              token, "--verify-key", publicKey});
  };
  const auto pulled = pull(old, "tester", old.token);
  EXPECT_TRUE(pulled.out.starts_with("pulled road build 1.0.7: files 4")) << pulled.out;
  EXPECT_EQ(treeContent(tmp / "tester"), treeContent(tmp / "build"));
  EXPECT_EQ(pull(old, "x", "").err, "server answered HTTP 401: missing or invalid token\n");

  // Backups to a bucket of their own, set up by the command beside the running server.
  auto backups = s3;
  backups.bucket = "drill";
  ASSERT_TRUE(rill::S3Client(backups).put("", "").isSuccess());
  const Args init{"backup", "init", "--key", tmp / "backup.key", "--data-dir", data};
  ASSERT_EQ(runProcess(kBinary, withBucket(init, backups)).exitCode, 0);
  const std::string snapshot =
      parseJson(old.admin("POST", "/api/backup").body)["snapshot"].asString();
  Json::Value last;
  eventually([&] {
    last = parseJson(old.admin("GET", "/api/backups").body)["last"];
    return last["snapshot"] == snapshot;
  });
  ASSERT_EQ(last["ok"], true) << last;

  const fs::path into = tmp / "restored";
  const auto restored = runProcess(kBinary, {"restore", snapshot, "--data-dir", into, "--key",
                                             tmp / "backup.key", "--from", data / "backup.json"});
  ASSERT_EQ(restored.exitCode, 0) << restored.err;
  auto expected = treeContent(data);
  for (const auto& [path, bytes] : treeContent(volume / "b2")) 
    expected["builds/b2/" + path] = bytes;
  expected.erase("backup-state.json");
  EXPECT_TRUE(treeContent(into) == expected) << "the restored tree differs";
  EXPECT_FALSE(fs::is_symlink(into / "builds" / "b2"));
  Served fresh({}, into);
  ASSERT_TRUE(fresh.up);
  EXPECT_TRUE(fresh.client.fetch("GET", fresh.url("/api/builds/b2/files?path=data.pak"), "",
                                 bearer(old.token)).body == expected["builds/b2/files/data.pak"]);
  ASSERT_EQ(pull(fresh, "again", old.token).exitCode, 0);
  EXPECT_EQ(treeContent(tmp / "again"), treeContent(tmp / "build"));
}

TEST(StorageRoad, SyncsWaitingOnAStalledBucketHoldUpNoOtherRoute) {
  rill::test::HostileBucket bucket;
  QUILL_REQUIRE_HOSTILE_BUCKET(bucket);
  bucket.plantStall("channels/stalled/manifest.json");
  const TempDir tmp;
  const std::string token = offlineAdminToken(tmp.path() / "d");
  writeFile(tmp.path() / "d" / "rill.json", R"({"schema_version":1,"bucket":"b","access_key":"x",)"
                                            R"("secret_key":"y","endpoint":")" +
                                                bucket.settings().endpoint + "\"}");
  Served s({}, tmp.path() / "d");
  s.token = token;
  ASSERT_EQ(s.admin("POST", "/api/channels/stalled?engine=rill").status, 200);
  std::vector<std::unique_ptr<RawConnection>> syncs;  // more than the bucket's pool (8 threads)
  for (int i = 0; i < 12; ++i) {
    syncs.push_back(std::make_unique<RawConnection>(s.server->port()));
    syncs.back()->send(rawHead("GET", "/api/rill/sync/stalled", 0, s.auth()));
  }
  EXPECT_EQ(syncs.front()->readUntil("HTTP/1.1", 500ms), "");
  const std::string closed = "http://127.0.0.1:" + std::to_string(freePort());
  const std::tuple<const char*, const char*, std::string, long> others[] = {
      {"GET", "/api/backups", "", 200}, {"GET", "/api/storage", "", 200},
      {"GET", "/api/sso/start?port=5000", "", 404}, {"GET", "/api/builds", "", 200},
      {"POST", "/api/storage/test",
       R"({"bucket":"b","access_key":"x","secret_key":"y","endpoint":")" + closed + "\"}", 400}};
  for (const auto& [method, path, body, status] : others) {
    EXPECT_EQ(s.admin(method, path, body).status, status) << path;
  }
}

}  // namespace
}  // namespace quill::test
