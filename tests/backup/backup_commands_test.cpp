// The backup and restore commands in-process against the S3 test peer: exact output on the right
// stream, refusals in their order before anything changes, and a restore that gives back the tree.

#include <gtest/gtest.h>

#include <functional>
#include <regex>

#include "app/commands.h"
#include "backup/backup_config.h"
#include "backup/backup_run.h"
#include "backup/backup_texts.h"
#include "handler/context.h"
#include "peer_backups.h"
#include "rill/encryption_key.h"
#include "rill/rill_trees.h"
#include "support/temp_dir_test_base.h"

namespace quill::backup {
namespace {

using rill::test::treeContent;
using rill::test::writeFile;

struct Outcome {
  int code = -1;
  std::string out;
  std::string err;
};

class BackupCommandsTest : public quill::test::TempDirTest {
 protected:
  void SetUp() override {
    auto& peers = rill::test::S3Peers::shared();
    if (!peers.skipReason().empty()) GTEST_SKIP() << peers.skipReason();
    ASSERT_EQ(peers.failure(), "");
    writeFile(data() / "users/alice.json", R"({"name":"alice"})");
    writeFile(data() / "builds/b1/app.bin", rill::test::randomBytes(200000, 1));
  }

  fs::path data() const { return dir() / "data"; }
  fs::path key() const { return dir() / "backup.key"; }

