// The real server with a bucket that accepts and never answers: syncs fill the bucket's own pool,
// and every other route still answers at once.

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <vector>

#include "e2e/e2e_support.h"
#include "rill/hostile_bucket.h"
#include "support/http_client.h"
#include "support/temp_dir.h"

namespace quill::test {
namespace {

TEST(StalledBucket, SyncsWaitingOnItHoldUpNoOtherRoute) {
  rill::test::HostileBucket bucket;
  QUILL_REQUIRE_HOSTILE_BUCKET(bucket);
  bucket.plantStall("channels/stalled/manifest.json");
  TempDir data;
  const std::string token = offlineAdminToken(data.path().string());
  std::ofstream(data.path() / "rill.json")
      << R"({"schema_version": 1, "bucket": "b", "access_key": "x", "secret_key": "y",)"
      << R"( "endpoint": ")" << bucket.settings().endpoint << "\"}";
  ServerProcess server(kBinary, {"--data-dir", data.path().string()});
  ASSERT_TRUE(server.waitUntilListening());
  Client client;
  ASSERT_EQ(client.fetch("POST", server.url("/api/channels/stalled?engine=rill"), "", bearer(token))
                .status,
            200);

  // More than the bucket's pool holds (8 threads).
  std::vector<std::unique_ptr<RawConnection>> syncs;
  for (int i = 0; i < 12; ++i) {
    syncs.push_back(std::make_unique<RawConnection>(server.port()));
    syncs.back()->send("GET /api/rill/sync/stalled HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " +
                       token + "\r\n\r\n");
  }
  EXPECT_EQ(syncs.front()->readUntil("HTTP/1.1", std::chrono::milliseconds(500)), "");

  const std::string elsewhere = "http://127.0.0.1:" + std::to_string(freePort());
  const struct {
    const char* method;
    const char* path;
    std::string body;
    long status;
  } others[] = {
      {"GET", "/api/backups", "", 200},
      {"GET", "/api/storage", "", 200},
      {"POST", "/api/storage/test",
       R"({"bucket": "b", "access_key": "x", "secret_key": "y", "endpoint": ")" + elsewhere + "\"}",
       400},
      {"GET", "/api/sso/start?port=5000", "", 404},
      {"GET", "/api/builds", "", 200},
  };
  for (const auto& other : others) {
    const Fetched answer =
        client.fetch(other.method, server.url(other.path), other.body, bearer(token));
    EXPECT_EQ(answer.status, other.status) << other.path << ": " << answer.error << answer.body;
  }
}

}  // namespace
}  // namespace quill::test
