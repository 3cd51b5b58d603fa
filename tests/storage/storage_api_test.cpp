// The storage settings endpoints and the sync endpoint through the route table, against the real
// S3 peer, so the probe classifies the store's own answers.

#include <gtest/gtest.h>

#include <regex>

#include "base/http_client.h"
#include "rill/providers/bucket_probe.h"
#include "rill/hostile_bucket.h"
#include "rill/ops/publish.h"
#include "rill/rill_trees.h"
#include "rill/s3_peers.h"
#include "rill/providers/s3_provider.h"
#include "rill/transport/s3_settings.h"
#include "store/documents.h"
#include "support/api_fixture.h"
#include "support/http_client.h"

namespace quill::test {
namespace {

using rill::test::S3Peers;

class StorageApiTest : public ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    QUILL_REQUIRE_S3_PEERS();
  }

  http::Response sync(const std::string& channel, const std::string& ttl = "") {
    Req req("GET", "/api/rill/sync/" + channel);
    if (!ttl.empty()) req.q("ttl", ttl);
    return asAdmin(req);
  }

  fs::path settingsFile() const { return data().root() / "rill.json"; }

  // {"endpoint": {"endpoint": ...}} nested far deeper than any reader should follow.
  static std::string deepObject() {
    std::string text;
    for (int i = 0; i < 50000; ++i) text += "{\"endpoint\":";
    return text + "1" + std::string(50000, '}');
  }

  // The descriptor of a sync answer (sent from a file).
  static Json::Value descriptorOf(const http::Response& res) { return parseJson(fileBody(res)); }

  // Publishes a small tree to `channel` in the peer's bucket.
  rill::Manifest publish(const std::string& channel) {
    rill::test::writeBuild(dir() / "source");
    rill::S3Provider bucket(S3Peers::shared().settings());
    rill::PublishOptions o;
    o.channel = channel;
    o.build = "b42";
    o.created = "2026-03-04T05:06:07Z";
    o.force = true;
    o.chunker = rill::test::kSmallChunks;
    auto report = rill::publishDirectory(bucket, dir() / "source", o);
    EXPECT_TRUE(report) << report.error();
    return report.value().manifest;
  }
};