  Outcome run(std::vector<std::string> words, const std::function<void(CommandArguments&)>& tweak = {},
              const fs::path& dataDir = {}) {
    ServerSettings settings;
    settings.dataDir = dataDir.empty() ? data() : dataDir;
    CommandArguments s;
    s.words = std::move(words);
    if (tweak) tweak(s);
    Context ctx(settings);
    std::ostringstream out, err;
    const int code = runCommand(ctx, s, out, err);
    return {code, out.str(), err.str()};
  }
  static std::function<void(CommandArguments&)> peerOptions(const std::string& keyPath = "") {
    return [keyPath](CommandArguments& s) {
      const auto s3 = rill::test::S3Peers::shared().settings();
      s.backup = {s3, keyPath, "", -1};
    };
  }
};

::testing::AssertionResult failsWith(const Outcome& r, const std::string& err) {
  if (r.code == 1 && r.out.empty() && r.err == err + "\n") return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "code " << r.code << ", out '" << r.out << "', err '" << r.err << "'";
}

TEST_F(BackupCommandsTest, InitWritesTheKeyBesideTheDataDirectoryOnce) {
  EXPECT_TRUE(failsWith(run({"backup", "init"}, [](CommandArguments& s) { s.backup.bucket.endpoint = "x"; }),
                        text::kInitNeeds));
  const auto first = run({"backup", "init"}, peerOptions());
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

  EXPECT_TRUE(failsWith(run({"backup", "init"}, peerOptions()),
                        "key file " + keyPath.string() +
                            " already exists - refusing to overwrite (a replaced key makes every "
                            "existing snapshot unreadable)"));
  EXPECT_EQ(rill::test::readFile(keyPath), keyText);

  // No answer at all: refused, and the new key file stays for the operator to remove.
  const auto unreachable = run({"backup", "init"}, [this](CommandArguments& s) {
    peerOptions(key().string())(s);
    s.backup.bucket.endpoint = "http://127.0.0.1:1";
  });
  EXPECT_EQ(unreachable.code, 1);
  EXPECT_EQ(unreachable.err.rfind("cannot reach the backup bucket: curl: ", 0), 0u)
      << unreachable.err;
  EXPECT_TRUE(fs::exists(key()));
}

TEST_F(BackupCommandsTest, RefusalsComeBeforeAnyLoadOrChange) {
  const std::string notConfigured = text::kNotConfigured;
  EXPECT_TRUE(failsWith(run({"backup"}), "backup failed: " + notConfigured));
  EXPECT_TRUE(failsWith(run({"backup", "list"}), notConfigured));
  EXPECT_TRUE(failsWith(run({"backup", "prune"}, [](CommandArguments& s) { s.backup.keep = 1; }), notConfigured));
  EXPECT_TRUE(
      failsWith(run({"backup", "prune"}, [](CommandArguments& s) { s.backup.keep = 0; }), text::kPruneNeedsKeep));
  EXPECT_TRUE(failsWith(run({"backup", "prune"}), text::kPruneNeedsKeep));
  EXPECT_TRUE(failsWith(run({"backup", "schedule", "03:00"}), notConfigured));

  test::configurePeerBackups(data(), key());
  EXPECT_TRUE(failsWith(run({"backup", "schedule", "Off"}), text::kBadTime));
  EXPECT_EQ(readSchedule(backupConfigPath(data()))->dailyAt, "");
}

TEST_F(BackupCommandsTest, ScheduleReplacesKeepOnlyWhenGiven) {
  test::configurePeerBackups(data(), key());
  const std::string pickedUp = std::string(text::kPickedUp) + "\n";
  auto set = run({"backup", "schedule", "03:00"}, [](CommandArguments& s) { s.backup.keep = 2; });
  EXPECT_EQ(set.out, "scheduled backups: daily at 03:00 (server local time), keep 2 snapshot(s)\n" +
                         pickedUp);
  EXPECT_EQ(run({"backup", "schedule", "off"}).out, "scheduled backups: off\n" + pickedUp);
  EXPECT_EQ(readSchedule(backupConfigPath(data()))->keep, 2);
  EXPECT_EQ(run({"backup", "schedule", "23:59"}, [](CommandArguments& s) { s.backup.keep = 0; }).out,
            "scheduled backups: daily at 23:59 (server local time), keep 0 snapshot(s) (no "
            "pruning)\n" +
                pickedUp);
}

TEST_F(BackupCommandsTest, ABackupWhoseOutcomeCannotBeRecordedSaysSo) {
  test::configurePeerBackups(data(), key());
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

  const auto pruned = run({"backup", "prune"}, [](CommandArguments& s) { s.backup.keep = 1; });
  EXPECT_TRUE(std::regex_match(pruned.out,
                               std::regex("  removed snap-20000101-000000\n  removed "
                                          "snap-20000101-000001\nkept 1 snapshot\\(s\\); removed "
                                          "2; swept [0-9]+ chunk\\(s\\) \\([0-9]+ bytes\\)\n")))
      << pruned.out << pruned.err;

  // Restore: every refusal in its order, then the tree as it was.
  const fs::path target = dir() / "restored";
  const auto s3 = rill::test::S3Peers::shared().settings();
  const std::string configFile = backupConfigPath(data()).string();
  const auto restore = [&](const std::string& name, std::function<void(BackupArguments&)> tweak,
                           const fs::path& into) {
    return run(
        {"restore", name},
        [&](CommandArguments& s) {
          s.backup.key = key().string();
          s.backup.from = configFile;
          tweak(s.backup);
        },
        into);
  };
  writeFile(dir() / "incomplete.json", R"({"endpoint":"http://x"})");
  const std::vector<std::tuple<std::string, std::function<void(BackupArguments&)>, std::string>>
      refusals = {
          {"snap-1", [](BackupArguments&) {}, text::kRestoreNeedsName},
          {latest, [](BackupArguments& o) { o.key.clear(); }, text::kRestoreNeedsKey},
          {latest, [&](BackupArguments& o) { o.from = (dir() / "none.json").string(); },
           "cannot read " + (dir() / "none.json").string()},
          {latest, [&](BackupArguments& o) { o.from = (dir() / "incomplete.json").string(); },
           text::kMissingS3},
          {latest, [](BackupArguments& o) { o.from.clear(); }, text::kRestoreNeedsStore},
          {latest, [](BackupArguments&) {},
           "restore target " + data().string() +
               " is not empty - refusing to overwrite a data dir"},
          {latest, [](BackupArguments& o) { o.key = "00"; }, std::string(rill::kBadKeyMessage)},
      };
  for (const auto& [name, tweak, message] : refusals) {
    EXPECT_TRUE(failsWith(
        restore(name, tweak, message.starts_with("restore target") ? data() : target), message))
        << message;
  }
  EXPECT_FALSE(fs::exists(target));

  const auto restored = restore(
      latest,
      [&](BackupArguments& o) {
        o.from.clear();
        o = {s3, key().string(), "", -1};
        o.bucket.prefix = prefix;
      },
      target);
  ASSERT_EQ(restored.code, 0) << restored.err;
  EXPECT_EQ(restored.out,
            "restored " + latest + " -> " + target.string() + ": 3 file(s), " +
                made.out.substr(made.out.find("new (") + 5,
                                made.out.find(" bytes") - made.out.find("new (") - 5) +
                " bytes (verified)\n" + text::kCheckKeyFile + "\n");
  EXPECT_TRUE(treeContent(target) == before) << "the restored tree differs";
  EXPECT_TRUE(fs::is_directory(target / "invites"));
}

}  // namespace
}  // namespace quill::backup
