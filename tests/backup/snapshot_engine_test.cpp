// The snapshot engine and the runs over a store in memory: what a snapshot holds and restores, what
// pruning removes and keeps, how outcomes are recorded, and the lock against a prune racing a run.

#include <gtest/gtest.h>
#include <json/value.h>

#include <future>
#include <numeric>
#include <thread>

#include "backup/background_run.h"
#include "backup/backup_run.h"
#include "backup/backup_texts.h"
#include "backup/snapshots.h"
#include "rill/providers/encrypted_provider.h"
#include "rill/providers/fault_injecting_provider.h"
#include "rill/providers/memory_provider.h"
#include "rill/rill_trees.h"
#include "rill/store_view.h"
#include "store/documents.h"
#include "support/temp_dir_test_base.h"

namespace quill::backup {
namespace {

using rill::test::randomBytes;
using rill::test::treeContent;
using rill::test::writeFile;
using Tree = std::map<std::string, std::string>;
using Names = std::vector<std::string>;
using Op = rill::FaultInjectingProvider::Operation;
const std::string kA = "snap-20260101-000001", kB = "snap-20260101-000002",
                  kC = "snap-20260101-000003", kD = "snap-20260101-000004",
                  kE = "snap-20260101-000005", kF = "snap-20260101-000006";

class SnapshotEngineTest : public quill::test::TempDirTest {
 protected:
  void SetUp() override {
    writeFile(data() / "users/alice.json", R"({"name":"alice"})");
    writeFile(data() / "tokens/t1.json", R"({"user":"alice"})");
    setBuild(1);
    ASSERT_TRUE(writeBackupConfig(backupConfigPath(data()),
                                  {{"http://127.0.0.1:1", "auto", "b", "k", "s"}, "unused", {}}));
  }
  fs::path data() const { return dir() / "data"; }
  void setBuild(unsigned n) { writeFile(data() / "builds/b1/app.bin", randomBytes(300000, n)); }

  // The memory store sealed with key bytes `fill`, `hook` told of each operation first, and the
  // nth call of `failing.first` failing.
  std::unique_ptr<rill::FaultInjectingProvider> sealed(std::uint8_t fill = 7,
                                                       rill::test::StoreView::Hook hook = {},
                                                       std::pair<Op, int> failing = {Op::kGet, 0}) {
    rill::EncryptionKey key;
    key.fill(fill);
    auto view = std::make_unique<rill::test::StoreView>(memory_, std::move(hook));
    auto store = std::make_unique<rill::FaultInjectingProvider>(
        std::make_unique<rill::EncryptedProvider>(key, std::move(view)));
    if (failing.second > 0) store->failNth(failing.first, failing.second);
    return store;
  }
  // A run on the sealed store; `beforeManifest` runs just before the snapshot's manifest is
  // written, `hook` (when given instead) before every operation.
  base::Result<RunReport> run(const std::string& name, std::function<void()> beforeManifest = {},
                              rill::test::StoreView::Hook hook = {},
                              std::pair<Op, int> failing = {Op::kGet, 0}) {
    if (!hook) hook = rill::test::once("put", "channels/", beforeManifest, "/manifest.json");
    return runBackup(data(), name, hooked(hook, failing));
  }
  RunHooks hooked(rill::test::StoreView::Hook hook = {}, std::pair<Op, int> failing = {}) {
    RunHooks h;
    h.openStore = [=, this](const BackupConfig&) {
      return base::Result<rill::StorageProviderPtr>(sealed(7, hook, failing));
    };
    return h;
  }
  // The tree snapshot `name` restores to (less the state record it carries), or {error: why not}.
  Tree restored(const std::string& name, std::uint8_t key = 7) {
    fs::remove_all(dir() / "restored");
    auto stats = restoreSnapshot(*sealed(key), name, dir() / "restored");
    return stats ? withoutState(dir() / "restored") : Tree{{"error", stats.error()}};
  }
  static Tree withoutState(const fs::path& root) {
    Tree tree = treeContent(root);
    return tree.erase("backup-state.json"), tree;
  }
  // The outcome backup-state.json records: "ok|failed <snapshot>: <error>".
  std::string recorded() {
    Json::Value doc;
    store::readJsonFile(backupStatePath(data()), doc);
    return (doc["ok"] == true ? "ok " : "failed ") + doc["snapshot"].asString() + ": " +
           doc["error"].asString();
  }
  Names listed() { return listSnapshots(*sealed()).value(); }
  // The only direct use of the provider: plants object `plant` when given, then answers the sizes
  // of the objects under `prefix` as stored.
  std::vector<std::uint64_t> storedSizes(const std::string& prefix, Tree plant = {}) {
    for (const auto& [key, bytes] : plant) EXPECT_TRUE(memory_.put(key, bytes));
    std::vector<std::uint64_t> sizes;
    const auto entries = memory_.list(prefix);
    for (const rill::ObjectEntry& entry : entries.value()) sizes.push_back(entry.size);
    return sizes;
  }

