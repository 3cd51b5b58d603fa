// The storage settings endpoints and the sync endpoint through the route table, against the real
// S3 peer (so the probe classifies the store's own answers) and a hostile one; and pulls through
// the links a sync hands out, which refuse what they do not cover.

#include <gtest/gtest.h>

#include "rill/chunks/manifest_signature.h"
#include "rill/hostile_bucket.h"
#include "rill/ops/publish.h"
#include "rill/ops/pull.h"
#include "rill/ops/sync_descriptor.h"
#include "rill/providers/s3_provider.h"
#include "rill/rill_trees.h"
#include "rill/s3_peers.h"
#include "support/api_fixture.h"
#include "support/http_client.h"

namespace quill::test {
namespace {

using rill::test::treeContent;

TEST_F(ApiTest, StorageSettingsAreCheckedSavedAndForgottenAndASyncLinksEveryChunkWithinBounds) {
  QUILL_REQUIRE_S3_PEERS();
  rill::test::HostileBucket hostile;
  QUILL_REQUIRE_HOSTILE_BUCKET(hostile);
  vars_["s3"] = rill::test::S3Peers::shared().endpoint();
  vars_["closed"] = "http://127.0.0.1:" + std::to_string(freePort());
  vars_["hostile"] = hostile.settings().endpoint;
  vars_["bound"] = std::to_string(ctx().syncManifestBytes.total());
  hostile.plantEndless("channels/endless/manifest.json");
  // Told too large: refused without a download.
  hostile.plantSparse("channels/huge/manifest.json", ctx().syncManifestBytes.total() + 1);
  walk(R"(
    GET /api/storage => 200 {"configured":false,"schema_version":1}
    user mel member
    mel GET /api/storage => 403 this operation requires the admin role
    # Bad settings are refused and nothing is saved; the secret is never quoted.
    PUT /api/storage => 400 JSON body required
    PUT /api/storage {100000*[} => 400 JSON body required
    PUT /api/storage {50000*{"endpoint":}1{50000*\x7d} => 400 JSON body required
    PUT /api/storage [1] => 400 JSON object required
    PUT /api/storage {"endpoint":"$s3","bucket":"quill-test","access_key":"S3RVER","secret_key":"S3RVER","region":5} => 400 region must be a string
    PUT /api/storage {"endpoint":"$s3","bucket":"","access_key":"S3RVER","secret_key":"S3RVER"} => 400 endpoint, bucket, access_key and secret_key are required
    PUT /api/storage {"endpoint":"ftp://127.0.0.1/","bucket":"quill-test","access_key":"S3RVER","secret_key":"S3RVER"} => 400 endpoint must start with https:// (or http:// for a local test server)
    PUT /api/storage {"endpoint":"$s3","bucket":"quill-test","access_key":"S3RVER","secret_key":"wrong"} => 400 ^access denied - check the access key and secret ( ; !has:wrong ; has:SignatureDoesNotMatch
    PUT /api/storage {"endpoint":"$s3","bucket":"no-such-bucket","access_key":"S3RVER","secret_key":"S3RVER"} => 400 ^bucket not found - check the bucket name and endpoint (
    PUT /api/storage {"endpoint":"$closed","bucket":"quill-test","access_key":"S3RVER","secret_key":"S3RVER"} => 400 ^could not reach the bucket - check the endpoint: curl:\s
    file rill.json absent
    # A probe of the given or the saved settings.
    POST /api/storage/test => 400 rill storage not configured (missing data-dir rill.json)
    POST /api/storage/test {50000*{"endpoint":}1{50000*\x7d} => 400 rill storage not configured (missing data-dir rill.json)
    POST /api/storage/test {"endpoint":"$s3","bucket":"quill-test","access_key":"S3RVER","secret_key":"S3RVER"} => 200 {"bucket":"quill-test","ok":true,"schema_version":1}
    POST /api/storage/test {"endpoint":"$s3","bucket":"quill-test","access_key":"S3RVER","secret_key":7} => 400 secret_key must be a string
    write rill.json {"schema_version": 1, "endpoint": "http://x"}
    POST /api/storage/test {} => 400 rill.json missing endpoint/bucket/access_key/secret_key
    # Saved without a region: "auto".
    PUT /api/storage {"endpoint":"$s3","bucket":"quill-test","access_key":"S3RVER","secret_key":"S3RVER"} => 200 .access_key_hint="...RVER" ; .region="auto" ; .secret_key!
    GET /api/storage => 200 .access_key_hint="...RVER" ; .region="auto" ; .secret_key!
    file rill.json .secret_key="S3RVER" ; .#=6
    POST /api/storage/test => 200
    POST /api/storage/test {} => 200
  )");
  EXPECT_EQ(fs::status(data().root() / "rill.json").permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
  walk(R"(
    DELETE /api/storage => 200 {"configured":false,"schema_version":1}
    file rill.json absent
    DELETE /api/storage => 200
    GET /api/rill/sync/bad\sname => 400 invalid channel name
    GET /api/rill/sync/nope => 404 no such Rill channel
    channel barge-one
    GET /api/rill/sync/barge-one => 404 no such Rill channel
    POST /api/channels/api-sync?engine=rill => 200
    GET /api/rill/sync/api-sync => 503 rill: rill storage not configured (missing data-dir rill.json)
    write rill.json {"schema_version":1,"endpoint":"$hostile","bucket":"b","access_key":"x","secret_key":"y"}
    POST /api/channels/endless?engine=rill => 200
    GET /api/rill/sync/endless => 503 rill: curl: answer larger than $bound bytes
    POST /api/channels/huge?engine=rill => 200
    GET /api/rill/sync/huge => 503 rill: manifest larger than $bound bytes
    PUT /api/storage {"endpoint":"$s3","bucket":"quill-test","access_key":"S3RVER","secret_key":"S3RVER"} => 200
    POST /api/channels/api-empty?engine=rill => 200
    GET /api/rill/sync/api-empty => 503 ^rill: GET channels/api-empty/manifest.json -> HTTP 404
  )");
  rill::test::writeBuild(dir() / "source");
  rill::S3Provider bucket(rill::test::S3Peers::shared().settings());
  auto publish = [&](const std::string& key) {
    rill::PublishOptions o;
    o.channel = "api-sync", o.build = "b42", o.created = "2026-03-04T05:06:07Z", o.force = true;
    o.signingKey = key, o.chunker = rill::test::kSmallChunks;
    auto report = rill::publishDirectory(bucket, dir() / "source", o);
    EXPECT_TRUE(report) << report.error();
    return report ? report.value().manifest.tree : rill::TreeScan{};
  };
  publish("");
  const auto res = as(seedUser("tess", "member"), Req("GET", "/api/rill/sync/api-sync"));
  ASSERT_EQ(res.status, 200u);
  EXPECT_EQ(res.contentType, http::kJsonType);
  const Json::Value d = parseJson(fileBody(res));
  EXPECT_EQ(d["channel"].asString() + " " + d["build"].asString() + " " + d["created"].asString(),
            "api-sync b42 2026-03-04T05:06:07Z");
  // The links themselves: each distinct chunk downloaded once, the copy of a file copied locally.
  auto links = [&](const std::string& ttl = "") {
    Req req("GET", "/api/rill/sync/api-sync");
    if (!ttl.empty()) req.q("ttl", ttl);
    auto parsed = rill::parseSyncDescriptor(fileBody(asAdmin(req)));
    EXPECT_TRUE(parsed) << parsed.error();
    return parsed ? parsed.value() : rill::PresignedLinks{};
  };
  auto pull = [&](rill::PullSource&& from, const std::string& key, const std::string& into) {
    rill::PullOptions o;
    o.channel = "api-sync", o.verifyKey = key;
    return rill::pullChannel(from, dir() / into, o);
  };
  for (const auto& [ttl, seconds] :
       std::map<std::string, std::string>{{"", "300"}, {"0", "300"}, {"86400", "86400"}})
    EXPECT_NE(links(ttl).manifestUrl.find("X-Amz-Expires=" + seconds + "&"), std::string::npos)
        << "ttl=" << ttl;
  const rill::SigningKeyPair keys = rill::generateSigningKeyPair();
  // Unsigned, the signature link answers 404.
  EXPECT_EQ(pull(rill::PresignedPullSource(links()), keys.publicKeyHex, "a").error(),
            "channel 'api-sync' has no signature but verification is required");
  rill::PresignedLinks partial = links(), forged = links();
  ASSERT_FALSE(partial.chunks.empty());
  const std::string id = partial.chunks.begin()->first;
  partial.chunks.erase(id);
  EXPECT_EQ(pull(rill::PresignedPullSource(partial), "", "b").error(),
            "no presigned URL for chunk " + id);
  forged.manifestUrl += "x";  // the signature no longer matches
  forged.chunks[id] += "x";
  rill::PresignedPullSource refused(forged);
  EXPECT_EQ(refused.manifest().error(), "manifest URL -> HTTP 403");
  EXPECT_EQ(refused.chunk({id, 1}).error(), "chunk URL -> HTTP 403");
  const rill::TreeScan signedTree = publish(keys.secretKeyHex);
  auto pulled = pull(rill::PresignedPullSource(links()), keys.publicKeyHex, "client");
  ASSERT_TRUE(pulled) << pulled.error();
  EXPECT_EQ(pulled.value().totals.downloaded, signedTree.stats.unique_chunks);
  EXPECT_EQ(treeContent(dir() / "client"), treeContent(dir() / "source"));
  // A promotion is the file-by-file operation and leaves no engine behind.
  walk(R"(
    channel api-sync
    GET /api/rill/sync/api-sync => 404 no such Rill channel
  )");
}

}  // namespace
}  // namespace quill::test
