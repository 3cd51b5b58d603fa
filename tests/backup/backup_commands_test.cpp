// The backup and restore commands in-process, from their command lines, against the S3 test peer:
// exact output on the right stream, refusals in their order before anything changes, a restore
// that gives back the tree, `backup check` and `prune --dry-run`, and the refusals that keep a
// bucket holding what this key cannot read from harm.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "app/command_line.h"
#include "app/commands.h"
#include "backup/backup_run.h"
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
using Rows = std::vector<std::pair<std::string, std::string>>;

struct Outcome {
  int code = -1;
  std::string out, err;
  bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Outcome& r) {
  return os << "code " << r.code << ", out '" << r.out << "', err '" << r.err << "'";
}
Outcome failed(const std::string& err) { return {1, "", err + "\n"}; }

class BackupCommandsTest : public quill::test::TempDirTest {
 protected:
  void SetUp() override {
    QUILL_REQUIRE_S3_PEERS();
    writeFile(data() / "users/alice.json", R"({"name":"alice"})");
    writeFile(data() / "builds/b1/app.bin", rill::test::randomBytes(200000, 1));
  }
  fs::path data() const { return dir() / "data"; }
  fs::path key() const { return dir() / "backup.key"; }

  // Runs `line`, its words split at spaces, with --data-dir data() unless it names one.
  Outcome run(const std::string& line) {
    std::vector<std::string> words;
    std::istringstream in(line);
    for (std::string word; in >> word;) words.push_back(word);
    if (line.find("--data-dir") == std::string::npos) {
      words.insert(words.end(), {"--data-dir", data().string()});
    }
    CommandLine parsed;
    if (parseCommandLine(words, parsed) != ParseOutcome::Proceed) return {};
    Context ctx(parsed.server);
    std::ostringstream out, err;
    const int code = runCommand(ctx, parsed.command, out, err);
    return {code, out.str(), err.str()};
  }
  static std::string peer(const rill::S3Settings& s3 = test::peerSettings()) {
    return " --endpoint " + s3.endpoint + " --bucket " + s3.bucket + " --access-key " +
           s3.accessKey + " --secret-key " + s3.secretKey;
  }
};

TEST_F(BackupCommandsTest, InitWritesTheKeyBesideTheDataDirectoryOnce) {
  EXPECT_EQ(run("backup init --endpoint x"), failed(text::kInitNeeds));
  const auto first = run("backup init" + peer());
  ASSERT_EQ(first.code, 0) << first.err;
  const fs::path keyPath = dir() / "quillmoord-backup.key";
  const std::string keyText = rill::test::readFile(keyPath);
  ASSERT_EQ(keyText.size(), 65u);
  const auto s3 = test::peerSettings();
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
  const auto config = loadBackupConfig(backupConfigPath(data())).value();
  EXPECT_EQ(config.keyFile + "|" + config.s3.region + "|" + config.s3.prefix,
            keyPath.string() + "|auto|");
  EXPECT_EQ(run("backup init" + peer()),
            failed("key file " + keyPath.string() +
                   " already exists - refusing to overwrite (a replaced key makes every existing "
                   "snapshot unreadable)"));
  EXPECT_EQ(rill::test::readFile(keyPath), keyText);

  // No answer at all: refused, and the new key file stays for the operator to remove.
  const auto unreachable = run("backup init --endpoint http://127.0.0.1:1 --bucket b --access-key "
                               "a --secret-key s --key " + key().string());
  EXPECT_TRUE(unreachable.code == 1 &&
              unreachable.err.starts_with("cannot reach the backup bucket: curl: "))
      << unreachable;
  EXPECT_TRUE(fs::exists(key()));

  // A bucket holding another key's snapshots: refused, and no key nothing was sealed with is left.
  const auto own = test::ownBucket("quill-foreign");
  test::sealForeign(own, dir() / "first.key", data());
  const fs::path fresh = dir() / "fresh", newKey = dir() / "new.key";
  EXPECT_EQ(run("backup init" + peer(own) + " --key " + newKey.string() + " --data-dir " +
                fresh.string()),
            failed("bucket 'quill-foreign' already holds 1" + std::string(text::kForeignSnapshots)));
  EXPECT_FALSE(fs::exists(newKey) || fs::exists(backupConfigPath(fresh)));
  EXPECT_EQ(foreignSnapshots(own, (dir() / "first.key").string()), "");
}

