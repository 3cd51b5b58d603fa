// Publishing and pulling through providers held in memory, with faults injected where a store or
// a network would fail; and through the real S3 peer and the presigned links of a sync descriptor.

#include <gtest/gtest.h>

#include "rill/ops/channel_store.h"
#include "rill/chunks/chunk_id.h"
#include "rill/chunks/chunk_reader.h"
#include "rill/providers/fault_injecting_provider.h"
#include "rill/chunks/manifest_signature.h"
#include "rill/providers/memory_provider.h"
#include "rill/ops/publish.h"
#include "rill/ops/pull.h"
#include "rill/providers/s3_provider.h"
#include "rill/ops/sync_descriptor.h"
#include "rill_trees.h"
#include "s3_peers.h"
#include "store_view.h"
#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

namespace fs = std::filesystem;
using test::treeContent;
using test::writeFile;

class PublishPullTest : public quill::test::TempDirTest {
 protected:
  void SetUp() override {
    auto memory = std::make_unique<MemoryProvider>();
    memory_ = memory.get();
    store_ = std::make_unique<FaultInjectingProvider>(std::move(memory));
    test::writeBuild(source());
  }

  fs::path source() const { return dir() / "source"; }
  fs::path target() const { return dir() / "target"; }

  PublishOptions options(const std::string& channel = "nightly", bool force = false) const {
    PublishOptions o;
    o.channel = channel;
    o.build = "b1";
    o.created = "2026-01-01T00:00:00Z";
    o.force = force;
    o.chunker = test::kSmallChunks;
    o.checkThreads = 4;
    o.transferThreads = 3;
    o.cpuThreads = 2;
    return o;
  }

  Result<PublishReport> publish(const PublishOptions& o) {
    return publishDirectory(*store_, source(), o);
  }

  Result<PullReport> pull(const std::string& channel = "nightly", const std::string& key = "",
                          const fs::path& into = {}) {
    StorePullSource src(*store_, channel);
    PullOptions o;
    o.channel = channel;
    o.verifyKey = key;
    o.networkThreads = 3;
    return pullChannel(src, into.empty() ? target() : into, o);
  }

  MemoryProvider* memory_ = nullptr;
  std::unique_ptr<FaultInjectingProvider> store_;
};

TEST_F(PublishPullTest, EachBuildCostsOnlyItsNewChunksAndABrokenPullResumes) {
  auto first = publish(options());
  ASSERT_TRUE(first) << first.error();
  const Manifest& m = first.value().manifest;
  EXPECT_EQ(m.tree.stats.files, 4u);
  EXPECT_EQ(first.value().uploaded, m.tree.stats.unique_chunks);
  // The duplicate text file costs nothing; the noise is stored raw, the text compressed.
  EXPECT_LT(first.value().storedBytes, m.tree.stats.unique_bytes);
  auto pulled = pull();
  ASSERT_TRUE(pulled) << pulled.error();
  EXPECT_EQ(treeContent(target()), treeContent(source()));
  EXPECT_EQ(pulled.value().totals.downloaded + pulled.value().totals.reused,
            pulled.value().totals.chunksTotal);

  EXPECT_EQ(publish(options()).error(),
            "channel 'nightly' already published (use --force to overwrite)");
  const std::size_t objects = memory_->size();
  auto again = publish(options("nightly", true));
  ASSERT_TRUE(again) << again.error();
  EXPECT_EQ(again.value().uploaded, 0u);
  EXPECT_EQ(memory_->size(), objects);
  auto same = pull();  // the same build again touches no file
  ASSERT_TRUE(same) << same.error();
  EXPECT_EQ(same.value().unchangedFiles, 4u);
  EXPECT_EQ(same.value().totals.chunksTotal, 0u);

  // The next build: only the changed chunks travel.
  std::string app = test::readFile(source() / "bin/app.so");
  app[150 * 1024] ^= 0x55;
  writeFile(source() / "bin/app.so", app);
  writeFile(source() / "new.txt", "new file");
  auto next = publish(options("nightly", true));
  ASSERT_TRUE(next) << next.error();
  EXPECT_LE(next.value().uploaded, 3u);
  auto update = pull();
  ASSERT_TRUE(update) << update.error();
  EXPECT_EQ(treeContent(target()), treeContent(source()));
  EXPECT_EQ(update.value().totals.downloaded, next.value().uploaded);
  EXPECT_GT(update.value().totals.reused, 10u);

  // Broken off elsewhere, a pull completes on the next run, reusing what arrived.
  const fs::path other = dir() / "other";
  store_->failNth(FaultInjectingProvider::Operation::kGet, 30);
  const std::string broken = pull("nightly", "", other).error();
  EXPECT_NE(broken.find("injected failure: get chunks/"), std::string::npos) << broken;
  EXPECT_NE(treeContent(other), treeContent(source()));
  auto resumed = pull("nightly", "", other);
  ASSERT_TRUE(resumed) << resumed.error();
  EXPECT_EQ(treeContent(other), treeContent(source()));
  EXPECT_LT(resumed.value().totals.downloaded, next.value().manifest.tree.stats.unique_chunks);
  for (const auto& [path, content] : treeContent(other)) EXPECT_FALSE(path.ends_with(".part"));
}

