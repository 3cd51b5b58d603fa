#pragma once
// Process-wide settings, filled once from the command line before anything else runs.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace quill {

struct BackupOptions {
  std::string endpoint, region, bucket, accessKey, secretKey, prefix, key, from;
};

struct Settings {
  std::uint16_t port = 8080;
  std::string bind = "0.0.0.0";
  std::filesystem::path dataDir;  // empty until parsed: then the given or the default directory
  bool rillOnly = false;
  bool rateLimit = true;
  bool claimable = false;
  std::string claimPin;
  std::string accessLog;        // empty: no access log; "-": standard output
  std::string user;             // owner for `token create`
  std::string role = "member";  // for `user create`
  std::string channels;         // comma-separated, for `user create`
  bool service = false;
  bool replace = false;
  std::int32_t days = -1;  // -1: not given
  std::int32_t hours = -1;
  BackupOptions backup;
  std::int32_t keep = -1;
  bool dryRun = false;    // `backup prune`: say what would go, delete nothing
  bool readData = false;  // `backup check`: download and verify every chunk too
  std::vector<std::string> words;  // positional words, in order
};

}  // namespace quill