TEST_F(BackupCommandsTest, RefusalsComeFirstAndScheduleReplacesKeepOnlyWhenGiven) {
  const std::string no = text::kNotConfigured;
  for (const auto& [line, message] :
       Rows{{"backup", "backup failed: " + no}, {"backup list", no}, {"backup prune --keep 1", no},
            {"backup prune --keep 0", text::kPruneNeedsKeep}, {"backup prune", text::kPruneNeedsKeep},
            {"backup schedule 03:00", no}}) {
    EXPECT_EQ(run(line), failed(message)) << line;
  }
  test::configurePeerBackups(data(), key());
  EXPECT_EQ(run("backup schedule Off"), failed(text::kBadTime));
  EXPECT_EQ(readSchedule(backupConfigPath(data()))->dailyAt, "");

  const std::string pickedUp = std::string(text::kPickedUp) + "\n";
  EXPECT_EQ(run("backup schedule 03:00 --keep 2").out,
            "scheduled backups: daily at 03:00 (server local time), keep 2 snapshot(s)\n" +
                pickedUp);
  EXPECT_EQ(run("backup schedule off").out, "scheduled backups: off\n" + pickedUp);
  EXPECT_EQ(readSchedule(backupConfigPath(data()))->keep, 2);
  EXPECT_EQ(run("backup schedule 23:59 --keep 0").out,
            "scheduled backups: daily at 23:59 (server local time), keep 0 snapshot(s) (no "
            "pruning)\n" + pickedUp);

  fs::create_directories(backupStatePath(data()));  // a directory where the record belongs
  const auto made = run("backup");
  EXPECT_TRUE(made.code == 1 &&
              std::regex_match(made.out, std::regex("backup snap-.* already in the bucket\n")) &&
              made.err == "backup " + made.out.substr(7, 20) + " not recorded: cannot write " +
                              backupStatePath(data()).string() + "\n")
      << made;
}

TEST_F(BackupCommandsTest, BackupListPruneAndRestoreSayExactlyWhatHappened) {
  const std::string prefix = test::configurePeerBackups(data(), key());
  const std::string bucket = test::peerSettings().bucket;
  EXPECT_EQ(run("backup list").out, "no snapshots in bucket '" + bucket + "'\n");

  const auto before = treeContent(data());
  const auto made = run("backup");
  ASSERT_EQ(made.code, 0) << made.err;
  EXPECT_TRUE(std::regex_match(made.out, std::regex("backup snap-[0-9]{8}-[0-9]{6}: 3 chunk\\(s\\), "
                                                    "3 new \\(200[0-9]+ bytes -> [0-9]+ stored, "
                                                    "encrypted\\), 0 already in the bucket\n")))
      << made.out;
  const std::string latest = made.out.substr(7, 20);
  for (const char* older : {"snap-20000101-000000", "snap-20000101-000001"}) {
    ASSERT_TRUE(runBackup(data(), older));
  }
  const std::string listed = run("backup list").out;
  EXPECT_TRUE(std::regex_match(
      listed, std::regex("  snap-20000101-000000  4 file\\(s\\), [0-9]+ bytes\n  "
                         "snap-20000101-000001  .*\n  " + latest +
                         "  .*\n3 snapshot\\(s\\) in bucket '" + bucket + "'\n")))
      << listed;
  const auto pruned = run("backup prune --keep 1");
  EXPECT_TRUE(std::regex_match(pruned.out,
                               std::regex("  removed snap-20000101-000000\n  removed "
                                          "snap-20000101-000001\nkept 1 snapshot\\(s\\); removed "
                                          "2; swept [0-9]+ chunk\\(s\\) \\([0-9]+ bytes\\)\n")))
      << pruned;

  // Restore: every refusal in its order, then the tree as it was.
  const std::string target = (dir() / "restored").string(), to = " --data-dir " + target;
  const std::string withKey = " --key " + key().string(), none = (dir() / "none.json").string();
  const std::string from = " --from " + backupConfigPath(data()).string(), name = latest + withKey;
  writeFile(dir() / "incomplete.json", R"({"endpoint":"http://x"})");
  for (const auto& [line, message] : Rows{
           {"snap-1" + withKey + from + to, text::kRestoreNeedsName},
           {latest + from + to, text::kRestoreNeedsKey},
           {name + " --from " + none + to, "cannot read " + none},
           {name + " --from " + (dir() / "incomplete.json").string() + to, text::kMissingS3},
           {name + to, text::kRestoreNeedsStore},
           {name + from + " --data-dir " + data().string(),
            "restore target " + data().string() + " is not empty - refusing to overwrite a data dir"},
           {latest + " --key 00" + from + to, std::string(rill::kBadKeyMessage)},
           {"snap-20260101-000001 --prefix none/" + withKey + peer() + to,
            "restore failed: no snapshot snap-20260101-000001 in the bucket"}}) {
    EXPECT_EQ(run("restore " + line), failed(message)) << line;
  }
  EXPECT_FALSE(fs::exists(target));

  const auto restored = run("restore " + name + " --prefix " + prefix + peer() + to);
  const std::size_t bytesAt = made.out.find("new (") + 5;
  EXPECT_EQ(restored, (Outcome{0, "restored " + latest + " -> " + target + ": 3 file(s), " +
                                      made.out.substr(bytesAt, made.out.find(" bytes") - bytesAt) +
                                      " bytes (verified)\n" + text::kCheckKeyFile + "\n", ""}));
  EXPECT_TRUE(treeContent(target) == before) << "the restored tree differs";
  EXPECT_TRUE(fs::is_directory(fs::path(target) / "invites"));
}

TEST_F(BackupCommandsTest, KeyMessagesSayWhatIsWrong) {
  const std::string absent = (dir() / "absent.key").string();
  const std::string locked = (dir() / "locked.key").string();
  writeFile(locked, std::string(64, 'a'));
  fs::permissions(locked, fs::perms::none);
  for (const auto& [argument, message] :
       Rows{{absent, "key file " + absent + " is missing"},
            {std::string(63, 'a'), std::string(rill::kBadKeyMessage)},
            {" " + std::string(64, 'a'), std::string(rill::kBadKeyMessage)},
            {locked, "cannot read key file " + locked + ": Permission denied"}}) {
    if (argument == locked && ::geteuid() == 0) continue;  // root reads every file
    EXPECT_EQ(openBackupStore(test::peerSettings(), argument).error(), message);
  }
}

constexpr const char* kFirst = "snap-20260101-000001";
constexpr const char* kSecond = "snap-20260101-000002";

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
    under_ = test::peerSettings();
    under_.prefix = prefix_;
  }
  rill::S3Client bucket() const { return rill::S3Client(test::peerSettings()); }
  void snapshot(const std::string& name) {
    auto made = runBackup(data(), name);
    ASSERT_TRUE(made) << made.error();
  }
  // The bucket key of the chunk holding `file` (a one-chunk file) in kFirst, and its id.
  std::pair<std::string, std::string> chunkOf(const std::string& file) {
    auto store = openBackupStore(under_, key().string());
    const auto manifest = readSnapshotManifest(*store.value(), kFirst);
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

  std::string prefix_;
  rill::S3Settings under_;
};

