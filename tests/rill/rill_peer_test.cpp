// Publishing to the real S3 peer and pulling back, through the store and through the presigned
// links of a sync descriptor.

#include <gtest/gtest.h>

#include "rill/manifest_signature.h"
#include "rill/publish.h"
#include "rill/pull.h"
#include "rill/s3_provider.h"
#include "rill/sync_descriptor.h"
#include "rill_trees.h"
#include "s3_peers.h"
#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

namespace fs = std::filesystem;
using test::S3Peers;

class RillPeerTest : public quill::test::TempDirTest {
 protected:
  void SetUp() override { QUILL_REQUIRE_S3_PEERS(); }

  static PublishOptions options(const std::string& channel, const std::string& key = "") {
    PublishOptions o;
    o.channel = channel;
    o.build = "b7";
    o.created = "2026-02-03T04:05:06Z";
    o.force = true;
    o.signingKey = key;
    o.chunker = test::kSmallChunks;
    return o;
  }

  // The presigned links a server would hand out for `channel`.
  static PresignedLinks links(const std::string& channel, std::int64_t ttl = 300) {
    S3Provider bucket(S3Peers::shared().settings());
    std::string text;
    EXPECT_TRUE(bucket.get(manifestKey(channel), text));
    std::string descriptor;
    EXPECT_TRUE(writeSyncDescriptor(bucket.client(), channel, parseManifest(text).value(), ttl,
                                    [&](std::string_view piece) {
                                      descriptor += piece;
                                      return true;
                                    }));
    auto parsed = parseSyncDescriptor(descriptor);
    EXPECT_TRUE(parsed) << parsed.error();
    return parsed.value();
  }
};

TEST_F(RillPeerTest, SignedBuildTravelsThroughPresignedLinks) {
  const fs::path source = dir() / "source";
  test::writeBuild(source);
  const SigningKeyPair keys = generateSigningKeyPair();
  S3Provider bucket(S3Peers::shared().settings());
  auto published = publishDirectory(bucket, source, options("peer-road", keys.secretKeyHex));
  ASSERT_TRUE(published) << published.error();

  PresignedPullSource viaLinks(links("peer-road"));
  PullOptions pull;
  pull.channel = "peer-road";
  pull.verifyKey = keys.publicKeyHex;
  auto pulled = pullChannel(viaLinks, dir() / "client", pull);
  ASSERT_TRUE(pulled) << pulled.error();
  EXPECT_EQ(test::treeContent(dir() / "client"), test::treeContent(source));
  // Each distinct chunk is downloaded once; the copy of a file is copied locally.
  EXPECT_EQ(pulled.value().totals.downloaded, published.value().uploaded);

  StorePullSource direct(bucket, "peer-road");
  ASSERT_TRUE(pullChannel(direct, dir() / "direct", pull));
  EXPECT_EQ(test::treeContent(dir() / "direct"), test::treeContent(source));
}

TEST_F(RillPeerTest, LinksRefuseWhatTheyDoNotCover) {
  const fs::path source = dir() / "source";
  test::writeFile(source / "a.txt", test::textBytes(100, 3));
  S3Provider bucket(S3Peers::shared().settings());
  ASSERT_TRUE(publishDirectory(bucket, source, options("peer-links")));

  PresignedLinks partial = links("peer-links");
  const std::string id = partial.chunks.begin()->first;
  partial.chunks.erase(id);
  PresignedPullSource missing(partial);
  PullOptions pull;
  pull.channel = "peer-links";
  EXPECT_EQ(pullChannel(missing, dir() / "a", pull).error(), "no presigned URL for chunk " + id);

  // The signature link of an unsigned channel answers 404: no signature.
  pull.verifyKey = generateSigningKeyPair().publicKeyHex;
  PresignedPullSource unsignedLinks(links("peer-links"));
  EXPECT_EQ(pullChannel(unsignedLinks, dir() / "b", pull).error(),
            "channel 'peer-links' has no signature but verification is required");

  PresignedLinks forged = links("peer-links");
  forged.manifestUrl += "x";  // the signature no longer matches
  forged.chunks[id] += "x";
  PresignedPullSource refused(forged);
  EXPECT_EQ(refused.manifest().error(), "manifest URL -> HTTP 403");
  EXPECT_EQ(refused.chunk({id, 1}).error(), "chunk URL -> HTTP 403");
}

}  // namespace
}  // namespace quill::rill
