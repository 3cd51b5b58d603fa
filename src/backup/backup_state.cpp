#include "backup/backup_state.h"

#include "backup/backup_config.h"
#include "store/documents.h"
#include "store/utc_time.h"

namespace quill::backup {

bool writeBackupState(const std::filesystem::path& dataRoot, const std::string& snapshot, bool ok,
                      const std::string& error) {
  Json::Value doc(Json::objectValue);
  doc["error"] = error;
  doc["finished_at"] = store::nowUtcText();
  doc["ok"] = ok;
  doc["schema_version"] = 1;
  doc["snapshot"] = snapshot;
  return store::writeJsonFile(backupStatePath(dataRoot), doc).ok();
}

std::optional<Json::Value> readBackupState(const std::filesystem::path& dataRoot) {
  Json::Value doc;
  if (!store::readJsonFile(backupStatePath(dataRoot), doc)) return std::nullopt;
  Json::Value last(Json::objectValue);
  for (const char* name : {"snapshot", "ok", "error", "finished_at"}) last[name] = doc[name];
  return last;
}

}  // namespace quill::backup
