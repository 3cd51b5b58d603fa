// Publishing and pulling through a store held in memory, with faults injected where a store or a
// network would fail. (The S3 road and presigned links: tests/storage/storage_api_test.cpp.)

#include <gtest/gtest.h>

#include "rill/chunks/chunk_id.h"
#include "rill/chunks/chunk_reader.h"
#include "rill/chunks/manifest_signature.h"
#include "rill/ops/channel_store.h"
#include "rill/ops/publish.h"
#include "rill/providers/fault_injecting_provider.h"
#include "rill/providers/memory_provider.h"
#include "rill_trees.h"
#include "store_view.h"
#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

namespace fs = std::filesystem;
using namespace test;
using Op = FaultInjectingProvider::Operation;
using Tree = std::map<std::string, std::string>;

template <class T>
T ok(Result<T> result) {
  EXPECT_TRUE(result) << result.error();
  return result ? std::move(result).value() : T{};
}

class PublishPullTest : public quill::test::TempDirTest {
 protected:
  void SetUp() override {
    store_ = std::make_unique<FaultInjectingProvider>(std::make_unique<StoreView>(memory_));
    writeBuild(source());
  }
  fs::path source() const { return dir() / "source"; }
  fs::path target() const { return dir() / "target"; }

  Result<PublishReport> publish(const std::string& channel = "nightly", bool force = false,
                                const std::string& key = "", StorageProvider* via = nullptr,
                                const fs::path& from = {}, bool tolerant = false) {
    PublishOptions o;
    o.channel = channel, o.build = "b1", o.created = "2026-01-01T00:00:00Z", o.force = force;
    o.signingKey = key, o.chunker = kSmallChunks, o.scan.tolerant = tolerant;
    o.cpuThreads = 2, o.checkThreads = 4, o.transferThreads = 3;
    return publishDirectory(via ? *via : *store_, from.empty() ? source() : from, o);
  }
  Result<PullReport> pull(const std::string& channel = "nightly", const std::string& key = "",
                          const fs::path& into = {}) {
    StorePullSource src(*store_, channel);
    PullOptions o;
    o.channel = channel, o.verifyKey = key, o.networkThreads = 3;
    return pullChannel(src, into.empty() ? target() : into, o);
  }
  // The store itself, past the injected faults: the one place these tests call it.
  std::string object(const std::string& key) {
    auto body = memory_.get(key);
    EXPECT_TRUE(body) << key << ": " << body.error();
    return body ? body.value() : "";
  }
  void plant(const std::string& key, const std::string& b) { EXPECT_TRUE(memory_.put(key, b)); }
  bool present(const std::string& key) { return memory_.exists(key).value().present; }

  MemoryProvider memory_;
  std::unique_ptr<FaultInjectingProvider> store_;
};

TEST_F(PublishPullTest, EachBuildCostsOnlyItsNewChunksAndABrokenPullResumes) {
  const PublishReport first = ok(publish());
  EXPECT_EQ(first.uploaded, first.manifest.tree.stats.unique_chunks);  // the copy costs nothing
  EXPECT_LT(first.storedBytes, first.manifest.tree.stats.unique_bytes);  // the text compressed
  const PullProgress pulled = ok(pull()).totals;
  EXPECT_EQ(treeContent(target()), treeContent(source()));
  EXPECT_EQ(pulled.downloaded + pulled.reused, pulled.chunksTotal);
  EXPECT_EQ(publish().error(), "channel 'nightly' already published (use --force to overwrite)");
  const std::size_t objects = memory_.size();
  EXPECT_EQ(ok(publish("nightly", true)).uploaded, 0u);
  EXPECT_EQ(memory_.size(), objects);
  const PullReport same = ok(pull());  // the same build again touches no file
  EXPECT_EQ(same.unchangedFiles + same.totals.chunksTotal, 4u + 0u);
  // The next build: only the changed chunks travel, the rest is reused from the files in place.
  std::string app = readFile(source() / "bin/app.so");
  app[150 * 1024] ^= 0x55;
  writeFile(source() / "bin/app.so", app);
  writeFile(source() / "new.txt", "new file");
  const PublishReport next = ok(publish("nightly", true));
  EXPECT_LE(next.uploaded, 3u);
  const PullProgress update = ok(pull()).totals;
  EXPECT_EQ(update.downloaded, next.uploaded);
  EXPECT_GT(update.reused, 10u);
  EXPECT_EQ(treeContent(target()), treeContent(source()));
  // Broken off elsewhere, a pull completes on the next run, reusing what arrived.
  store_->failNth(Op::kGet, 30);
  const std::string broken = pull("nightly", "", dir() / "other").error();
  EXPECT_TRUE(broken.starts_with("injected failure: get chunks/")) << broken;
  EXPECT_NE(treeContent(dir() / "other"), treeContent(source()));
  const PullProgress resumed = ok(pull("nightly", "", dir() / "other")).totals;
  EXPECT_EQ(treeContent(dir() / "other"), treeContent(source()));  // and no ".part" left over
  EXPECT_LT(resumed.downloaded, next.manifest.tree.stats.unique_chunks);
}