TEST_F(PublishPullTest, PullFollowsShapeChangesAndNeverWritesThroughLinks) {
  // Empty files in subdirectories, and a file named like another's temporary.
  writeFile(source() / "d/also-empty", "");
  writeFile(source() / "data.pak", test::randomBytes(40 * 1024, 3));
  writeFile(source() / "data.pak.part", std::string(1000, 'p'));
  writeFile(source() / "link/pwn.txt", "pwned");
  writeFile(source() / "f.txt", "new f");
  ASSERT_TRUE(publish(options()));

  // Links planted in the target: to a directory outside it, to a file outside it, and under the
  // name of a part being assembled.
  const fs::path outside = dir() / "outside";
  fs::create_directories(outside);
  writeFile(outside / "victim", "precious");
  fs::create_directories(target() / kPullStateDir / "parts");
  fs::create_directory_symlink(outside, target() / "link");
  fs::create_symlink(outside / "victim", target() / "f.txt");
  fs::create_symlink(outside / "victim",
                     target() / kPullStateDir / "parts" / chunkId("data.pak").substr(0, 32));
  auto pulled = pull();
  ASSERT_TRUE(pulled) << pulled.error();
  EXPECT_EQ(treeContent(target()), treeContent(source()));
  EXPECT_EQ(treeContent(outside), (std::map<std::string, std::string>{{"victim", "precious"}}));
  EXPECT_FALSE(fs::is_symlink(target() / "link"));
  // Published again as it is, the pulled directory is the same build: the pull's own files stay.
  auto republished = publishDirectory(*store_, target(), options("again"));
  ASSERT_TRUE(republished) << republished.error();
  EXPECT_EQ(republished.value().manifest.tree.files.size(), treeContent(source()).size());

  // The next build turns a file into a directory and a directory into a file, and drops files;
  // a file the pull never installed stays.
  writeFile(target() / "mine.txt", "mine");
  fs::remove_all(source());
  writeFile(source() / "data.pak/inner", "now a directory");
  writeFile(source() / "d", "now a file");
  writeFile(source() / "link/pwn.txt", "pwned");
  ASSERT_TRUE(publish(options("nightly", true)));
  auto next = pull();
  ASSERT_TRUE(next) << next.error();
  auto expected = treeContent(source());
  expected["mine.txt"] = "mine";
  EXPECT_EQ(treeContent(target()), expected);

  // A directory holding files the pull did not install is not replaced by a file.
  writeFile(target() / "data.pak/mine", "mine too");
  fs::remove_all(source());
  writeFile(source() / "data.pak", "a file again");
  ASSERT_TRUE(publish(options("nightly", true)));
  EXPECT_EQ(pull().error(), "cannot replace directory " + (target() / "data.pak").string() +
                                " with a file (it holds other files)");
  EXPECT_EQ(test::readFile(target() / "data.pak/mine"), "mine too");
}

