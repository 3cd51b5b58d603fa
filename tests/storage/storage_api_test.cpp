// The storage settings endpoints and the sync endpoint through the route table, against the real
// S3 peer, so the probe classifies the store's own answers.

#include <gtest/gtest.h>

#include <regex>

#include "base/http_client.h"
#include "rill/bucket_probe.h"
#include "rill/hostile_bucket.h"
#include "rill/publish.h"
#include "rill/rill_trees.h"
#include "rill/s3_peers.h"
#include "rill/s3_provider.h"
#include "rill/s3_settings.h"
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

  static Json::Value credentials(const std::string& secret = rill::test::kPeerSecretKey) {
    Json::Value body(Json::objectValue);
    body["endpoint"] = S3Peers::shared().endpoint();
    body["bucket"] = rill::test::kPeerBucket;
    body["access_key"] = rill::test::kPeerAccessKey;
    body["secret_key"] = secret;
    return body;
  }

  static std::string text(const Json::Value& value) {
    return Json::writeString(Json::StreamWriterBuilder(), value);
  }

  http::Response put(const std::string& body) {
    return asAdmin(Req("PUT", "/api/storage").body(body));
  }
  http::Response probe(const std::string& body) {
    return asAdmin(Req("POST", "/api/storage/test").body(body));
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

TEST_F(StorageApiTest, SavedSettingsAreShownWithoutTheSecretAndForgotten) {
  EXPECT_EQ(text(bodyOf(asAdmin(Req("GET", "/api/storage")))),
            text(parseJson(R"({"configured":false,"schema_version":1})")));
  EXPECT_TRUE(isError(as(seedUser("mel", "member"), Req("GET", "/api/storage")), 403,
                      "this operation requires the admin role"));

  const auto saved = put(text(credentials()));  // no region: saved as "auto"
  ASSERT_TRUE(isOk(saved));
  const Json::Value info = bodyOf(saved);
  EXPECT_EQ(info["access_key_hint"], "...RVER");
  EXPECT_EQ(info["region"], "auto");
  EXPECT_FALSE(info.isMember("secret_key"));
  EXPECT_EQ(bodyOf(asAdmin(Req("GET", "/api/storage"))), info);
  const Json::Value stored = readDoc(settingsFile());
  EXPECT_EQ(stored["secret_key"], rill::test::kPeerSecretKey);
  EXPECT_EQ(stored.getMemberNames().size(), 6u);
  EXPECT_EQ(fs::status(settingsFile()).permissions(),
            fs::perms::owner_read | fs::perms::owner_write);

  const auto forgotten = asAdmin(Req("DELETE", "/api/storage"));
  EXPECT_EQ(text(bodyOf(forgotten)), text(parseJson(R"({"configured":false,"schema_version":1})")));
  EXPECT_FALSE(fs::exists(settingsFile()));
  EXPECT_TRUE(isOk(asAdmin(Req("DELETE", "/api/storage"))));
}

TEST_F(StorageApiTest, BadSettingsAreRefusedAndNothingIsSaved) {
  Json::Value ftp = credentials();
  ftp["endpoint"] = "ftp://127.0.0.1/";
  Json::Value number = credentials();
  number["region"] = 5;
  Json::Value blank = credentials();
  blank["bucket"] = "";
  Json::Value missingBucket = credentials();
  missingBucket["bucket"] = "no-such-bucket";
  Json::Value unreachable = credentials();
  unreachable["endpoint"] = "http://127.0.0.1:" + std::to_string(freePort());
  Json::Value unknownKey = credentials();
  unknownKey["access_key"] = "NOBODY";
  const struct {
    std::string body;
    std::string message;  // the whole message, or its start when it ends with "("
  } cases[] = {
      {"", "JSON body required"},
      {"{", "JSON body required"},
      {"[1]", "JSON object required"},
      {text(number), "region must be a string"},
      {text(blank), "endpoint, bucket, access_key and secret_key are required"},
      {text(ftp), "endpoint must start with https:// (or http:// for a local test server)"},
      {text(credentials("wrong")), "access denied - check the access key and secret ("},
      {text(unknownKey), "access denied - check the access key and secret ("},
      {text(missingBucket), "bucket not found - check the bucket name and endpoint ("},
      {text(unreachable), "could not reach the bucket - check the endpoint: curl: "},
      {std::string(100000, '['), "JSON body required"},
      {deepObject(), "JSON body required"},
  };
  for (const auto& c : cases) {
    const auto res = put(c.body);
    EXPECT_EQ(res.status, 400u) << c.body;
    const std::string error = bodyOf(res)["error"].asString();
    EXPECT_EQ(error.substr(0, c.message.size()), c.message) << c.body;
    EXPECT_EQ(error.find("wrong"), std::string::npos) << "the secret is never quoted: " << error;
    EXPECT_FALSE(fs::exists(settingsFile()));
  }
  EXPECT_NE(
      bodyOf(put(text(credentials("wrong"))))["error"].asString().find("SignatureDoesNotMatch"),
      std::string::npos);
}

TEST_F(StorageApiTest, TestProbesTheGivenOrTheSavedSettings) {
  for (const std::string& body : {std::string(), deepObject()}) {
    EXPECT_TRUE(
        isError(probe(body), 400, "rill storage not configured (missing data-dir rill.json)"));
  }
  writeText(settingsFile(), R"({"schema_version": 1, "endpoint": "http://x"})");
  EXPECT_TRUE(isError(probe("{}"), 400, "rill.json missing endpoint/bucket/access_key/secret_key"));

  const auto given = probe(text(credentials()));
  ASSERT_TRUE(isOk(given));
  EXPECT_EQ(text(bodyOf(given)),
            text(parseJson(R"({"bucket":"quill-test","ok":true,"schema_version":1})")));
  Json::Value bad = credentials();
  bad["secret_key"] = 7;
  EXPECT_TRUE(isError(probe(text(bad)), 400, "secret_key must be a string"));

  ASSERT_TRUE(isOk(put(text(credentials()))));
  EXPECT_TRUE(isOk(probe("")));
  EXPECT_TRUE(isOk(probe("{}")));
}

TEST_F(StorageApiTest, SyncDescriptorLinksEveryChunkOfARillChannel) {
  EXPECT_TRUE(isError(sync("bad name"), 400, "invalid channel name"));
  EXPECT_TRUE(isError(sync("nope"), 404, "no such Rill channel"));
  writeChannel("barge-one");
  EXPECT_TRUE(isError(sync("barge-one"), 404, "no such Rill channel"));

  ASSERT_TRUE(isOk(createChannel("api-sync", "rill")));
  EXPECT_TRUE(isError(sync("api-sync"), 503,
                      "rill: rill storage not configured (missing data-dir rill.json)"));
  ASSERT_TRUE(isOk(put(text(credentials()))));
  ASSERT_TRUE(isOk(createChannel("api-empty", "rill")));
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
  ASSERT_TRUE(isOk(createChannel("endless", "rill")));
  bucket.plantEndless("channels/endless/manifest.json");
  EXPECT_TRUE(isError(sync("endless"), 503, "rill: curl: answer larger than " + bound + " bytes"));
  // Told too large: refused without a download.
  ASSERT_TRUE(isOk(createChannel("huge", "rill")));
  bucket.plantSparse("channels/huge/manifest.json", ctx().syncManifestBytes.total() + 1);
  EXPECT_TRUE(isError(sync("huge"), 503, "rill: manifest larger than " + bound + " bytes"));
}

}  // namespace
}  // namespace quill::test
