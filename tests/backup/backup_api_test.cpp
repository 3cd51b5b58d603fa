// The backup endpoints through the route table, against the S3 test peer: set-up in both modes
// with every refusal in its order, runs started over HTTP and by the schedule, the status, and the
// schedule settings.

#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <regex>
#include <thread>

#include "backup/backup_config.h"
#include "backup/backup_store.h"
#include "backup/backup_texts.h"
#include "backup/schedule_check.h"
#include "backup/snapshots.h"
#include "peer_backups.h"
#include "rill/s3_peers.h"
#include "store/documents.h"
#include "support/api_fixture.h"
#include "support/temp_dir.h"

namespace quill::backup {
namespace {

using quill::test::bodyOf;
using quill::test::isError;
using quill::test::memberOrder;
using quill::test::Req;

class BackupApiTest : public quill::test::ApiTest {
 protected:
  void SetUp() override {
    auto& peers = rill::test::S3Peers::shared();
    if (!peers.skipReason().empty()) GTEST_SKIP() << peers.skipReason();
    ASSERT_EQ(peers.failure(), "");
    ApiTest::SetUp();
  }
  ~BackupApiTest() override { waitForRun(); }

  // Runs hold the context: wait until the last one has ended.
  void waitForRun() {
    for (int i = 0; i < 600 && ctx().backups.running.load(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  std::string peerBody(const std::string& mode, const std::string& extra = "") {
    const auto s3 = rill::test::S3Peers::shared().settings();
    return R"({"mode":")" + mode + R"(","endpoint":")" + s3.endpoint + R"(","bucket":")" +
           s3.bucket + R"(","access_key":")" + s3.accessKey + R"(","secret_key":")" + s3.secretKey +
           "\"" + extra + "}";
  }
  http::Response init(const std::string& body) {
    return asAdmin(Req("POST", "/api/backup/init").body(body));
  }
  fs::path configFile() const { return backupConfigPath(data().root()); }
  fs::path keyFile() const { return backupKeyPath(data().root()); }
};

TEST_F(BackupApiTest, InitRefusesInOrderAndWritesNothing) {
  const std::string sharedFirst = std::string(text::kSharedNeedsStorage) +
                                  "rill storage not configured (missing data-dir rill.json)";
  const std::vector<std::tuple<std::string, unsigned, std::string>> cases = {
      {"", 400, text::kJsonBodyRequired},
      {"[1]", 400, text::kJsonBodyRequired},
      {R"({"mode":5})", 400, text::kModeNotString},
      {R"({"mode":"Shared"})", 400, text::kBadMode},
      {R"({})", 400, text::kBadMode},
      {R"({"mode":"shared"})", 400, sharedFirst},
      {R"({"mode":"separate","endpoint":"http://x"})", 400, text::kCredentialsRequired},
      {peerBody("separate", R"(,"region":5)"), 400, "region must be a string"},
      {R"({"mode":"separate","endpoint":"ftp://h","bucket":"b","access_key":"a","secret_key":"s"})",
       400, "endpoint must start with https:// (or http:// for a local test server)"},
  };
  for (const auto& [body, status, message] : cases) {
    EXPECT_TRUE(isError(init(body), status, message)) << body;
  }
  // The probe's classified messages (all of them in the storage tests) quote the store's answer.
  const std::string wrongSecret = std::regex_replace(
      peerBody("separate"), std::regex(R"("secret_key":"[^"]*")"), R"("secret_key":"wrong")");
  auto denied = bodyOf(init(wrongSecret))["error"].asString();
  EXPECT_EQ(denied.rfind("access denied - check the access key and secret (", 0), 0u) << denied;
  EXPECT_EQ(denied.find("wrong"), std::string::npos) << "the secret is never quoted";
  EXPECT_FALSE(fs::exists(configFile()));
  EXPECT_FALSE(fs::exists(keyFile()));
}

TEST_F(BackupApiTest, InitSeparateAnswersTheKeyOnceAndNeverReplacesIt) {
  auto res = init(peerBody("separate", R"(,"region":"")"));
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"bucket", "key", "mode", "prefix", "schema_version"}));
  const Json::Value answer = bodyOf(res);
  EXPECT_EQ(answer["prefix"], "");
  EXPECT_EQ(answer["mode"], "separate");
  EXPECT_TRUE(std::regex_match(answer["key"].asString(), std::regex("[0-9a-f]{64}")));
  EXPECT_EQ(quill::test::readBytes(keyFile()), answer["key"].asString() + "\n");
  struct stat st {};
  ASSERT_EQ(::stat(keyFile().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  const Json::Value config = readDoc(configFile());
  EXPECT_EQ(config["region"], "auto");
  EXPECT_EQ(config["key_file"], keyFile().string());
  EXPECT_FALSE(config.isMember("prefix"));
  EXPECT_FALSE(config.isMember("schema_version"));

  // Configured: refused before the mode is looked at. Forgotten: the key file still refuses.
  EXPECT_TRUE(isError(init(R"({"mode":5})"), 409, text::kAlreadyConfigured));
  auto forgot = asAdmin(Req("DELETE", "/api/backup/config"));
  EXPECT_EQ(forgot.body, R"({"configured":false,"schema_version":1})");
  EXPECT_TRUE(fs::exists(keyFile()));
  EXPECT_TRUE(isError(init(peerBody("separate")), 409, text::kKeyExists));
  EXPECT_EQ(quill::test::readBytes(keyFile()), answer["key"].asString() + "\n");
}

// A separate bucket holding another server's snapshot is refused before a key or a
// configuration is written.
TEST_F(BackupApiTest, InitRefusesABucketHoldingSnapshotsOfAnotherKey) {
  rill::S3Settings own = rill::test::S3Peers::shared().settings();
  own.bucket = "quill-foreign-api";
  rill::S3Client(own).put("", "");  // creates the bucket (an existing one answers 409)
  quill::test::TempDir other;
  ASSERT_TRUE(writeKeyFile(other.path() / "other.key", generateBackupKey()));
  auto store = openBackupStore(own, (other.path() / "other.key").string());
  ASSERT_TRUE(store) << store.error();
  ASSERT_TRUE(publishSnapshot(*store.value(), data().root(), "snap-20250101-000000"));
  const std::string body = std::regex_replace(
      peerBody("separate"), std::regex(R"("bucket":"[^"]*")"), R"("bucket":"quill-foreign-api")");
  EXPECT_TRUE(isError(init(body), 409,
                      "bucket 'quill-foreign-api' already holds 1" +
                          std::string(text::kForeignSnapshots)));
  EXPECT_FALSE(fs::exists(keyFile()));
  EXPECT_FALSE(fs::exists(configFile()));
}

TEST_F(BackupApiTest, InitSharedUsesTheBuildStorageBucketUnderBackups) {
  const auto s3 = rill::test::S3Peers::shared().settings();
  Json::Value rill(Json::objectValue);
  rill["schema_version"] = 1;
  rill["endpoint"] = s3.endpoint;
  rill["bucket"] = s3.bucket;
  rill["access_key"] = s3.accessKey;
  rill["secret_key"] = s3.secretKey;
  writeDoc(data().root() / "rill.json", rill);
  auto res = init(R"({"mode":"shared"})");
  ASSERT_EQ(res.status, 200u) << res.body;
  EXPECT_EQ(bodyOf(res)["prefix"], "backups/");
  EXPECT_EQ(bodyOf(res)["bucket"], s3.bucket);
  EXPECT_EQ(readDoc(configFile())["prefix"], "backups/");
  EXPECT_EQ(readDoc(configFile())["region"], "auto");
}

TEST_F(BackupApiTest, RunStartsAtOnceAndItsOutcomeShowsInTheStatus) {
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/backup")), 503, text::kNotConfigured));
  auto bare = bodyOf(asAdmin(Req("GET", "/api/backups")));
  EXPECT_EQ(bare["configured"], false);
  EXPECT_EQ(bare["last"], Json::Value());

  const std::string prefix = test::configurePeerBackups(data().root(), dir() / "key");
  auto started = asAdmin(Req("POST", "/api/backup"));
  ASSERT_EQ(started.status, 202u) << started.body;
  const std::string name = bodyOf(started)["snapshot"].asString();
  EXPECT_TRUE(std::regex_match(name, std::regex("snap-[0-9]{8}-[0-9]{6}")));
  EXPECT_EQ(bodyOf(started)["started"], true);
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/backup")), 409, text::kAlreadyRunning));
  waitForRun();

  auto res = asAdmin(Req("GET", "/api/backups"));
  const Json::Value status = bodyOf(res);
  EXPECT_EQ(status["configured"], true);
  EXPECT_EQ(status["running"], false);
  EXPECT_EQ(status["prefix"], prefix);
  EXPECT_EQ(status["shared"], true);
  EXPECT_EQ(status["endpoint"], rill::test::S3Peers::shared().endpoint());
  EXPECT_EQ(status["last"]["snapshot"], name);
  EXPECT_EQ(status["last"]["ok"], true) << res.body;
  EXPECT_EQ(status["last"]["error"], "");
  EXPECT_TRUE(quill::test::isUtcStamp(status["last"]["finished_at"]));
  EXPECT_EQ(status["schedule"]["daily_at"], "");
  ASSERT_EQ(status["snapshots"].size(), 1u) << res.body;
  EXPECT_EQ(status["snapshots"][0]["name"], name);
  EXPECT_GE(status["snapshots"][0]["files"].asInt(), 3);
  EXPECT_GT(status["snapshots"][0]["bytes"].asInt(), 0);
  EXPECT_EQ(res.body.find("S3RVER"), std::string::npos) << "no credential in the status";

  const std::string member = seedUser("mia", "member");
  EXPECT_TRUE(isError(as(member, Req("GET", "/api/backups")), 403,
                      "this operation requires the admin role"));
  EXPECT_EQ(as(member, Req("POST", "/api/backup")).status, 403u);
}

TEST_F(BackupApiTest, ScheduleSettingsAreCheckedAndKeepTheOtherMember) {
  auto put = [&](const std::string& body) {
    return asAdmin(Req("PUT", "/api/backup/config").body(body));
  };
  EXPECT_TRUE(isError(put(R"({"keep":1})"), 503, text::kNotConfiguredHere));
  test::configurePeerBackups(data().root(), dir() / "key");
  const std::vector<std::pair<std::string, std::string>> refused = {
      {"[]", text::kJsonObjectRequired},
      {R"({"daily_at":730})", text::kDailyAtNotString},
      {R"({"keep":"2"})", text::kKeepNotInteger},
      {R"({"keep":2.5})", text::kKeepNotInteger},
      {R"({"keep":2.0})", text::kKeepNotInteger},
      {R"({"keep":4294967296})", text::kKeepNotInteger},
      {R"({"keep":-1})", text::kNegativeKeep},
      {R"({"daily_at":"7:30"})", text::kBadDailyAt},
      {R"({"daily_at":"07:60"})", text::kBadDailyAt},
      {R"({"daily_at":"24:00"})", text::kBadDailyAt},
      {R"({"daily_at":"07-30"})", text::kBadDailyAt},
  };
  for (const auto& [body, message] : refused) EXPECT_TRUE(isError(put(body), 400, message)) << body;
  EXPECT_EQ(put(R"({"daily_at":"23:59","keep":3})").body,
            R"({"daily_at":"23:59","keep":3,"schema_version":1})");
  EXPECT_EQ(put(R"({"daily_at":""})").body, R"({"daily_at":"","keep":3,"schema_version":1})");
  EXPECT_TRUE(loadBackupConfig(configFile()));  // the settings are untouched
}

TEST_F(BackupApiTest, TheScheduleFiresOncePerDayAtItsMinute) {
  const std::time_t now = std::time(nullptr);
  const LocalMinute minute = localMinuteOf(now);
  checkSchedule(ctx(), now);  // not configured: nothing
  EXPECT_FALSE(ctx().backups.running.load());
  test::configurePeerBackups(data().root(), dir() / "key");
  ASSERT_TRUE(writeSchedule(configFile(), {minute.time, 1}));

  ctx().backups.running = true;  // a run is active: skipped, and the day is not used up
  checkSchedule(ctx(), now);
  EXPECT_EQ(ctx().backups.lastScheduledDate, "");
  ctx().backups.running = false;

  checkSchedule(ctx(), now);
  EXPECT_EQ(ctx().backups.lastScheduledDate, minute.date);
  EXPECT_TRUE(ctx().backups.running.load());
  waitForRun();
  EXPECT_EQ(readDoc(backupStatePath(data().root()))["ok"], true);
  const std::string first = readDoc(backupStatePath(data().root()))["snapshot"].asString();
  checkSchedule(ctx(), now);
  EXPECT_FALSE(ctx().backups.running.load());
  EXPECT_EQ(readDoc(backupStatePath(data().root()))["snapshot"], first);

  EXPECT_FALSE(isScheduleDue(minute.time, {minute.time, "2026-01-02"}, "2026-01-02"));
  EXPECT_TRUE(isScheduleDue(minute.time, {minute.time, "2026-01-02"}, "2026-01-01"));
  EXPECT_FALSE(isScheduleDue(minute.time, {"xx:xx", "2026-01-02"}, "2026-01-01"));
  EXPECT_FALSE(isScheduleDue("", {"", "2026-01-02"}, ""));
}

}  // namespace
}  // namespace quill::backup