TEST_F(PublishPullTest, PullRefusesTamperedWrongAndUnsignedBuilds) {
  const SigningKeyPair keys = generateSigningKeyPair();
  PublishOptions signedOptions = options();
  signedOptions.signingKey = keys.secretKeyHex;
  ASSERT_TRUE(publish(signedOptions));
  ASSERT_TRUE(pull("nightly", keys.publicKeyHex));
  EXPECT_EQ(pull("nightly", generateSigningKeyPair().publicKeyHex).error(),
            "signature does not verify");

  // A manifest edited in the store no longer matches its signature.
  std::string text;
  ASSERT_TRUE(memory_->get(manifestKey("nightly"), text));
  ASSERT_TRUE(memory_->put(manifestKey("nightly"), text + " "));
  EXPECT_EQ(pull("nightly", keys.publicKeyHex).error(), "signature does not verify");

  // A forced unsigned publish takes the old signature away.
  ASSERT_TRUE(publish(options("nightly", true)));
  EXPECT_EQ(pull("nightly", keys.publicKeyHex).error(),
            "channel 'nightly' has no signature but verification is required");

  // Another channel's manifest under this channel's key.
  ASSERT_TRUE(publish(options("beta")));
  ASSERT_TRUE(memory_->get(manifestKey("beta"), text));
  ASSERT_TRUE(memory_->put(manifestKey("nightly"), text));
  EXPECT_EQ(pull("nightly").error(), "manifest is for channel 'beta', not 'nightly'");

  // A chunk stored under its id with other content.
  auto beta = publish(options("beta", true));
  ASSERT_TRUE(beta) << beta.error();
  const std::string id = beta.value().manifest.tree.files[1].chunks[0].h;
  ASSERT_TRUE(memory_->put(memory_->chunkKey(id), "other bytes"));
  fs::remove_all(target());  // else the chunk would be copied from the earlier pull
  EXPECT_EQ(pull("beta").error(), "chunk " + id + " failed to decode/verify (corrupt or tampered)");
}

TEST_F(PublishPullTest, PublishStopsAtTheFirstStoreFailure) {
  using Op = FaultInjectingProvider::Operation;
  store_->failNth(Op::kExists, 1);
  EXPECT_EQ(publish(options()).error(),
            "cannot reach store: injected failure: exists channels/nightly/manifest.json");
  store_->failNth(Op::kExists, 5);
  EXPECT_EQ(publish(options()).error().rfind("HEAD failed: injected failure: exists chunks/", 0),
            0u);
  store_->failNth(Op::kPut, 3);
  EXPECT_EQ(publish(options()).error().rfind("PUT failed: injected failure: put chunks/", 0), 0u);
  EXPECT_FALSE(memory_->exists(manifestKey("nightly"))->present);

  PublishOptions badKey = options();
  badKey.signingKey = "abcd";
  EXPECT_EQ(publish(badKey).error(), "bad secret key (need 64-byte hex)");

  const std::string bytes = test::readFile(source() / "data/notes.txt");
  EXPECT_EQ(readChunkAt(source() / "data/notes.txt", 0, 10, chunkId(bytes.substr(1, 10))).error(),
            "chunk hash mismatch reading " + (source() / "data/notes.txt").string() +
                " (file changed under us?)");
  EXPECT_EQ(readChunkAt(source() / "Empty", 0, 10, "x").error(),
            "cannot read chunk bytes from " + (source() / "Empty").string());
}

// A tree that others write to while it is published: "a" is rewritten once its chunks are being
// checked, "c" disappears; "b" holds the same bytes as "a" did.
class BusyTreeTest : public PublishPullTest {
 protected:
  void SetUp() override {
    PublishPullTest::SetUp();
    writeFile(busy() / "a-changing.bin", test::randomBytes(100 * 1024, 5));
    writeFile(busy() / "b-copy.bin", test::readFile(busy() / "a-changing.bin"));
    writeFile(busy() / "c-vanishing.bin", test::randomBytes(60 * 1024, 6));
    writeFile(busy() / "d-steady.txt", test::textBytes(500, 7));
  }
  fs::path busy() const { return dir() / "busy"; }

  Result<PublishReport> publishWhileBusy(bool tolerant, bool remove) {
    PublishOptions o = options();
    o.scan.tolerant = tolerant;
    test::StoreView view(*store_, test::once("exists", "chunks/", [this, remove] {
      writeFile(busy() / "a-changing.bin", test::randomBytes(100 * 1024, 8));
      if (remove) fs::remove(busy() / "c-vanishing.bin");
    }));
    return publishDirectory(view, busy(), o);
  }
};