TEST_F(PublishPullTest, PullFollowsShapeChangesAndNeverWritesThroughLinks) {
  // Empty files in subdirectories, and a file named like another's temporary.
  for (const auto& [path, bytes] : Tree{{"d/also-empty", ""}, {"data.pak", randomBytes(40000, 3)},
                                        {"data.pak.part", "p"}, {"link/pwn.txt", "pwned"},
                                        {"f.txt", "new f"}})
    writeFile(source() / path, bytes);
  ok(publish());
  // Links planted in the target: to a directory outside, to a file outside, and under the name
  // of a part being assembled.
  const fs::path outside = dir() / "outside", parts = target() / kPullStateDir / "parts";
  writeFile(outside / "victim", "precious");
  fs::create_directories(parts);
  fs::create_directory_symlink(outside, target() / "link");
  fs::create_symlink(outside / "victim", target() / "f.txt");
  fs::create_symlink(outside / "victim", parts / chunkId("data.pak").substr(0, 32));
  ok(pull());
  EXPECT_EQ(treeContent(target()), treeContent(source()));  // which follows no link
  EXPECT_EQ(treeContent(outside), (Tree{{"victim", "precious"}}));
  // Published again as it is, the pulled directory is the same build: the pull's own files stay.
  EXPECT_EQ(ok(publish("again", false, "", nullptr, target())).manifest.tree.files.size(),
            treeContent(source()).size());
  // The next build turns a file into a directory and a directory into a file, and drops files;
  // a file the pull never installed stays.
  writeFile(target() / "mine.txt", "mine");
  fs::remove_all(source());
  writeFile(source() / "data.pak/inner", "now a directory");
  writeFile(source() / "d", "now a file");
  ok(publish("nightly", true));
  ok(pull());
  Tree expected = treeContent(source());
  expected["mine.txt"] = "mine";
  EXPECT_EQ(treeContent(target()), expected);
  // A directory holding files the pull did not install is not replaced by a file.
  writeFile(target() / "data.pak/mine", "mine too");
  fs::remove_all(source());
  writeFile(source() / "data.pak", "a file again");
  ok(publish("nightly", true));
  EXPECT_EQ(pull().error(), "cannot replace directory " + (target() / "data.pak").string() +
                                " with a file (it holds other files)");
  EXPECT_EQ(readFile(target() / "data.pak/mine"), "mine too");
}

TEST_F(PublishPullTest, PullRefusesTamperedWrongAndUnsignedBuildsAndNamesALostRace) {
  const SigningKeyPair keys = generateSigningKeyPair();
  // Another build is published whole between the first one's manifest and its signature.
  Result<PublishReport> other = Failure{"not run"};
  StoreView view(*store_, once("put", signatureKey("nightly"), [&] {
    writeFile(source() / "new.txt", "new");
    other = publish("nightly", true, keys.secretKeyHex);
  }));
  EXPECT_EQ(publish("nightly", true, keys.secretKeyHex, &view).error(),
            "another publish replaced channel 'nightly' meanwhile - publish again");
  ok(std::move(other));
  ok(publish("nightly", true, keys.secretKeyHex));
  ok(pull("nightly", keys.publicKeyHex));
  EXPECT_EQ(pull("nightly", generateSigningKeyPair().publicKeyHex).error(),
            "signature does not verify");
  plant(manifestKey("nightly"), object(manifestKey("nightly")) + " ");  // edited in the store
  EXPECT_EQ(pull("nightly", keys.publicKeyHex).error(), "signature does not verify");
  ok(publish("nightly", true));  // unsigned, it takes the signature away
  EXPECT_EQ(pull("nightly", keys.publicKeyHex).error(),
            "channel 'nightly' has no signature but verification is required");
  ok(publish("beta"));
  plant(manifestKey("nightly"), object(manifestKey("beta")));
  EXPECT_EQ(pull("nightly").error(), "manifest is for channel 'beta', not 'nightly'");
  // A chunk stored under its id with other content, pulled where no copy of it is.
  const std::string id = ok(publish("beta", true)).manifest.tree.files[1].chunks[0].h;
  plant(memory_.chunkKey(id), "other bytes");
  EXPECT_EQ(pull("beta", "", dir() / "fresh").error(),
            "chunk " + id + " failed to decode/verify (corrupt or tampered)");
}