  rill::MemoryProvider memory_;
};

TEST_F(SnapshotEngineTest, ASnapshotRestoresEveryFileFollowsBuildVolumesAndLeavesWorkInProgress) {
  // Empty build files, a file named like another's temporary, and secrets.
  writeFile(data() / "builds/b1/d/also-empty", "");
  writeFile(data() / "builds/b1/app.bin.part", "not a temporary");
  writeFile(data() / "backup.key", std::string(64, 'a') + "\n");
  writeFile(data() / "rill.json", R"({"secret_key":"s"})");
  // A build on a volume of its own, linked in; other links are not followed.
  const fs::path volume = dir() / "volume";
  writeFile(volume / "b2/files/big.bin", randomBytes(200000, 4));
  writeFile(volume / "b2/files/notes.json.AbCdEfGhIjKl.tmp", "a build file, whatever its name");
  writeFile(volume / "b2/manifest.json", R"({"build":"b2"})");
  writeFile(dir() / "outside/secret.txt", "not ours");
  fs::create_symlink(volume / "b2", data() / "builds/b2");
  fs::create_symlink(dir() / "outside", data() / "outside");
  fs::create_symlink(dir() / "outside", volume / "b2/files/outside");
  Tree expected = treeContent(data());
  for (auto& [path, bytes] : treeContent(volume / "b2")) expected["builds/b2/" + path] = bytes;
  // Uploads arriving, and documents being written.
  writeFile(volume / "b2/incoming/upload.tmp", "half an upload");
  writeFile(data() / "builds/~incoming/x.tmp", "half an upload");
  writeFile(data() / "users/alice.json.AbCdEfGhIjKl.tmp", "{");
  writeFile(data() / "builds/b1/state.json.AbCdEfGhIjKl.tmp", "{");

  const RunStats first = run(kA).value().stats;
  EXPECT_EQ(std::pair(first.files, first.uploaded), std::pair(expected.size(), first.chunks));
  EXPECT_EQ(recorded(), "ok " + kA + ": ");
  // Stored bytes are what reached the bucket: compressed and sealed.
  const auto chunks = storedSizes("chunks/");
  EXPECT_EQ(first.storedBytes, std::accumulate(chunks.begin(), chunks.end(), 0ul));
  // Unchanged files cost nothing the second time; only the new state record is uploaded.
  const RunStats second = run(kB).value().stats;
  EXPECT_EQ(std::pair(second.alreadyPresent, second.uploaded), std::pair(first.chunks, 1ul));

  const fs::path target = dir() / "new" / "restored";
  EXPECT_EQ(restoreSnapshot(*sealed(), kA, target).value().files, expected.size());
  EXPECT_EQ(treeContent(target), expected);
  EXPECT_FALSE(fs::exists(target / rill::kPullStateDir));
  for (const char* secret : {"backup.key", "rill.json"}) {
    EXPECT_EQ(fs::status(target / secret).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write) << secret;
  }
  for (const char* standard :
       {"users", "tokens", "channels", "groups", "invites", "access-requests", "builds"}) {
    EXPECT_TRUE(fs::is_directory(target / standard)) << standard;
  }
  EXPECT_EQ(restored(kB, 8), (Tree{{"error", "channels/" + kB + "/manifest.json: decryption "
                                             "failed (wrong key, or the object is corrupt)"}}));
}

TEST_F(SnapshotEngineTest, PruneKeepsTheNewestSweepsOnlyWhatNoManifestNamesAndStopsAtAFailure) {
  auto store = sealed();
  // Channels that are not snapshots: never listed, never pruned, their chunks kept.
  writeFile(dir() / "other/nightly.bin", randomBytes(50000, 99));
  rill::PublishOptions o;
  for (const char* channel : {"nightly", "snap-1"}) {
    o.channel = channel;
    ASSERT_TRUE(rill::publishDirectory(*store, dir() / "other", o));
  }
  for (auto [name, seed] : {std::pair{kA, 1u}, {kB, 2u}, {kC, 3u}}) {
    setBuild(seed);
    ASSERT_TRUE(run(name));
  }
  const Tree c = restored(kC);
  EXPECT_EQ(listed(), (Names{kA, kB, kC}));
  Names removed;
  auto pruned = pruneSnapshots(*store, 1, [&](const std::string& n) { removed.push_back(n); });
  ASSERT_TRUE(pruned) << pruned.error();
  EXPECT_EQ(std::pair(removed, pruned.value().kept), std::pair(Names{kA, kB}, 1ul));
  EXPECT_GE(pruned.value().sweptChunks, 2u);  // the two builds only A and B held
  EXPECT_GT(pruned.value().sweptBytes, 600000u);
  EXPECT_EQ(listed(), Names{kC});
  EXPECT_EQ(pruneSnapshots(*store, 1).value().sweptChunks, 0u);
  EXPECT_EQ(pruneSnapshots(*store, 0).value().removed, 0u);
  rill::StorePullSource nightly(*store, "nightly");
  rill::PullOptions pull;
  pull.channel = "nightly";
  EXPECT_TRUE(rill::pullChannel(nightly, dir() / "nightly", pull));
  EXPECT_EQ(restored(kC), c);

  ASSERT_TRUE(run(kD));
  const std::string error = pruneSnapshots(*sealed(7, {}, {Op::kRemove, 1}), 1).error();
  EXPECT_TRUE(error.starts_with("delete " + kC + ": DELETE failed: injected failure")) << error;
  // A manifest that does not read stops the prune before it deletes anything.
  const auto objects = storedSizes("", {{"channels/broken/manifest.json", "not sealed"}});
  EXPECT_TRUE(pruneSnapshots(*store, 1).error().starts_with(text::kPruneUnreadable));
  EXPECT_EQ(storedSizes(""), objects);
}

TEST_F(SnapshotEngineTest, RunsRecordTheirOutcomeOnceTheStoreIsOpenAndPruneToTheirSchedule) {
  // Failures before the store opens leave the record alone.
  EXPECT_EQ(runBackup(data(), kA).error(), "key file unused is missing");
  fs::remove(backupConfigPath(data()));
  EXPECT_EQ(run(kA).error(), text::kNotConfigured);
  EXPECT_FALSE(fs::exists(backupStatePath(data())));
  SetUp();
  ASSERT_TRUE(run(kA));
  const std::string collision = "channel '" + kA + "' already published (use --force to overwrite)";
  EXPECT_EQ(run(kA).error(), collision);
  EXPECT_EQ(recorded(), "failed " + kA + ": " + collision);
  // backup.json is read once per run: a schedule written meanwhile waits for the next run.
  ASSERT_TRUE(run(kB, [&] { ASSERT_TRUE(writeSchedule(backupConfigPath(data()), {"", 1})); }));
  EXPECT_EQ(listed(), (Names{kA, kB}));
  // A failed prune after the run (the list after the publish's) still counts as a backup.
  ASSERT_TRUE(run(kC, {}, {}, {Op::kList, 2}));
  EXPECT_TRUE(recorded().starts_with("ok " + kC + ": backup ok; prune failed: list: injected"));
  ASSERT_TRUE(run(kD));
  EXPECT_EQ(listed(), Names{kD});
  EXPECT_EQ(recorded(), "ok " + kD + ": ");

  // A file that changes or vanishes while the tree is read is taken as it was, or left out;
  // scanned first, the big one's chunks are checked while the rest of the tree is read.
  writeFile(data() / "access-requests/big.json", randomBytes(100000, 5));
  const std::string token = treeContent(data()).at("tokens/t1.json");
  ASSERT_TRUE(run(kE, {}, rill::test::once("exists", "chunks/", [this] {
                    writeFile(data() / "access-requests/big.json", randomBytes(100000, 6));
                    fs::remove(data() / "tokens/t1.json");
                  })));
  EXPECT_EQ(recorded(), "ok " + kE + ": ");
  Tree expected = withoutState(data());
  expected.erase("access-requests/big.json");
  // The token file may have been read before it went (a slow upload thread): then as it was.
  Tree got = restored(kE);
  if (got.contains("tokens/t1.json") && got["tokens/t1.json"] == token) got.erase("tokens/t1.json");
  EXPECT_EQ(got, expected);

  // A run that cannot record its outcome says so, and so does the server's line for it.
  fs::remove(backupStatePath(data()));
  fs::create_directories(backupStatePath(data()));  // a directory where the record belongs
  const std::string unrecorded = "cannot write " + backupStatePath(data()).string();
  const auto report = run(kF), again = run(kF);
  EXPECT_EQ(report.value().unrecorded, unrecorded);
  EXPECT_EQ(again.error(), "channel '" + kF + "' already published (use --force to overwrite) " +
                               "(not recorded: " + unrecorded + ")");
  testing::internal::CaptureStderr();
  printRunOutcome("scheduled backup")(report);
  printRunOutcome("scheduled backup")(again);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "scheduled backup " + kF + " done (not recorded: " + unrecorded +
                ")\nscheduled backup failed: " + again.error() + "\n");
}

// Snapshots A (build 1) and B (build 2) exist; C backs up build 1 again, so it finds every chunk of
// build 1 present (from A) and uploads none. A prune to one snapshot started just before C's
// manifest is written would delete A and, with it, the chunks C is about to name: it must wait.
TEST_F(SnapshotEngineTest, APruneWaitsForTheRunningSnapshotWhoseChunksItWouldSweep) {
  ASSERT_TRUE(run(kA));
  setBuild(2);
  ASSERT_TRUE(run(kB));
  setBuild(1);
  const Tree expected = withoutState(data());
  std::promise<void> waiting;
  base::Result<PruneResult> pruned = base::Failure{"not run"};
  std::thread prune;
  auto c = run(kC, [&] {
    prune = std::thread([&] {
      RunHooks h = hooked();
      h.onWait = [&] { waiting.set_value(); };
      pruned = pruneBackups(data(), 1, h);
    });
    EXPECT_EQ(waiting.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  });
  prune.join();
  EXPECT_EQ(c.value().stats.uploaded, 1u);  // the state record; build 1 was found present
  EXPECT_EQ(pruned.value().removed, 2u);
  EXPECT_EQ(restored(kC), expected);
}

TEST(SnapshotNames, AreUtcStampsOfFixedWidth) {
  using namespace std::chrono;
  EXPECT_EQ(snapshotNameAt(system_clock::time_point(seconds(1788490800))), "snap-20260904-030000");
  for (auto [name, valid] :
       {std::pair{"snap-20260904-030000", true}, {"Snap-20260904-030000", false},
        {"snap-2026090-030000", false}, {"snap-20260904-0300000", false}}) {
    EXPECT_EQ(isSnapshotName(name), valid) << name;
  }
}

}  // namespace
}  // namespace quill::backup
