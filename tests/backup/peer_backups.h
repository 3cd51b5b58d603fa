#pragma once
// Backups into the S3 test peer: each configuration under a prefix of its own, so tests that share
// the peer's bucket never see each other's snapshots.

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>

#include "backup/backup_config.h"
#include "backup/backup_key.h"
#include "rill/s3_peers.h"

namespace quill::backup::test {

// Writes a fresh key to `keyFile` and a backup.json for `dataRoot` naming it; returns the prefix.
inline std::string configurePeerBackups(const std::filesystem::path& dataRoot,
                                        const std::filesystem::path& keyFile) {
  static std::atomic<int> count{0};
  const std::string prefix = "case-" + std::to_string(++count) + "/";
  EXPECT_TRUE(writeKeyFile(keyFile, generateBackupKey()));
  BackupConfig config{rill::test::S3Peers::shared().settings(), keyFile.string(), {}};
  config.s3.prefix = prefix;
  EXPECT_TRUE(writeBackupConfig(backupConfigPath(dataRoot), config));
  return prefix;
}

}  // namespace quill::backup::test
