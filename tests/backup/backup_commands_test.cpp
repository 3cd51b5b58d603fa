// The backup and restore commands in-process, from their command lines, against the S3 test peer:
// exact output on the right stream, refusals in their order before anything changes, and a
// restore that gives back the tree; `backup check` and `prune --dry-run`, and the refusals that
// keep a bucket holding what this key cannot read from harm.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <tuple>

#include "app/command_line.h"
#include "app/commands.h"
#include "backup/backup_config.h"
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

using rill::test::treeContent;
using rill::test::writeFile;
using Words = std::vector<std::string>;

struct Outcome {
  int code = -1;
  std::string out, err;
};

::testing::AssertionResult failsWith(const Outcome& r, const std::string& err) {
  if (r.code == 1 && r.out.empty() && r.err == err + "\n") return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "code " << r.code << ", out '" << r.out << "', err '" << r.err << "'";
}

class BackupCommandsTest : public quill::test::TempDirTest {
 protected:
  void SetUp() override {
    QUILL_REQUIRE_S3_PEERS();
    writeFile(data() / "users/alice.json", R"({"name":"alice"})");
    writeFile(data() / "builds/b1/app.bin", rill::test::randomBytes(200000, 1));
  }
  fs::path data() const { return dir() / "data"; }
  fs::path key() const { return dir() / "backup.key"; }

  // Runs the command line `words`, with --data-dir `data()` unless it names one.
  Outcome run(Words words) {
    if (std::find(words.begin(), words.end(), "--data-dir") == words.end()) {
      words.insert(words.end(), {"--data-dir", data().string()});
    }
    CommandLine line;
    if (parseCommandLine(words, line) != ParseOutcome::Proceed) return {};
    Context ctx(line.server);
    std::ostringstream out, err;
    const int code = runCommand(ctx, line.command, out, err);
    return {code, out.str(), err.str()};
  }
  static Words peer(Words words) {
    const auto s3 = rill::test::S3Peers::shared().settings();
    words.insert(words.end(), {"--endpoint", s3.endpoint, "--bucket", s3.bucket, "--access-key",
                               s3.accessKey, "--secret-key", s3.secretKey});
    return words;
  }
};

TEST_F(BackupCommandsTest, InitWritesTheKeyBesideTheDataDirectoryOnce) {
  EXPECT_TRUE(failsWith(run({"backup", "init", "--endpoint", "x"}), text::kInitNeeds));
  const auto first = run(peer({"backup", "init"}));
  ASSERT_EQ(first.code, 0) << first.err;
  const fs::path keyPath = dir() / "quillmoord-backup.key";
  const std::string keyText = rill::test::readFile(keyPath);
  ASSERT_EQ(keyText.size(), 65u);
  const auto s3 = rill::test::S3Peers::shared().settings();
  EXPECT_EQ(first.out, "Backups configured: bucket '" + s3.bucket + "' at " + s3.endpoint +
                           "\nEncryption key written to " + keyPath.string() + "\n\n  " +
                           keyText.substr(0, 64) +
                           "\n\nSTORE THIS KEY SOMEWHERE SAFE (password manager). It is shown "
                           "only now.\nEvery snapshot is encrypted with it; without it a backup "
                           "cannot be\nrestored - not by you, not by us. Now run: quillmoord "
                           "backup\n");
  // The key, and the bucket's secret beside it, are for the server's account only.
  for (const fs::path& secret : {keyPath, backupConfigPath(data())}) {
    EXPECT_EQ(fs::status(secret).permissions(), fs::perms::owner_read | fs::perms::owner_write)
        << secret;
  }
  auto config = loadBackupConfig(backupConfigPath(data()));
  ASSERT_TRUE(config) << config.error();
  EXPECT_EQ(config.value().keyFile, keyPath.string());
  EXPECT_EQ(config.value().s3.region, "auto");
  EXPECT_EQ(config.value().s3.prefix, "");
  EXPECT_TRUE(failsWith(run(peer({"backup", "init"})),
                        "key file " + keyPath.string() +
                            " already exists - refusing to overwrite (a replaced key makes every "
                            "existing snapshot unreadable)"));
  EXPECT_EQ(rill::test::readFile(keyPath), keyText);

  // No answer at all: refused, and the new key file stays for the operator to remove.
  const auto unreachable = run({"backup", "init", "--endpoint", "http://127.0.0.1:1", "--bucket",
                                "b", "--access-key", "a", "--secret-key", "s", "--key",
                                key().string()});
  EXPECT_EQ(unreachable.code, 1);
  EXPECT_EQ(unreachable.err.rfind("cannot reach the backup bucket: curl: ", 0), 0u)
      << unreachable.err;
  EXPECT_TRUE(fs::exists(key()));
}