TEST_F(PublishPullTest, PublishStopsAtTheFirstStoreFailure) {
  store_->failNth(Op::kExists, 1);
  EXPECT_EQ(publish().error(),
            "cannot reach store: injected failure: exists channels/nightly/manifest.json");
  for (const auto& [op, n, start] :
       {std::tuple{Op::kExists, 5, "HEAD failed: injected failure: exists chunks/"},
        std::tuple{Op::kPut, 3, "PUT failed: injected failure: put chunks/"}}) {
    store_->failNth(op, n);
    const std::string error = publish().error();
    EXPECT_TRUE(error.starts_with(start)) << error;
  }
  EXPECT_FALSE(present(manifestKey("nightly")));
  EXPECT_EQ(publish("nightly", false, "abcd").error(), "bad secret key (need 64-byte hex)");
  // A file shorter than its chunks say (one whose bytes differ: the busy tree below).
  EXPECT_EQ(readChunkAt(source() / "Empty", 0, 10, "x").error(),
            "cannot read chunk bytes from " + (source() / "Empty").string());
}

// A tree that others write to while it is published: "a" is rewritten once its chunks are being
// checked, "c" disappears; "b" holds the same bytes as "a" did, so its chunks are read from "b".
TEST_F(PublishPullTest, ATolerantPublishLeavesOutWhatChangedAndNamesOnlyStoredChunks) {
  const fs::path busy = dir() / "busy";
  const Tree kept{{"b-copy.bin", randomBytes(100000, 5)}, {"d-steady.txt", textBytes(500, 7)}};
  auto publishWhileBusy = [&](bool tolerant) {
    for (const auto& [path, bytes] : kept) writeFile(busy / path, bytes);
    writeFile(busy / "a-changing.bin", randomBytes(100000, 5));
    writeFile(busy / "c-vanishing.bin", randomBytes(60000, 6));
    StoreView view(*store_, once("exists", "chunks/", [&] {
      writeFile(busy / "a-changing.bin", randomBytes(100000, 8));
      if (tolerant) fs::remove(busy / "c-vanishing.bin");
    }));
    return publish("nightly", true, "", &view, busy, tolerant);
  };
  EXPECT_EQ(publishWhileBusy(false).error(), "chunk hash mismatch reading " +
                                                 (busy / "a-changing.bin").string() +
                                                 " (file changed under us?)");
  ok(sweepChunks(*store_, {}));  // no chunk left from the first try
  const TreeScan tree = ok(publishWhileBusy(true)).manifest.tree;
  for (const ScannedFile& file : tree.files)
    for (const ChunkRef& chunk : file.chunks) EXPECT_TRUE(present(memory_.chunkKey(chunk.h)));
  EXPECT_EQ(tree.stats.files + tree.stats.total_bytes,
            2u + 100000 + kept.at("d-steady.txt").size());
  ok(pull());  // exactly the files kept, as they are
  EXPECT_EQ(treeContent(target()), kept);
}

TEST_F(PublishPullTest, DeletedChannelLeavesOnlyItsOwnChunksToTheSweep) {
  const PublishReport nightly = ok(publish("nightly"));
  writeFile(source() / "only-in-beta.bin", randomBytes(40000, 9));
  const PublishReport beta = ok(publish("beta"));
  plant("chunks/zz/stray", "x");  // and both channels are read, else more would go
  EXPECT_EQ(ok(sweepChunks(*store_, ok(readChannelManifests(*store_)))).removed, 1u);
  ok(deleteChannelBuild(*store_, "beta"));
  EXPECT_FALSE(present(manifestKey("beta")));
  const SweepReport swept = ok(sweepChunks(*store_, ok(readChannelManifests(*store_))));
  EXPECT_EQ(swept.removed, beta.uploaded);
  EXPECT_EQ(swept.kept, nightly.manifest.tree.stats.unique_chunks);
  ok(pull("nightly"));
}

}  // namespace
}  // namespace quill::rill