TEST_F(StorageApiTest, SettingsAreCheckedSavedShownWithoutTheSecretProbedAndForgotten) {
  vars_["s3"] = S3Peers::shared().endpoint();
  vars_["bucket"] = rill::test::kPeerBucket;
  vars_["ak"] = rill::test::kPeerAccessKey;
  vars_["sk"] = rill::test::kPeerSecretKey;
  vars_["closed"] = "http://127.0.0.1:" + std::to_string(freePort());
  vars_["deep"] = deepObject();
  walk(R"(
    GET /api/storage => 200 {"configured":false,"schema_version":1}
    user mel member
    mel GET /api/storage => 403 this operation requires the admin role
    # Bad settings are refused and nothing is saved; the secret is never quoted.
    PUT /api/storage => 400 JSON body required
    PUT /api/storage { => 400 JSON body required
    PUT /api/storage [1] => 400 JSON object required
    PUT /api/storage {"endpoint":"$s3","bucket":"$bucket","access_key":"$ak","secret_key":"$sk","region":5} => 400 region must be a string
    PUT /api/storage {"endpoint":"$s3","bucket":"","access_key":"$ak","secret_key":"$sk"} => 400 endpoint, bucket, access_key and secret_key are required
    PUT /api/storage {"endpoint":"ftp://127.0.0.1/","bucket":"$bucket","access_key":"$ak","secret_key":"$sk"} => 400 endpoint must start with https:// (or http:// for a local test server)
    PUT /api/storage {"endpoint":"$s3","bucket":"$bucket","access_key":"$ak","secret_key":"wrong"} => 400 ^access denied - check the access key and secret ( ; !has:wrong ; has:SignatureDoesNotMatch
    PUT /api/storage {"endpoint":"$s3","bucket":"$bucket","access_key":"NOBODY","secret_key":"$sk"} => 400 ^access denied - check the access key and secret (
    PUT /api/storage {"endpoint":"$s3","bucket":"no-such-bucket","access_key":"$ak","secret_key":"$sk"} => 400 ^bucket not found - check the bucket name and endpoint (
    PUT /api/storage {"endpoint":"$closed","bucket":"$bucket","access_key":"$ak","secret_key":"$sk"} => 400 ^could not reach the bucket - check the endpoint: curl:\s
    PUT /api/storage {100000*[} => 400 JSON body required
    PUT /api/storage $deep => 400 JSON body required
    file rill.json absent
    # A probe of the given or the saved settings.
    POST /api/storage/test => 400 rill storage not configured (missing data-dir rill.json)
    POST /api/storage/test $deep => 400 rill storage not configured (missing data-dir rill.json)
    POST /api/storage/test {"endpoint":"$s3","bucket":"$bucket","access_key":"$ak","secret_key":"$sk"} => 200 {"bucket":"quill-test","ok":true,"schema_version":1}
    POST /api/storage/test {"endpoint":"$s3","bucket":"$bucket","access_key":"$ak","secret_key":7} => 400 secret_key must be a string
    write rill.json {"schema_version": 1, "endpoint": "http://x"}
    POST /api/storage/test {} => 400 rill.json missing endpoint/bucket/access_key/secret_key
    # Saved without a region: "auto".
    PUT /api/storage {"endpoint":"$s3","bucket":"$bucket","access_key":"$ak","secret_key":"$sk"} => 200 .access_key_hint="...RVER" ; .region="auto" ; .secret_key! ; $hint=.access_key_hint
    GET /api/storage => 200 .access_key_hint="...RVER" ; .region="auto" ; .secret_key!
    file rill.json .secret_key="$sk" ; .#=6
    POST /api/storage/test => 200
    POST /api/storage/test {} => 200
  )");
  EXPECT_EQ(fs::status(settingsFile()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  walk(R"(
    DELETE /api/storage => 200 {"configured":false,"schema_version":1}
    file rill.json absent
    DELETE /api/storage => 200
  )");
  EXPECT_EQ(rill::accessKeyHint("abcd"), "");
  EXPECT_EQ(rill::accessKeyHint("abcde"), "...bcde");
}

TEST_F(StorageApiTest, SyncDescriptorLinksEveryChunkOfARillChannel) {
  EXPECT_TRUE(isError(sync("bad name"), 400, "invalid channel name"));
  EXPECT_TRUE(isError(sync("nope"), 404, "no such Rill channel"));
  writeChannel("barge-one");
  EXPECT_TRUE(isError(sync("barge-one"), 404, "no such Rill channel"));

  walk("POST /api/channels/api-sync?engine=rill => 200");
  EXPECT_TRUE(isError(sync("api-sync"), 503,
                      "rill: rill storage not configured (missing data-dir rill.json)"));
  vars_["s3"] = S3Peers::shared().endpoint();
  walk(R"(PUT /api/storage {"endpoint":"$s3","bucket":"quill-test","access_key":")" +
       std::string(rill::test::kPeerAccessKey) + R"(","secret_key":")" + rill::test::kPeerSecretKey +
       "\"} => 200");
  walk("POST /api/channels/api-empty?engine=rill => 200");
  const auto empty = sync("api-empty");
  EXPECT_EQ(empty.status, 503u);
  EXPECT_EQ(bodyOf(empty)["error"].asString().rfind(
                "rill: GET channels/api-empty/manifest.json -> HTTP 404", 0),
            0u);

  const rill::Manifest manifest = publish("api-sync");
  const auto res = as(seedUser("tess", "member"), Req("GET", "/api/rill/sync/api-sync"));
  ASSERT_EQ(res.status, 200u);
  EXPECT_EQ(res.contentType, http::kJsonType);
  EXPECT_NE(fileBody(res).find("\n  \"build\" : \"b42\""), std::string::npos) << "indented JSON";
  const Json::Value d = descriptorOf(res);
  EXPECT_EQ(d["channel"], "api-sync");
  EXPECT_EQ(d["created"], "2026-03-04T05:06:07Z");
  EXPECT_EQ(d["chunks"].size(), manifest.tree.stats.unique_chunks);
  const std::string id = manifest.tree.files[1].chunks[0].h;
  const base::HttpResponse chunk = base::performHttp({"GET", d["chunks"][id].asString(), {}, {}});
  EXPECT_EQ(chunk.status, 200);
  EXPECT_EQ(base::performHttp({"GET", d["manifest_url"].asString(), {}, {}}).status, 200);
  EXPECT_EQ(base::performHttp({"GET", d["manifest_sig_url"].asString(), {}, {}}).status, 404);

  const std::regex expires("X-Amz-Expires=([0-9]+)");
  for (const auto& [ttl, seconds] : {std::pair<std::string, std::string>{"", "300"},
                                     {"0", "300"},
                                     {"abc", "300"},
                                     {"-5", "300"},
                                     {"86400", "86400"}}) {
    std::smatch m;
    const std::string url = descriptorOf(sync("api-sync", ttl))["manifest_url"].asString();
    ASSERT_TRUE(std::regex_search(url, m, expires)) << url;
    EXPECT_EQ(m[1], seconds) << "ttl=" << ttl;
  }

  // A promotion is the file-by-file operation and leaves no engine behind.
  writeChannel("api-sync", "");
  EXPECT_TRUE(isError(sync("api-sync"), 404, "no such Rill channel"));
}

// The sync endpoint reads no more of a manifest than its bound, whatever the bucket sends.
TEST_F(StorageApiTest, SyncReadsNoMoreOfAManifestThanItsBound) {
  rill::test::HostileBucket bucket;
  QUILL_REQUIRE_HOSTILE_BUCKET(bucket);
  ASSERT_TRUE(store::writeJsonFile(rill::rillJsonPath(data().root()),
                                   rill::rillJsonDocument(bucket.settings())));
  const std::string bound = std::to_string(ctx().syncManifestBytes.total());
  walk("POST /api/channels/endless?engine=rill => 200");
  bucket.plantEndless("channels/endless/manifest.json");
  EXPECT_TRUE(isError(sync("endless"), 503, "rill: curl: answer larger than " + bound + " bytes"));
  // Told too large: refused without a download.
  walk("POST /api/channels/huge?engine=rill => 200");
  bucket.plantSparse("channels/huge/manifest.json", ctx().syncManifestBytes.total() + 1);
  EXPECT_TRUE(isError(sync("huge"), 503, "rill: manifest larger than " + bound + " bytes"));
}

}  // namespace
}  // namespace quill::test
