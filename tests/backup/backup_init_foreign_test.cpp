// POST /api/backup/init refuses a bucket that already holds another key's snapshots, before it
// writes a key or a configuration.

#include "backup/backup_config.h"
#include "backup/backup_store.h"
#include "backup/backup_texts.h"
#include "backup/snapshots.h"
#include "peer_backups.h"
#include "support/api_fixture.h"
#include "support/temp_dir.h"

namespace quill::backup {
namespace {

class BackupInitForeignTest : public quill::test::ApiTest {};

TEST_F(BackupInitForeignTest, SeparateBucketWithAnotherServersSnapshotIsRefused) {
  QUILL_REQUIRE_S3_PEERS();
  rill::S3Settings own = rill::test::S3Peers::shared().settings();
  own.bucket = "quill-foreign-api";
  rill::S3Client(own).put("", "");  // creates the bucket (an existing one answers 409)
  quill::test::TempDir other;
  ASSERT_TRUE(writeKeyFile(other.path() / "other.key", generateBackupKey()));
  auto store = openBackupStore(own, (other.path() / "other.key").string());
  ASSERT_TRUE(store) << store.error();
  ASSERT_TRUE(publishSnapshot(*store.value(), data().root(), "snap-20250101-000000"));

  const std::string body = R"({"mode":"separate","endpoint":")" + own.endpoint +
                           R"(","bucket":")" + own.bucket + R"(","access_key":")" +
                           own.accessKey + R"(","secret_key":")" + own.secretKey + "\"}";
  EXPECT_TRUE(quill::test::isError(
      asAdmin(quill::test::Req("POST", "/api/backup/init").body(body)), 409,
      "bucket 'quill-foreign-api' already holds 1" + std::string(text::kForeignSnapshots)));
  EXPECT_FALSE(fs::exists(backupKeyPath(data().root())));
  EXPECT_FALSE(fs::exists(backupConfigPath(data().root())));
}

}  // namespace
}  // namespace quill::backup
