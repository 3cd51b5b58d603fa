// Checking a backup bucket, and keeping one that holds what this key cannot read from harm:
// `backup check` against the S3 peer, `prune --dry-run`, and the refusals of prune and init.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "app/commands.h"
#include "backup/backup_run.h"
#include "backup/backup_store.h"
#include "backup/backup_texts.h"
#include "handler/context.h"
#include "peer_backups.h"
#include "rill/providers/encryption_key.h"
#include "rill/rill_trees.h"
#include "support/temp_dir_test_base.h"

namespace quill::backup {
namespace {

using rill::test::randomBytes;
using rill::test::writeFile;

struct Outcome {
  int code = -1;
  std::string out;
  std::string err;
};

constexpr const char* kFirst = "snap-20260101-000001";
constexpr const char* kSecond = "snap-20260101-000002";
constexpr const char* kForeign = "snap-20250101-000000";

class BackupCheckTest : public quill::test::TempDirTest {
 protected:
  void SetUp() override {
    QUILL_REQUIRE_S3_PEERS();
    writeFile(data() / "a.bin", randomBytes(100000, 1));
    writeFile(data() / "b.bin", randomBytes(100000, 2));
    prefix_ = test::configurePeerBackups(data(), dir() / "backup.key");
  }

  fs::path data() const { return dir() / "data"; }
  rill::S3Settings underPrefix() const {
    rill::S3Settings s3 = rill::test::S3Peers::shared().settings();
    s3.prefix = prefix_;
    return s3;
  }
  rill::S3Client bucket() const { return rill::S3Client(rill::test::S3Peers::shared().settings()); }

  Outcome run(std::vector<std::string> words, int keep = -1, bool flag = false) {
    ServerSettings settings;
    settings.dataDir = data();
    CommandArguments s;
    s.words = std::move(words);
    s.backup.keep = keep;
    s.backup.dryRun = s.backup.readData = flag;
    Context ctx(settings);
    std::ostringstream out, err;
    const int code = runCommand(ctx, s, out, err);
    return {code, out.str(), err.str()};
  }
  void snapshot(const std::string& name) {
    auto made = runBackup(data(), name);
    ASSERT_TRUE(made) << made.error();
  }
  // The bucket key of the chunk holding `file` (a one-chunk file), and its id.
  std::pair<std::string, std::string> chunkOf(const std::string& name, const std::string& file) {
    auto store = openBackupStore(underPrefix(), (dir() / "backup.key").string());
    auto manifest = readSnapshotManifest(*store.value(), name);
    for (const auto& f : manifest.value().tree.files) {
      if (f.path == file) return {prefix_ + store.value()->chunkKey(f.chunks[0].h), f.chunks[0].h};
    }
    ADD_FAILURE() << file;
    return {};
  }
  // Every object key under the prefix, with its size: what "nothing deleted" compares.
  std::vector<std::pair<std::string, std::int64_t>> objects() {
    auto listed = bucket().list(prefix_);
    std::vector<std::pair<std::string, std::int64_t>> keys;
    for (const auto& e : listed.value()) keys.emplace_back(e.key, e.size);
    std::sort(keys.begin(), keys.end());
    return keys;
  }
  // A snapshot sealed with another key, as another server sharing the prefix would leave.
  void addForeignSnapshot() {
    const fs::path other = dir() / "other";
    writeFile(other / "x.txt", "another server");
    ASSERT_TRUE(writeKeyFile(dir() / "other.key", generateBackupKey()));
    auto store = openBackupStore(underPrefix(), (dir() / "other.key").string());
    ASSERT_TRUE(publishSnapshot(*store.value(), other, kForeign));
  }

