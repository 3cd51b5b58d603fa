// The backup and restore commands in-process, from their command lines, against the S3 test peer:
// exact output on the right stream, refusals in their order before anything changes, `backup
// check` and `prune --dry-run`, and the refusals that keep a bucket holding what this key cannot
// read from harm.

#include <unistd.h>

#include <regex>
#include <sstream>

#include "app/command_line.h"
#include "app/commands.h"
#include "backup/backup_run.h"
#include "handler/context.h"
#include "peer_backups.h"
#include "rill/rill_trees.h"
#include "support/temp_dir_test_base.h"

namespace quill::backup {
namespace {

using rill::test::writeFile;

class BackupCommandsTest : public quill::test::TempDirTest {
 protected:
  void SetUp() override {
    QUILL_REQUIRE_S3_PEERS();
    writeFile(data() / "users/alice.json", R"({"name":"alice"})");
    writeFile(data() / "builds/b1/app.bin", rill::test::randomBytes(200000, 1));
    vars_ = {{"dir", dir().string()}, {"data", data().string()}, {"key", key().string()},
             {"ep", test::peerSettings().endpoint}, {"peer", peer(test::peerSettings())}};
  }
  fs::path data() const { return dir() / "data"; }
  fs::path key() const { return dir() / "backup.key"; }
  static std::string peer(const rill::S3Settings& s3) {
    return "--endpoint " + s3.endpoint + " --bucket " + s3.bucket + " --access-key " +
           s3.accessKey + " --secret-key " + s3.secretKey;
  }

  // Runs each line `command words => code | stdout | stderr` in order, with --data-dir $data
  // unless the words name one. `$name` is vars_[name]; in the outputs `*` is any text, `#` a
  // number, `\n` a line break, and a line break ends each one not empty nor ending in `*`.
  void walk(const std::string& table) {
    std::istringstream lines(table);
    std::smatch row;
    for (std::string line; std::getline(lines, line);) {
      if ((line = expand(line)).find(" => ") == std::string::npos) continue;
      SCOPED_TRACE(line);
      ASSERT_TRUE(std::regex_match(line, row, std::regex(R"( *(.*) => (\d+) \| ?(.*?) ?\| ?(.*))")));
      const bool dataDir = row[1].str().find("--data-dir") == std::string::npos;
      std::istringstream in(row[1].str() + (dataDir ? " --data-dir $data" : ""));
      std::vector<std::string> words;
      for (std::string word; in >> word;) words.push_back(word == "$data" ? data().string() : word);
      CommandLine parsed;
      ASSERT_EQ(parseCommandLine(words, parsed), ParseOutcome::Proceed);
      Context ctx(parsed.server);
      std::ostringstream out, err;
      last_ = {runCommand(ctx, parsed.command, out, err), out.str(), err.str()};
      EXPECT_EQ(last_.code, std::stoi(row[2].str()));
      EXPECT_TRUE(std::regex_match(last_.out, pattern(row[3].str()))) << last_.out;
      EXPECT_TRUE(std::regex_match(last_.err, pattern(row[4].str()))) << last_.err;
    }
  }
  std::string expand(std::string text) {
    std::smatch m;
    std::string out;
    for (; std::regex_search(text, m, std::regex("\\$([a-zA-Z]+)")); text = m.suffix()) {
      out += m.prefix().str() + vars_[m[1].str()];
    }
    return out + text;
  }
  static std::regex pattern(const std::string& text) {
    std::string re = std::regex_replace(text, std::regex(R"([\^$.|?+()\[\]{}])"), "\\$&");
    re = std::regex_replace(re, std::regex(R"(\\n)"), "\n");
    re = std::regex_replace(re, std::regex("\\*"), "[\\s\\S]*");
    re = std::regex_replace(re, std::regex("#"), "[0-9]+");
    return std::regex(re.empty() || text.ends_with('*') ? re : re + "\n");
  }

