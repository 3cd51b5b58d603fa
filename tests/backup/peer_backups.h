#pragma once
// Backups into the S3 test peer: each configuration under a prefix of its own, so tests that share
// the peer's bucket never see each other's snapshots.

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "backup/backup_config.h"
#include "backup/backup_key.h"
#include "backup/backup_store.h"
#include "backup/snapshots.h"
#include "rill/s3_peers.h"

namespace quill::backup::test {

inline rill::S3Settings peerSettings() { return rill::test::S3Peers::shared().settings(); }

// Writes a fresh key to `keyFile` and a backup.json for `dataRoot` naming it; returns the prefix.
inline std::string configurePeerBackups(const fs::path& dataRoot, const fs::path& keyFile) {
  static std::atomic<int> count{0};
  BackupConfig config{peerSettings(), keyFile.string(), {}};
  config.s3.prefix = "case-" + std::to_string(++count) + "/";
  EXPECT_TRUE(writeKeyFile(keyFile, generateBackupKey()));
  EXPECT_TRUE(writeBackupConfig(backupConfigPath(dataRoot), config));
  return config.s3.prefix;
}

// A bucket `name` of its own holding snapshot snap-20250101-000000 of `tree`, sealed with a fresh
// key in `keyFile` as another server would leave it, under `prefix`.
inline rill::S3Settings foreignBucket(const std::string& name, const fs::path& keyFile,
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

}  // namespace quill::backup::test