TEST_F(BusyTreeTest, ATolerantPublishLeavesOutWhatChangedAndNamesOnlyStoredChunks) {
  EXPECT_EQ(publishWhileBusy(false, false).error(), "chunk hash mismatch reading " +
                                                        (busy() / "a-changing.bin").string() +
                                                        " (file changed under us?)");

  fs::remove_all(busy());
  SetUp();
  auto report = publishWhileBusy(true, true);
  ASSERT_TRUE(report) << report.error();
  const TreeScan& tree = report.value().manifest.tree;
  ASSERT_EQ(tree.files.size(), 2u);
  EXPECT_EQ(tree.files[0].path, "b-copy.bin");  // its chunks were read from here instead
  EXPECT_EQ(tree.files[1].path, "d-steady.txt");
  EXPECT_EQ(tree.stats.files, 2u);
  EXPECT_EQ(tree.stats.total_bytes,
            fs::file_size(busy() / "b-copy.bin") + fs::file_size(busy() / "d-steady.txt"));
  for (const ScannedFile& file : tree.files) {
    for (const ChunkRef& chunk : file.chunks) {
      EXPECT_TRUE(memory_->exists(memory_->chunkKey(chunk.h))->present) << file.path;
    }
  }
  ASSERT_TRUE(pull());
  EXPECT_EQ(test::readFile(target() / "b-copy.bin"), test::readFile(busy() / "b-copy.bin"));
  EXPECT_FALSE(fs::exists(target() / "a-changing.bin"));
}

TEST_F(PublishPullTest, OfTwoSignedPublishesAtOnceTheOneThatLostSaysSo) {
  const SigningKeyPair keys = generateSigningKeyPair();
  PublishOptions first = options("nightly", true);
  first.signingKey = keys.secretKeyHex;
  PublishOptions second = first;
  second.build = "b2";
  // The second publish runs whole between the first one's manifest and its signature.
  Result<PublishReport> other = Failure{"not run"};
  test::StoreView view(*store_, test::once("put", signatureKey("nightly"), [&] {
    other = publishDirectory(*store_, source(), second);
  }));
  EXPECT_EQ(publishDirectory(view, source(), first).error(),
            "another publish replaced channel 'nightly' meanwhile - publish again");
  ASSERT_TRUE(other) << other.error();
  ASSERT_TRUE(publish(first));
  ASSERT_TRUE(pull("nightly", keys.publicKeyHex));
}

TEST_F(PublishPullTest, DeletedChannelLeavesOnlyItsOwnChunksToTheSweep) {
  auto nightly = publish(options("nightly"));
  ASSERT_TRUE(nightly) << nightly.error();
  writeFile(source() / "only-in-beta.bin", test::randomBytes(40 * 1024, 9));
  auto beta = publish(options("beta"));
  ASSERT_TRUE(beta) << beta.error();
  ASSERT_TRUE(memory_->put("chunks/zz/stray", "x"));

  auto live = readChannelManifests(*store_);
  ASSERT_TRUE(live) << live.error();
  EXPECT_EQ(live.value().size(), 2u);
  auto swept = sweepChunks(*store_, live.value());
  ASSERT_TRUE(swept) << swept.error();
  EXPECT_EQ(swept.value().removed, 1u);

  ASSERT_TRUE(deleteChannelBuild(*store_, "beta"));
  EXPECT_FALSE(memory_->exists(manifestKey("beta"))->present);
  swept = sweepChunks(*store_, readChannelManifests(*store_).value());
  ASSERT_TRUE(swept) << swept.error();
  EXPECT_EQ(swept.value().removed, beta.value().uploaded);
  EXPECT_EQ(swept.value().kept, nightly.value().manifest.tree.stats.unique_chunks);
  ASSERT_TRUE(pull("nightly"));
}

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

TEST_F(RillPeerTest, ASignedBuildTravelsThroughPresignedLinksThatRefuseWhatTheyDoNotCover) {
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

  // An unsigned channel: its signature link answers 404.
  ASSERT_TRUE(publishDirectory(bucket, source, options("peer-links")));
  pull.channel = "peer-links";
  PresignedPullSource unsignedLinks(links("peer-links"));
  EXPECT_EQ(pullChannel(unsignedLinks, dir() / "b", pull).error(),
            "channel 'peer-links' has no signature but verification is required");
  pull.verifyKey.clear();
  PresignedLinks partial = links("peer-links");
  const std::string id = partial.chunks.begin()->first;
  partial.chunks.erase(id);
  PresignedPullSource missing(partial);
  EXPECT_EQ(pullChannel(missing, dir() / "a", pull).error(), "no presigned URL for chunk " + id);
  PresignedLinks forged = links("peer-links");
  forged.manifestUrl += "x";  // the signature no longer matches
  forged.chunks[id] += "x";
  PresignedPullSource refused(forged);
  EXPECT_EQ(refused.manifest().error(), "manifest URL -> HTTP 403");
  EXPECT_EQ(refused.chunk({id, 1}).error(), "chunk URL -> HTTP 403");
}

}  // namespace
}  // namespace quill::rill