TEST_F(BackupCommandsTest, RefusalsComeFirstAndScheduleReplacesKeepOnlyWhenGiven) {
  const std::string notConfigured = text::kNotConfigured;
  for (const auto& [words, message] : std::vector<std::pair<Words, std::string>>{
           {{"backup"}, "backup failed: " + notConfigured},
           {{"backup", "list"}, notConfigured},
           {{"backup", "prune", "--keep", "1"}, notConfigured},
           {{"backup", "prune", "--keep", "0"}, text::kPruneNeedsKeep},
           {{"backup", "prune"}, text::kPruneNeedsKeep},
           {{"backup", "schedule", "03:00"}, notConfigured}}) {
    EXPECT_TRUE(failsWith(run(words), message)) << words.back();
  }
  test::configurePeerBackups(data(), key());
  EXPECT_TRUE(failsWith(run({"backup", "schedule", "Off"}), text::kBadTime));
  EXPECT_EQ(readSchedule(backupConfigPath(data()))->dailyAt, "");

  const std::string pickedUp = std::string(text::kPickedUp) + "\n";
  EXPECT_EQ(run({"backup", "schedule", "03:00", "--keep", "2"}).out,
            "scheduled backups: daily at 03:00 (server local time), keep 2 snapshot(s)\n" +
                pickedUp);
  EXPECT_EQ(run({"backup", "schedule", "off"}).out, "scheduled backups: off\n" + pickedUp);
  EXPECT_EQ(readSchedule(backupConfigPath(data()))->keep, 2);
  EXPECT_EQ(run({"backup", "schedule", "23:59", "--keep", "0"}).out,
            "scheduled backups: daily at 23:59 (server local time), keep 0 snapshot(s) (no "
            "pruning)\n" + pickedUp);

  fs::create_directories(backupStatePath(data()));  // a directory where the record belongs
  const auto made = run({"backup"});
  EXPECT_EQ(made.code, 1);
  EXPECT_TRUE(std::regex_match(made.out, std::regex("backup snap-.* already in the bucket\n")))
      << made.out;
  EXPECT_EQ(made.err, "backup " + made.out.substr(7, 20) + " not recorded: cannot write " +
                          backupStatePath(data()).string() + "\n");
}