TEST_F(BackupCheckTest, CatchesADeletedAndACorruptedChunk) {
  snapshot(kFirst);
  const std::string checked = "1 snapshot(s), 3 chunk(s) checked";
  EXPECT_EQ(run("backup check"), (Outcome{0, checked + ": no problems found\n", ""}));

  const auto [deletedKey, deletedId] = chunkOf("a.bin");
  const auto [corruptKey, corruptId] = chunkOf("b.bin");
  ASSERT_TRUE(bucket().remove(deletedKey).isSuccess());
  std::string sealed = bucket().get(corruptKey).body;
  sealed[sealed.size() / 2] ^= 0x01;
  ASSERT_TRUE(bucket().put(corruptKey, sealed).isSuccess());

  const std::string missing = "  chunk " + deletedId + " is missing (" + kFirst + ")\n";
  const std::string corrupt = "  chunk " + corruptId + ": " + corruptKey.substr(prefix_.size()) +
                              ": decryption failed (wrong key, or the object is corrupt) (" +
                              kFirst + ")\n";
  EXPECT_EQ(run("backup check"), (Outcome{1, missing, checked + ": 1 problem(s) found\n"}));
  EXPECT_EQ(run("backup check --read-data"),
            (Outcome{1, corruptId < deletedId ? corrupt + missing : missing + corrupt,
                     checked + " (data read and verified): 2 problem(s) found\n"}));
}

TEST_F(BackupCheckTest, DryRunDeletesNothingAndAnUnreadableSnapshotStopsPrune) {
  snapshot(kFirst);
  writeFile(data() / "a.bin", rill::test::randomBytes(100000, 3));
  snapshot(kSecond);
  const auto before = objects();
  const auto dry = run("backup prune --keep 1 --dry-run");
  EXPECT_TRUE(dry.code == 0 && dry.out.starts_with("  would remove " + std::string(kFirst) +
                                                   "\ndry run, nothing deleted: would keep 1 "
                                                   "snapshot(s); remove 1; sweep 1 chunk(s) ("))
      << dry;
  EXPECT_EQ(objects(), before);

  writeFile(dir() / "other/x.txt", "another server");
  test::sealForeign(under_, dir() / "other.key", dir() / "other");
  const auto withForeign = objects();
  for (const char* line : {"backup prune --keep 1 --dry-run", "backup prune --keep 1"}) {
    const auto refused = run(line);
    EXPECT_TRUE(refused.code == 1 && refused.out.empty() &&
                refused.err.starts_with(text::kPruneUnreadable) &&
                refused.err.find(test::kForeign) != std::string::npos)
        << line << ": " << refused;
    EXPECT_EQ(objects(), withForeign);
  }
  const auto checked = run("backup check");
  EXPECT_TRUE(checked.code == 1 && checked.out.starts_with("  " + std::string(test::kForeign) + ": "))
      << checked;
}

}  // namespace
}  // namespace quill::backup