  std::string prefix_;
};

TEST_F(BackupCheckTest, CatchesADeletedAndACorruptedChunk) {
  snapshot(kFirst);
  const auto clean = run({"backup", "check"});
  EXPECT_EQ(clean.code, 0) << clean.err;
  EXPECT_EQ(clean.out, "1 snapshot(s), 3 chunk(s) checked: no problems found\n");

  const auto [deletedKey, deletedId] = chunkOf(kFirst, "a.bin");
  const auto [corruptKey, corruptId] = chunkOf(kFirst, "b.bin");
  ASSERT_TRUE(bucket().remove(deletedKey).isSuccess());
  std::string sealed = bucket().get(corruptKey).body;
  sealed[sealed.size() / 2] ^= 0x01;
  ASSERT_TRUE(bucket().put(corruptKey, sealed).isSuccess());

  const std::string missing = "  chunk " + deletedId + " is missing (" + kFirst + ")\n";
  const auto quick = run({"backup", "check"});
  EXPECT_EQ(quick.code, 1);
  EXPECT_EQ(quick.out, missing);
  EXPECT_EQ(quick.err, "1 snapshot(s), 3 chunk(s) checked: 1 problem(s) found\n");

  const auto thorough = run({"backup", "check"}, -1, true);
  EXPECT_EQ(thorough.code, 1);
  const std::string corrupt = "  chunk " + corruptId + ": " + corruptKey.substr(prefix_.size()) +
                              ": decryption failed (wrong key, or the object is corrupt) (" +
                              kFirst + ")\n";
  EXPECT_EQ(thorough.out, corruptId < deletedId ? corrupt + missing : missing + corrupt);
  EXPECT_EQ(thorough.err,
            "1 snapshot(s), 3 chunk(s) checked (data read and verified): 2 problem(s) found\n");
}

TEST_F(BackupCheckTest, DryRunDeletesNothingAndAnUnreadableSnapshotStopsPrune) {
  snapshot(kFirst);
  writeFile(data() / "a.bin", randomBytes(100000, 3));
  snapshot(kSecond);
  const auto before = objects();

  const auto dry = run({"backup", "prune"}, 1, true);
  EXPECT_EQ(dry.code, 0) << dry.err;
  EXPECT_TRUE(dry.out.starts_with("  would remove " + std::string(kFirst) +
                                  "\ndry run, nothing deleted: would keep 1 snapshot(s); remove "
                                  "1; sweep 1 chunk(s) ("))
      << dry.out;
  EXPECT_EQ(objects(), before);

  addForeignSnapshot();
  const auto withForeign = objects();
  for (const bool dryRun : {true, false}) {
    const auto refused = run({"backup", "prune"}, 1, dryRun);
    EXPECT_EQ(refused.code, 1);
    EXPECT_EQ(refused.out, "");
    EXPECT_TRUE(refused.err.starts_with(text::kPruneUnreadable)) << refused.err;
    EXPECT_NE(refused.err.find(kForeign), std::string::npos) << refused.err;
    EXPECT_EQ(objects(), withForeign);
  }
  const auto checked = run({"backup", "check"});
  EXPECT_EQ(checked.code, 1);
  EXPECT_TRUE(checked.out.starts_with("  " + std::string(kForeign) + ": ")) << checked.out;
}

TEST_F(BackupCheckTest, InitRefusesABucketHoldingSnapshotsOfAnotherKey) {
  // A bucket of its own, so that the refusal cannot meet the other tests' set-ups.
  rill::S3Settings own = rill::test::S3Peers::shared().settings();
  own.bucket = "quill-foreign";
  ASSERT_TRUE(rill::S3Client(own).put("", "").isSuccess());
  ASSERT_TRUE(writeKeyFile(dir() / "first.key", generateBackupKey()));
  auto store = openBackupStore(own, (dir() / "first.key").string());
  ASSERT_TRUE(publishSnapshot(*store.value(), data(), kForeign));

  const fs::path keyPath = dir() / "new.key";
  ServerSettings settings;
  settings.dataDir = dir() / "fresh";
  CommandArguments s;
  s.words = {"backup", "init"};
  s.backup.bucket = own;
  s.backup.bucket.region = "";
  s.backup.key = keyPath.string();
  Context ctx(settings);
  std::ostringstream out, err;
  EXPECT_EQ(runCommand(ctx, s, out, err), 1);
  EXPECT_EQ(err.str(), "bucket 'quill-foreign' already holds 1" +
                           std::string(text::kForeignSnapshots) + "\n");
  EXPECT_FALSE(fs::exists(keyPath)) << "a key nothing was sealed with is not left behind";
  EXPECT_FALSE(fs::exists(backupConfigPath(settings.dataDir)));
  EXPECT_EQ(foreignSnapshots(own, (dir() / "first.key").string()), "");
}

TEST_F(BackupCheckTest, KeyAndSnapshotMessagesSayWhatIsWrong) {
  const auto s3 = rill::test::S3Peers::shared().settings();
  const std::string absent = (dir() / "absent.key").string();
  writeFile(dir() / "locked.key", std::string(64, 'a'));
  fs::permissions(dir() / "locked.key", fs::perms::none);
  const std::vector<std::pair<std::string, std::string>> rows = {
      {absent, "key file " + absent + " is missing"},
      {std::string(63, 'a'), std::string(rill::kBadKeyMessage)},
      {" " + std::string(64, 'a'), std::string(rill::kBadKeyMessage)},
      {(dir() / "locked.key").string(),
       ::geteuid() == 0 ? "" : "cannot read key file " + (dir() / "locked.key").string() +
                                   ": Permission denied"}};
  for (const auto& [argument, message] : rows) {
    auto store = openBackupStore(s3, argument);
    if (message.empty()) continue;  // root reads every file
    ASSERT_FALSE(store) << argument;
    EXPECT_EQ(store.error(), message);
  }
  ServerSettings settings;
  settings.dataDir = dir() / "restored";
  CommandArguments s;
  s.words = {"restore", kFirst};
  s.backup.bucket = s3;
  s.backup.bucket.region = "";
  s.backup.bucket.prefix = prefix_;
  s.backup.key = (dir() / "backup.key").string();
  Context ctx(settings);
  std::ostringstream out, err;
  EXPECT_EQ(runCommand(ctx, s, out, err), 1);
  EXPECT_EQ(err.str(), "restore failed: no snapshot " + std::string(kFirst) + " in the bucket\n");
}

}  // namespace
}  // namespace quill::backup
