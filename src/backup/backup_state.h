#pragma once
// backup-state.json: the outcome of the last run that got as far as opening the backup store.

#include <json/value.h>

#include <filesystem>
#include <optional>
#include <string>

namespace quill::backup {

// Replaces the record with `snapshot`, `ok`, `error`, the current UTC time as `finished_at` and
// `schema_version` 1. True when it was written.
bool writeBackupState(const std::filesystem::path& dataRoot, const std::string& snapshot, bool ok,
                      const std::string& error);

// The record's `snapshot`, `ok`, `error` and `finished_at`, or nullopt when there is none.
std::optional<Json::Value> readBackupState(const std::filesystem::path& dataRoot);

}  // namespace quill::backup