  std::map<std::string, std::string> vars_;
  struct {
    int code;
    std::string out, err;
  } last_;
};

TEST_F(BackupCommandsTest, InitWritesTheKeyBesideTheDataDirectoryOnce) {
  walk(R"(
    backup init --endpoint x => 1 | | backup init needs --endpoint --bucket --access-key --secret-key (a SEPARATE bucket with its own credential)
    backup init $peer => 0 | Backups configured: bucket 'quill-test' at $ep\nEncryption key written to $dir/quillmoord-backup.key\n\n  *\n\nSTORE THIS KEY SOMEWHERE SAFE (password manager). It is shown only now.\nEvery snapshot is encrypted with it; without it a backup cannot be\nrestored - not by you, not by us. Now run: quillmoord backup |
  )");
  const fs::path keyPath = dir() / "quillmoord-backup.key";
  const std::string keyText = rill::test::readFile(keyPath);
  EXPECT_EQ(keyText, last_.out.substr(last_.out.find("\n\n  ") + 4, 64) + "\n");
  // The key, and the bucket's secret beside it, are for the server's account only.
  for (const fs::path& secret : {keyPath, backupConfigPath(data())}) {
    EXPECT_EQ(fs::status(secret).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  }
  const auto config = loadBackupConfig(backupConfigPath(data())).value();
  EXPECT_EQ(config.keyFile + "|" + config.s3.region + "|" + config.s3.prefix,
            keyPath.string() + "|auto|");
  const auto foreign = test::foreignBucket("quill-foreign", dir() / "first.key", data());
  vars_["foreign"] = peer(foreign);
  walk(R"(
    backup init $peer => 1 | | key file $dir/quillmoord-backup.key already exists - refusing to overwrite (a replaced key makes every existing snapshot unreadable)
    # No answer at all: refused, and the new key file stays for the operator to remove.
    backup init --endpoint http://127.0.0.1:1 --bucket b --access-key a --secret-key s --key $key => 1 | | cannot reach the backup bucket: curl: *
    # A bucket holding another key's snapshots: refused, leaving no key that sealed nothing.
    backup init $foreign --key $dir/new.key --data-dir $dir/fresh => 1 | | bucket 'quill-foreign' already holds 1 snapshot(s) this key cannot read (another server's?) - use another bucket or prefix
  )");
  EXPECT_EQ(rill::test::readFile(keyPath), keyText);
  EXPECT_TRUE(fs::exists(key()));
  EXPECT_FALSE(fs::exists(dir() / "new.key") || fs::exists(dir() / "fresh/backup.json"));
  EXPECT_EQ(foreignSnapshots(foreign, (dir() / "first.key").string()), "");
}

TEST_F(BackupCommandsTest, RefusalsComeFirstAndScheduleReplacesKeepOnlyWhenGiven) {
  walk(R"(
    backup => 1 | | backup failed: backups not configured - run: quillmoord backup init ...
    backup list => 1 | | backups not configured - run: quillmoord backup init ...
    backup prune --keep 1 => 1 | | backups not configured - run: quillmoord backup init ...
    backup prune --keep 0 => 1 | | backup prune needs --keep <N> (N >= 1)
    backup prune => 1 | | backup prune needs --keep <N> (N >= 1)
    backup schedule 03:00 => 1 | | backups not configured - run: quillmoord backup init ...
  )");
  test::configurePeerBackups(data(), key());
  walk(R"(
    backup schedule 03:00 --keep 2 => 0 | scheduled backups: daily at 03:00 (server local time), keep 2 snapshot(s)\nThe running server picks this up within a minute (restart not needed). |
    backup schedule off => 0 | scheduled backups: off\nThe running server picks this up within a minute (restart not needed). |
    backup schedule Off => 1 | | time must be HH:MM (24h, server local) or 'off'
  )");
  const auto schedule = readSchedule(backupConfigPath(data())).value();
  EXPECT_EQ(schedule.dailyAt + " " + std::to_string(schedule.keep), " 2");
  fs::create_directories(backupStatePath(data()));  // a directory where the record belongs
  walk(R"(
    backup schedule 23:59 --keep 0 => 0 | scheduled backups: daily at 23:59 (server local time), keep 0 snapshot(s) (no pruning)\nThe running server picks this up within a minute (restart not needed). |
    backup => 1 | backup snap-*: * already in the bucket | backup snap-* not recorded: cannot write $data/backup-state.json
  )");
  EXPECT_EQ(last_.err.substr(7, 20), last_.out.substr(7, 20));
}

TEST_F(BackupCommandsTest, BackupListPruneAndRestoreSayExactlyWhatHappened) {
  vars_["prefix"] = test::configurePeerBackups(data(), key());
  walk(R"(
    backup list => 0 | no snapshots in bucket 'quill-test' |
    backup => 0 | backup snap-#-#: 3 chunk(s), 3 new (200# bytes -> # stored, encrypted), 0 already in the bucket |
  )");
  vars_["latest"] = last_.out.substr(7, 20);
  const auto bytesAt = last_.out.find("new (") + 5;
  vars_["bytes"] = last_.out.substr(bytesAt, last_.out.find(" bytes") - bytesAt);
  for (const char* older : {"snap-20000101-000000", "snap-20000101-000001"}) {
    ASSERT_TRUE(runBackup(data(), older));
  }
  writeFile(dir() / "incomplete.json", R"({"endpoint":"http://x"})");
  // Restore: every refusal in its order, then the snapshot.
  walk(R"(
    backup list => 0 |   snap-20000101-000000  4 file(s), # bytes\n  snap-20000101-000001  *\n  $latest  *\n3 snapshot(s) in bucket 'quill-test' |
    backup prune --keep 1 => 0 |   removed snap-20000101-000000\n  removed snap-20000101-000001\nkept 1 snapshot(s); removed 2; swept # chunk(s) (# bytes) |
    restore snap-1 --key $key --from $data/backup.json --data-dir $dir/to => 1 | | restore needs a snapshot name (snap-YYYYMMDD-HHMMSS)
    restore $latest --from $data/backup.json --data-dir $dir/to => 1 | | restore needs --key <key-file|hex>
    restore $latest --key $key --from $dir/none.json --data-dir $dir/to => 1 | | cannot read $dir/none.json
    restore $latest --key $key --from $dir/incomplete.json --data-dir $dir/to => 1 | | missing endpoint/bucket/access_key/secret_key
    restore $latest --key $key --data-dir $dir/to => 1 | | restore needs --from <backup.json> or --endpoint --bucket --access-key --secret-key
    restore $latest --key $key --from $data/backup.json --data-dir $data => 1 | | restore target $data is not empty - refusing to overwrite a data dir
    restore $latest --key 00 --from $data/backup.json --data-dir $dir/to => 1 | | encryption key must be 64 hex chars (or a file containing them)
    restore $latest --key aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa --from $data/backup.json --data-dir $dir/to => 1 | | encryption key must be 64 hex chars (or a file containing them)
    restore $latest --key $dir/absent.key --from $data/backup.json --data-dir $dir/to => 1 | | key file $dir/absent.key is missing
    restore snap-20260101-000001 --prefix none/ --key $key $peer --data-dir $dir/to => 1 | | restore failed: no snapshot snap-20260101-000001 in the bucket
  )");
  EXPECT_FALSE(fs::exists(dir() / "to"));
  // Key text is taken as it is, and an unreadable key file says why (root reads every file).
  EXPECT_EQ(openBackupStore(test::peerSettings(), " " + std::string(64, 'a')).error(),
            "encryption key must be 64 hex chars (or a file containing them)");
  const std::string locked = (dir() / "locked.key").string();
  writeFile(locked, std::string(64, 'a'));
  fs::permissions(locked, fs::perms::none);
  if (::geteuid() != 0) {
    EXPECT_EQ(openBackupStore(test::peerSettings(), locked).error(),
              "cannot read key file " + locked + ": Permission denied");
  }
  walk(R"(
    restore $latest --prefix $prefix --key $key $peer --data-dir $dir/to => 0 | restored $latest -> $dir/to: 3 file(s), $bytes bytes (verified)\nCheck backup.json's key_file path on this machine before the next backup. |
  )");
}

// Two one-chunk files under a prefix of their own, checked and pruned from the command line.
class BackupCheckTest : public BackupCommandsTest {
 protected:
  void SetUp() override {
    BackupCommandsTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    fs::remove_all(data());
    writeFile(data() / "a.bin", rill::test::randomBytes(100000, 1));
    writeFile(data() / "b.bin", rill::test::randomBytes(100000, 2));
    under_ = test::peerSettings();
    under_.prefix = test::configurePeerBackups(data(), key());
    ASSERT_TRUE(runBackup(data(), vars_["first"] = "snap-20260101-000001"));
  }
  // Every object key under the prefix, with its size: what "nothing deleted" compares.
  std::vector<std::pair<std::string, std::int64_t>> objects() {
    std::vector<std::pair<std::string, std::int64_t>> keys;
    const auto listed = rill::S3Client(test::peerSettings()).list(under_.prefix);
    for (const auto& e : listed.value()) keys.emplace_back(e.key, e.size);
    std::sort(keys.begin(), keys.end());
    return keys;
  }

  rill::S3Settings under_;
};

TEST_F(BackupCheckTest, CatchesADeletedAndACorruptedChunk) {
  walk("backup check => 0 | 1 snapshot(s), 3 chunk(s) checked: no problems found |");
  // The chunk of each one-chunk file, by id and object key.
  auto store = openBackupStore(under_, key().string());
  const auto manifest = readSnapshotManifest(*store.value(), vars_["first"]);
  for (const auto& f : manifest.value().tree.files) {
    vars_[f.path] = f.chunks[0].h;
    vars_[f.path + "Key"] = store.value()->chunkKey(f.chunks[0].h);
  }
  const rill::S3Client bucket(test::peerSettings());
  ASSERT_TRUE(bucket.remove(under_.prefix + vars_["a.binKey"]).isSuccess());
  std::string sealed = bucket.get(under_.prefix + vars_["b.binKey"]).body;
  sealed[sealed.size() / 2] ^= 0x01;
  ASSERT_TRUE(bucket.put(under_.prefix + vars_["b.binKey"], sealed).isSuccess());
  vars_["missing"] = "  chunk " + vars_["a.bin"] + " is missing (" + vars_["first"] + ")";
  vars_["corrupt"] = "  chunk " + vars_["b.bin"] + ": " + vars_["b.binKey"] +
                     ": decryption failed (wrong key, or the object is corrupt) (" +
                     vars_["first"] + ")";
  vars_["both"] = vars_["b.bin"] < vars_["a.bin"] ? vars_["corrupt"] + "\\n" + vars_["missing"]
                                                  : vars_["missing"] + "\\n" + vars_["corrupt"];
  walk(R"(
    backup check => 1 | $missing | 1 snapshot(s), 3 chunk(s) checked: 1 problem(s) found
    backup check --read-data => 1 | $both | 1 snapshot(s), 3 chunk(s) checked (data read and verified): 2 problem(s) found
  )");
}

TEST_F(BackupCheckTest, DryRunDeletesNothingAndAnUnreadableSnapshotStopsPrune) {
  writeFile(data() / "a.bin", rill::test::randomBytes(100000, 3));
  ASSERT_TRUE(runBackup(data(), "snap-20260101-000002"));
  const auto before = objects();
  walk(R"(backup prune --keep 1 --dry-run => 0 |   would remove $first\ndry run, nothing deleted: would keep 1 snapshot(s); remove 1; sweep 1 chunk(s) (# bytes) |)");
  EXPECT_EQ(objects(), before);
  writeFile(dir() / "other/x.txt", "another server");
  test::foreignBucket(under_.bucket, dir() / "other.key", dir() / "other", under_.prefix);
  const auto withForeign = objects();
  walk(R"(
    backup prune --keep 1 --dry-run => 1 | | refusing to prune - nothing deleted: the bucket holds a manifest this key cannot read (another server's snapshots, or a damaged object): *snap-20250101-000000*
    backup prune --keep 1 => 1 | | refusing to prune - nothing deleted: the bucket holds a manifest this key cannot read (another server's snapshots, or a damaged object): *snap-20250101-000000*
    backup check => 1 |   snap-20250101-000000: * | *
  )");
  EXPECT_EQ(objects(), withForeign);
}

}  // namespace
}  // namespace quill::backup