TEST_F(BackupCommandsTest, BackupListPruneAndRestoreSayExactlyWhatHappened) {
  const std::string prefix = test::configurePeerBackups(data(), key());
  const std::string bucket = rill::test::S3Peers::shared().settings().bucket;
  EXPECT_EQ(run({"backup", "list"}).out, "no snapshots in bucket '" + bucket + "'\n");

  const auto before = treeContent(data());
  const auto made = run({"backup"});
  ASSERT_EQ(made.code, 0) << made.err;
  EXPECT_TRUE(
      std::regex_match(made.out, std::regex("backup snap-[0-9]{8}-[0-9]{6}: 3 chunk\\(s\\), "
                                            "3 new \\(200[0-9]+ bytes -> [0-9]+ stored, "
                                            "encrypted\\), 0 already in the bucket\n")))
      << made.out;
  const std::string latest = made.out.substr(7, 20);
  for (const char* older : {"snap-20000101-000000", "snap-20000101-000001"}) {
    ASSERT_TRUE(runBackup(data(), older));
  }
  const std::string listed = run({"backup", "list"}).out;
  EXPECT_TRUE(std::regex_match(
      listed, std::regex("  snap-20000101-000000  4 file\\(s\\), [0-9]+ "
                         "bytes\n  snap-20000101-000001  .*\n  " +
                         latest + "  .*\n3 snapshot\\(s\\) in bucket '" + bucket + "'\n")))
      << listed;
  const auto pruned = run({"backup", "prune", "--keep", "1"});
  EXPECT_TRUE(std::regex_match(pruned.out,
                               std::regex("  removed snap-20000101-000000\n  removed "
                                          "snap-20000101-000001\nkept 1 snapshot\\(s\\); removed "
                                          "2; swept [0-9]+ chunk\\(s\\) \\([0-9]+ bytes\\)\n")))
      << pruned.out << pruned.err;

  // Restore: every refusal in its order, then the tree as it was.
  const std::string target = (dir() / "restored").string(), keyArg = key().string();
  const std::string from = backupConfigPath(data()).string();
  writeFile(dir() / "incomplete.json", R"({"endpoint":"http://x"})");
  const std::string none = (dir() / "none.json").string();
  for (const auto& [words, message] : std::vector<std::pair<Words, std::string>>{
           {{"snap-1", "--key", keyArg, "--from", from}, text::kRestoreNeedsName},
           {{latest, "--from", from}, text::kRestoreNeedsKey},
           {{latest, "--key", keyArg, "--from", none}, "cannot read " + none},
           {{latest, "--key", keyArg, "--from", (dir() / "incomplete.json").string()},
            text::kMissingS3},
           {{latest, "--key", keyArg}, text::kRestoreNeedsStore},
           {{latest, "--key", keyArg, "--from", from, "--data-dir", data().string()},
            "restore target " + data().string() +
                " is not empty - refusing to overwrite a data dir"},
           {{latest, "--key", "00", "--from", from}, std::string(rill::kBadKeyMessage)}}) {
    Words command{"restore"};
    command.insert(command.end(), words.begin(), words.end());
    if (words.back() != data().string()) command.insert(command.end(), {"--data-dir", target});
    EXPECT_TRUE(failsWith(run(command), message)) << message;
  }
  EXPECT_FALSE(fs::exists(target));

  const auto restored = run(peer({"restore", latest, "--data-dir", target, "--key", keyArg,
                                  "--prefix", prefix}));
  ASSERT_EQ(restored.code, 0) << restored.err;
  const std::size_t bytesAt = made.out.find("new (") + 5;
  EXPECT_EQ(restored.out, "restored " + latest + " -> " + target + ": 3 file(s), " +
                              made.out.substr(bytesAt, made.out.find(" bytes") - bytesAt) +
                              " bytes (verified)\n" + text::kCheckKeyFile + "\n");
  EXPECT_TRUE(treeContent(target) == before) << "the restored tree differs";
  EXPECT_TRUE(fs::is_directory(fs::path(target) / "invites"));
}

constexpr const char* kFirst = "snap-20260101-000001";
constexpr const char* kSecond = "snap-20260101-000002";
constexpr const char* kForeign = "snap-20250101-000000";

// Two one-chunk files under a prefix of their own, checked and pruned from the command line.
class BackupCheckTest : public BackupCommandsTest {
 protected:
  void SetUp() override {
    BackupCommandsTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    fs::remove_all(data());
    writeFile(data() / "a.bin", rill::test::randomBytes(100000, 1));
    writeFile(data() / "b.bin", rill::test::randomBytes(100000, 2));
    prefix_ = test::configurePeerBackups(data(), key());
  }
  rill::S3Settings underPrefix() const {
    rill::S3Settings s3 = rill::test::S3Peers::shared().settings();
    s3.prefix = prefix_;
    return s3;
  }
  rill::S3Client bucket() const { return rill::S3Client(rill::test::S3Peers::shared().settings()); }
  void snapshot(const std::string& name) {
    auto made = runBackup(data(), name);
    ASSERT_TRUE(made) << made.error();
  }
  // The bucket key of the chunk holding `file` (a one-chunk file), and its id.
  std::pair<std::string, std::string> chunkOf(const std::string& name, const std::string& file) {
    auto store = openBackupStore(underPrefix(), key().string());
    const auto manifest = readSnapshotManifest(*store.value(), name);
    for (const auto& f : manifest.value().tree.files) {
      if (f.path == file) return {prefix_ + store.value()->chunkKey(f.chunks[0].h), f.chunks[0].h};
    }
    ADD_FAILURE() << file;
    return {};
  }
  // Every object key under the prefix, with its size: what "nothing deleted" compares.
  std::vector<std::pair<std::string, std::int64_t>> objects() {
    std::vector<std::pair<std::string, std::int64_t>> keys;
    const auto listed = bucket().list(prefix_);
    for (const auto& e : listed.value()) keys.emplace_back(e.key, e.size);
    std::sort(keys.begin(), keys.end());
    return keys;
  }
  // A snapshot of `tree` sealed with a fresh key in `where`, as another server would leave it.
  static void sealForeign(const rill::S3Settings& where, const fs::path& keyFile,
                          const fs::path& tree) {
    ASSERT_TRUE(writeKeyFile(keyFile, generateBackupKey()));
    auto store = openBackupStore(where, keyFile.string());
    ASSERT_TRUE(store) << store.error();
    ASSERT_TRUE(publishSnapshot(*store.value(), tree, kForeign));
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
  const std::string corrupt = "  chunk " + corruptId + ": " + corruptKey.substr(prefix_.size()) +
                              ": decryption failed (wrong key, or the object is corrupt) (" +
                              kFirst + ")\n";
  const std::string checked = "1 snapshot(s), 3 chunk(s) checked";
  for (const auto& [words, out, err] : std::vector<std::tuple<Words, std::string, std::string>>{
           {{"backup", "check"}, missing, checked + ": 1 problem(s) found\n"},
           {{"backup", "check", "--read-data"},
            corruptId < deletedId ? corrupt + missing : missing + corrupt,
            checked + " (data read and verified): 2 problem(s) found\n"}}) {
    const auto r = run(words);
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.err, err);
  }
}

TEST_F(BackupCheckTest, DryRunDeletesNothingAndAnUnreadableSnapshotStopsPrune) {
  snapshot(kFirst);
  writeFile(data() / "a.bin", rill::test::randomBytes(100000, 3));
  snapshot(kSecond);
  const auto before = objects();

  const auto dry = run({"backup", "prune", "--keep", "1", "--dry-run"});
  EXPECT_EQ(dry.code, 0) << dry.err;
  EXPECT_TRUE(dry.out.starts_with("  would remove " + std::string(kFirst) +
                                  "\ndry run, nothing deleted: would keep 1 snapshot(s); remove "
                                  "1; sweep 1 chunk(s) ("))
      << dry.out;
  EXPECT_EQ(objects(), before);

  writeFile(dir() / "other/x.txt", "another server");
  sealForeign(underPrefix(), dir() / "other.key", dir() / "other");
  const auto withForeign = objects();
  for (const bool dryRun : {true, false}) {
    Words prune{"backup", "prune", "--keep", "1"};
    if (dryRun) prune.push_back("--dry-run");
    const auto refused = run(prune);
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
  sealForeign(own, dir() / "first.key", data());

  const fs::path fresh = dir() / "fresh", keyPath = dir() / "new.key";
  EXPECT_TRUE(failsWith(run({"backup", "init", "--endpoint", own.endpoint, "--bucket", own.bucket,
                             "--access-key", own.accessKey, "--secret-key", own.secretKey,
                             "--key", keyPath.string(), "--data-dir", fresh.string()}),
                        "bucket 'quill-foreign' already holds 1" +
                            std::string(text::kForeignSnapshots)));
  EXPECT_FALSE(fs::exists(keyPath)) << "a key nothing was sealed with is not left behind";
  EXPECT_FALSE(fs::exists(backupConfigPath(fresh)));
  EXPECT_EQ(foreignSnapshots(own, (dir() / "first.key").string()), "");
}

TEST_F(BackupCheckTest, KeyAndSnapshotMessagesSayWhatIsWrong) {
  const auto s3 = rill::test::S3Peers::shared().settings();
  const std::string absent = (dir() / "absent.key").string();
  const std::string locked = (dir() / "locked.key").string();
  writeFile(locked, std::string(64, 'a'));
  fs::permissions(locked, fs::perms::none);
  for (const auto& [argument, message] : std::vector<std::pair<std::string, std::string>>{
           {absent, "key file " + absent + " is missing"},
           {std::string(63, 'a'), std::string(rill::kBadKeyMessage)},
           {" " + std::string(64, 'a'), std::string(rill::kBadKeyMessage)},
           {locked, ::geteuid() == 0 ? "" : "cannot read key file " + locked +
                                                ": Permission denied"}}) {
    auto store = openBackupStore(s3, argument);
    if (message.empty()) continue;  // root reads every file
    ASSERT_FALSE(store) << argument;
    EXPECT_EQ(store.error(), message);
  }
  EXPECT_TRUE(failsWith(run(peer({"restore", kFirst, "--prefix", prefix_, "--key", key().string(),
                                  "--data-dir", (dir() / "restored").string()})),
                        "restore failed: no snapshot " + std::string(kFirst) + " in the bucket"));
}

}  // namespace
}  // namespace quill::backup
