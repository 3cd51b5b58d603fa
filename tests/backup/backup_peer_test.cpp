// The backup commands and endpoints against the S3 test peer: exact output on the right stream,
// refusals in their order before anything changes, `backup check`, `prune --dry-run`, the refusals
// that keep a bucket holding what this key cannot read from harm, runs over HTTP and by schedule.

#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>

#include "app/command_line.h"
#include "app/commands.h"
#include "backup/backup_config.h"
#include "backup/backup_key.h"
#include "backup/backup_run.h"
#include "backup/backup_store.h"
#include "backup/schedule_check.h"
#include "backup/snapshots.h"
#include "handler/context.h"
#include "rill/rill_trees.h"
#include "rill/s3_peers.h"
#include "support/api_fixture.h"
#include "support/temp_dir.h"

namespace quill::backup {
namespace {

using rill::test::writeFile;

rill::S3Settings peerSettings() { return rill::test::S3Peers::shared().settings(); }

// A fresh key in `keyFile` and a backup.json for `dataRoot` naming it, under a prefix of its own
// (tests share the peer's bucket); returns the prefix.
std::string configurePeerBackups(const fs::path& dataRoot, const fs::path& keyFile) {
  static std::atomic<int> count{0};
  BackupConfig config{peerSettings(), keyFile.string(), {}};
  config.s3.prefix = "case-" + std::to_string(++count) + "/";
  EXPECT_TRUE(writeKeyFile(keyFile, generateBackupKey()) &&
              writeBackupConfig(backupConfigPath(dataRoot), config));
  return config.s3.prefix;
}

// Bucket `name` holding snapshot snap-20250101-000000 of `tree` under `prefix`, sealed with a fresh
// key in `keyFile` as another server would leave it.
rill::S3Settings foreignBucket(const std::string& name, const fs::path& keyFile,
                               const fs::path& tree, const std::string& prefix = "") {
  rill::S3Settings s3 = peerSettings();
  s3.bucket = name;
  rill::S3Client(s3).put("", "");  // creates it (an existing one answers 409)
  s3.prefix = prefix;
  EXPECT_TRUE(writeKeyFile(keyFile, generateBackupKey()));
  auto store = openBackupStore(s3, keyFile.string());
  EXPECT_TRUE(store && publishSnapshot(*store.value(), tree, "snap-20250101-000000"));
  return s3;
}

class BackupCommandsTest : public quill::test::TempDirTest {
 protected:
  void SetUp() override {
    QUILL_REQUIRE_S3_PEERS();
    writeFile(data() / "users/alice.json", R"({"name":"alice"})");
    writeFile(data() / "builds/b1/app.bin", rill::test::randomBytes(200000, 1));
    vars_ = {{"dir", dir().string()}, {"data", data().string()}, {"key", key().string()},
             {"ep", peerSettings().endpoint}, {"peer", peer(peerSettings())}};
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
      std::istringstream in(row[1].str() + (dataDir ? " --data-dir " + data().string() : ""));
      std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
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

  // Snapshot $first of two one-chunk files, alone under a prefix of its own.
  void twoChunkSnapshot() {
    fs::remove_all(data());
    writeFile(data() / "a.bin", rill::test::randomBytes(100000, 1));
    writeFile(data() / "b.bin", rill::test::randomBytes(100000, 2));
    under_ = peerSettings();
    under_.prefix = configurePeerBackups(data(), key());
    ASSERT_TRUE(runBackup(data(), vars_["first"] = "snap-20260101-000001"));
  }
  // Every object key under the prefix, with its size: what "nothing deleted" compares.
  std::vector<std::pair<std::string, std::int64_t>> objects() {
    std::vector<std::pair<std::string, std::int64_t>> keys;
    const auto listed = rill::S3Client(peerSettings()).list(under_.prefix);
    for (const auto& e : listed.value()) {
      keys.emplace_back(e.key, e.size);
    }
    std::sort(keys.begin(), keys.end());
    return keys;
  }

  std::map<std::string, std::string> vars_;
  rill::S3Settings under_;
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
  const auto foreign = foreignBucket("quill-foreign", dir() / "first.key", data());
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
    backup prune --keep 0 => 1 | | backup prune needs --keep <N> (N >= 1)
    backup schedule 03:00 => 1 | | backups not configured - run: quillmoord backup init ...
  )");
  configurePeerBackups(data(), key());
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
  vars_["prefix"] = configurePeerBackups(data(), key());
  walk(R"(
    backup list => 0 | no snapshots in bucket 'quill-test' |
    backup => 0 | backup snap-#-#: 3 chunk(s), 3 new (200# bytes -> # stored, encrypted), 0 already in the bucket |
  )");
  vars_["latest"] = last_.out.substr(7, 20);
  const auto bytesAt = last_.out.find("new (") + 5;
  vars_["bytes"] = last_.out.substr(bytesAt, last_.out.find(" bytes") - bytesAt);
  ASSERT_TRUE(runBackup(data(), "snap-20000101-000000") && runBackup(data(), "snap-20000101-000001"));
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
    restore $latest --key aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa --from $data/backup.json --data-dir $dir/to => 1 | | encryption key must be 64 hex chars (or a file containing them)
    restore $latest --key $dir/absent.key --from $data/backup.json --data-dir $dir/to => 1 | | key file $dir/absent.key is missing
    restore snap-20260101-000001 --prefix none/ --key $key $peer --data-dir $dir/to => 1 | | restore failed: no snapshot snap-20260101-000001 in the bucket
  )");
  EXPECT_FALSE(fs::exists(dir() / "to"));
  // Key text is taken as it is, and an unreadable key file says why (root reads every file).
  EXPECT_EQ(openBackupStore(peerSettings(), " " + std::string(64, 'a')).error(),
            "encryption key must be 64 hex chars (or a file containing them)");
  const std::string locked = (dir() / "locked.key").string();
  writeFile(locked, std::string(64, 'a'));
  fs::permissions(locked, fs::perms::none);
  if (::geteuid() != 0) {
    EXPECT_EQ(openBackupStore(peerSettings(), locked).error(),
              "cannot read key file " + locked + ": Permission denied");
  }
  walk(R"(
    restore $latest --prefix $prefix --key $key $peer --data-dir $dir/to => 0 | restored $latest -> $dir/to: 3 file(s), $bytes bytes (verified)\nCheck backup.json's key_file path on this machine before the next backup. |
  )");
}

TEST_F(BackupCommandsTest, CheckCatchesADeletedAndACorruptedChunk) {
  twoChunkSnapshot();
  walk("backup check => 0 | 1 snapshot(s), 3 chunk(s) checked: no problems found |");
  // The chunk of each one-chunk file, by id and object key.
  auto store = openBackupStore(under_, key().string());
  const auto manifest = readSnapshotManifest(*store.value(), vars_["first"]);
  for (const auto& f : manifest.value().tree.files) {
    vars_[f.path] = f.chunks[0].h;
    vars_[f.path + "Key"] = store.value()->chunkKey(f.chunks[0].h);
  }
  const rill::S3Client bucket(peerSettings());
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

TEST_F(BackupCommandsTest, DryRunDeletesNothingAndAnUnreadableSnapshotStopsPrune) {
  twoChunkSnapshot();
  writeFile(data() / "a.bin", rill::test::randomBytes(100000, 3));
  ASSERT_TRUE(runBackup(data(), "snap-20260101-000002"));
  const auto before = objects();
  walk(R"(backup prune --keep 1 --dry-run => 0 |   would remove $first\ndry run, nothing deleted: would keep 1 snapshot(s); remove 1; sweep 1 chunk(s) (# bytes) |)");
  EXPECT_EQ(objects(), before);
  writeFile(dir() / "other/x.txt", "another server");
  foreignBucket(under_.bucket, dir() / "other.key", dir() / "other", under_.prefix);
  const auto withForeign = objects();
  walk(R"(
    backup prune --keep 1 --dry-run => 1 | | refusing to prune - nothing deleted: the bucket holds a manifest this key cannot read (another server's snapshots, or a damaged object): *snap-20250101-000000*
    backup prune --keep 1 => 1 | | refusing to prune - nothing deleted: the bucket holds a manifest this key cannot read (another server's snapshots, or a damaged object): *snap-20250101-000000*
    backup check => 1 |   snap-20250101-000000: * | *
  )");
  EXPECT_EQ(objects(), withForeign);
}

class BackupApiTest : public quill::test::ApiTest {
 protected:
  void SetUp() override {
    QUILL_REQUIRE_S3_PEERS();  // before the context exists (its variables mark that it does)
    ApiTest::SetUp();
    vars_["ep"] = peerSettings().endpoint;
    vars_["keyFile"] = backupKeyPath(data().root()).string();
  }
  // Runs hold the context: wait until the last one has ended.
  void waitForRun() {
    for (int i = 0; i < 600 && ctx().backups.running.load(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  void TearDown() override {
    if (vars_.contains("ep")) waitForRun();
  }
  std::string configure() { return configurePeerBackups(data().root(), dir() / "key"); }
};

TEST_F(BackupApiTest, InitRefusesInOrderThenSetsUpEitherModeOnceAndKeepsTheKey) {
  quill::test::TempDir other;
  foreignBucket("quill-foreign-api", other.path() / "k", data().root());
  // The credentials' own refusals (region, endpoint scheme) are the storage tests'; one row here
  // shows separate mode reads them.
  walk(R"(
    POST /api/backup/init [1] => 400 JSON body required
    POST /api/backup/init {"mode":5} => 400 mode must be a string
    POST /api/backup/init {"mode":"Shared"} => 400 mode must be "shared" or "separate"
    POST /api/backup/init {} => 400 mode must be "shared" or "separate"
    POST /api/backup/init {"mode":"shared"} => 400 shared mode needs build storage first: rill storage not configured (missing data-dir rill.json)
    POST /api/backup/init {"mode":"separate","endpoint":"http://x"} => 400 endpoint, bucket, access_key and secret_key are required
    # The probe's answer is quoted, never the secret.
    POST /api/backup/init {"mode":"separate","endpoint":"$ep","bucket":"quill-test","access_key":"S3RVER","secret_key":"wrong"} => 400 ^access denied - check the access key and secret ( ; !has:wrong
    POST /api/backup/init {"mode":"separate","endpoint":"$ep","bucket":"quill-foreign-api","access_key":"S3RVER","secret_key":"S3RVER"} => 409 bucket 'quill-foreign-api' already holds 1 snapshot(s) this key cannot read (another server's?) - use another bucket or prefix
    file backup.json absent
    file backup.key absent
    # Shared: the build storage's bucket, under backups/.
    write rill.json {"schema_version":1,"endpoint":"$ep","bucket":"quill-test","access_key":"S3RVER","secret_key":"S3RVER"}
    POST /api/backup/init {"mode":"shared"} => 200 .prefix="backups/" ; .bucket="quill-test"
    file backup.json .prefix="backups/" ; .region="auto"
    # Configured: refused before the mode is looked at. Forgotten: the key file still refuses.
    mark backup.key
    POST /api/backup/init {"mode":5} => 409 backups are already configured - remove the configuration first
    DELETE /api/backup/config => 200 {"configured":false,"schema_version":1}
    POST /api/backup/init {"mode":"shared"} => 409 backup.key already exists in the data dir - refusing to overwrite
    unchanged backup.key
  )");
  fs::remove(backupKeyPath(data().root()));
  walk(R"(
    POST /api/backup/init {"mode":"separate","endpoint":"$ep","bucket":"quill-test","access_key":"S3RVER","secret_key":"S3RVER","region":""} => 200 keys=bucket,key,mode,prefix,schema_version ; .prefix="" ; .mode="separate" ; .key~[0-9a-f]{64} ; $key=.key
    file backup.json .region="auto" ; .key_file="$keyFile" ; .prefix! ; .schema_version!
  )");
  // Written 0600 by the same call as the command's key (pinned there).
  EXPECT_EQ(quill::test::readBytes(backupKeyPath(data().root())), vars_["key"] + "\n");
}

TEST_F(BackupApiTest, SettingsAreCheckedThenARunStartsAtOnceAndShowsInTheStatus) {
  walk(R"(
    POST /api/backup => 503 backups not configured - run: quillmoord backup init ...
    PUT /api/backup/config {"keep":1} => 503 backups not configured on this server
    GET /api/backups => 200 .configured=false ; .last=null
  )");
  vars_["prefix"] = configure();
  walk(R"(
    PUT /api/backup/config [] => 400 JSON object required
    PUT /api/backup/config {"daily_at":730} => 400 daily_at must be a string
    PUT /api/backup/config {"keep":"2"} => 400 keep must be an integer
    PUT /api/backup/config {"keep":2.0} => 400 keep must be an integer
    PUT /api/backup/config {"keep":4294967296} => 400 keep must be an integer
    PUT /api/backup/config {"keep":-1} => 400 keep must be 0 or more
    PUT /api/backup/config {"daily_at":"7:30"} => 400 daily_at must be HH:MM or empty
    PUT /api/backup/config {"daily_at":"07:60"} => 400 daily_at must be HH:MM or empty
    PUT /api/backup/config {"daily_at":"24:00"} => 400 daily_at must be HH:MM or empty
    PUT /api/backup/config {"daily_at":"07-30"} => 400 daily_at must be HH:MM or empty
    PUT /api/backup/config {"daily_at":"23:59","keep":3} => 200 {"daily_at":"23:59","keep":3,"schema_version":1}
    PUT /api/backup/config {"daily_at":""} => 200 {"daily_at":"","keep":3,"schema_version":1}
    POST /api/backup => 202 .snapshot~snap-[0-9]{8}-[0-9]{6} ; .started=true ; $name=.snapshot
    POST /api/backup => 409 a backup is already running
  )");
  waitForRun();
  walk(R"(
    GET /api/backups => 200 .configured=true ; .running=false ; .prefix="$prefix" ; .shared=true ; .endpoint="$ep" ; .last.snapshot="$name" ; .last.ok=true ; .last.error="" ; .last.finished_at~\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ ; .schedule.daily_at="" ; .snapshots.#=1 ; .snapshots.0.name="$name" ; !has:S3RVER
    user mia member
    mia GET /api/backups => 403 this operation requires the admin role
    mia POST /api/backup => 403
  )");
  const Json::Value listed = quill::test::bodyOf(asAdmin({"GET", "/api/backups"}))["snapshots"][0];
  EXPECT_TRUE(listed["files"].asInt() >= 3 && listed["bytes"].asInt() > 0) << listed;
}

TEST_F(BackupApiTest, TheScheduleFiresOncePerDayAtItsMinute) {
  const std::time_t now = std::time(nullptr);
  const LocalMinute minute = localMinuteOf(now);
  auto& backups = ctx().backups;
  checkSchedule(ctx(), now);  // not configured: nothing
  EXPECT_FALSE(backups.running.load());
  configure();
  ASSERT_TRUE(writeSchedule(backupConfigPath(data().root()), {minute.time, 1}));
  backups.running = true;  // a run is active: skipped, and the day is not used up
  checkSchedule(ctx(), now);
  EXPECT_EQ(backups.lastScheduledDate, "");
  backups.running = false;
  checkSchedule(ctx(), now);
  EXPECT_TRUE(backups.lastScheduledDate == minute.date && backups.running.load());
  waitForRun();
  walk("file backup-state.json .ok=true ; $first=.snapshot");
  checkSchedule(ctx(), now);  // done for today
  EXPECT_FALSE(backups.running.load());
  walk(R"(file backup-state.json .snapshot="$first")");
  // A schedule beside settings that no longer load is due all the same, and says why it failed.
  backups.lastScheduledDate.clear();
  std::ofstream(backupConfigPath(data().root())) << R"({"daily_at":")" << minute.time << R"("})";
  testing::internal::CaptureStderr();
  checkSchedule(ctx(), now);
  EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("scheduled backup failed: "));
  EXPECT_TRUE(backups.lastScheduledDate == minute.date && !backups.running.load());
  EXPECT_FALSE(isScheduleDue("07:30", {"07:31", "2026-01-02"}, "2026-01-01"));
  EXPECT_FALSE(isScheduleDue("", {"", "2026-01-02"}, ""));
}

}  // namespace
}  // namespace quill::backup
