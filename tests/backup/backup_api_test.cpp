// The backup endpoints through the route table, against the S3 test peer: set-up in both modes
// with every refusal in its order, runs started over HTTP and by the schedule, the status, and the
// schedule settings.

#include <chrono>
#include <ctime>
#include <thread>

#include "backup/schedule_check.h"
#include "peer_backups.h"
#include "support/api_fixture.h"
#include "support/temp_dir.h"

namespace quill::backup {
namespace {

class BackupApiTest : public quill::test::ApiTest {
 protected:
  void SetUp() override {
    QUILL_REQUIRE_S3_PEERS();  // before the context exists (its variables mark that it does)
    ApiTest::SetUp();
    vars_["ep"] = test::peerSettings().endpoint;
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
  std::string configure() { return test::configurePeerBackups(data().root(), dir() / "key"); }
};

TEST_F(BackupApiTest, InitRefusesInOrderThenSetsUpEitherModeOnceAndKeepsTheKey) {
  quill::test::TempDir other;
  test::foreignBucket("quill-foreign-api", other.path() / "k", data().root());
  walk(R"(
    POST /api/backup/init => 400 JSON body required
    POST /api/backup/init [1] => 400 JSON body required
    POST /api/backup/init {"mode":5} => 400 mode must be a string
    POST /api/backup/init {"mode":"Shared"} => 400 mode must be "shared" or "separate"
    POST /api/backup/init {} => 400 mode must be "shared" or "separate"
    POST /api/backup/init {"mode":"shared"} => 400 shared mode needs build storage first: rill storage not configured (missing data-dir rill.json)
    POST /api/backup/init {"mode":"separate","endpoint":"http://x"} => 400 endpoint, bucket, access_key and secret_key are required
    POST /api/backup/init {"mode":"separate","endpoint":"$ep","bucket":"b","access_key":"a","secret_key":"s","region":5} => 400 region must be a string
    POST /api/backup/init {"mode":"separate","endpoint":"ftp://h","bucket":"b","access_key":"a","secret_key":"s"} => 400 endpoint must start with https:// (or http:// for a local test server)
    # The probe's classified messages (all of them in the storage tests) quote the store's answer,
    # never the secret.
    POST /api/backup/init {"mode":"separate","endpoint":"$ep","bucket":"quill-test","access_key":"S3RVER","secret_key":"wrong"} => 400 ^access denied - check the access key and secret ( ; !has:wrong
    # A bucket holding another server's snapshots.
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
  const fs::path key = backupKeyPath(data().root());
  EXPECT_EQ(quill::test::readBytes(key), vars_["key"] + "\n");
  EXPECT_EQ(fs::status(key).permissions(), fs::perms::owner_read | fs::perms::owner_write);
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
    PUT /api/backup/config {"keep":2.5} => 400 keep must be an integer
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
  EXPECT_FALSE(isScheduleDue("07:30", {"07:31", "2026-01-02"}, "2026-01-01"));
  EXPECT_FALSE(isScheduleDue("", {"", "2026-01-02"}, ""));
}

}  // namespace
}  // namespace quill::backup
