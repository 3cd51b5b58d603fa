#include "backup/backup_config.h"

#include "backup/backup_texts.h"
#include "store/documents.h"

namespace quill::backup {

namespace {

std::string member(const Json::Value& doc, const char* name) {
  const Json::Value& value = doc[name];
  return value.isString() ? value.asString() : std::string();
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int twoDigits(std::string_view text) { return (text[0] - '0') * 10 + (text[1] - '0'); }

Schedule scheduleFromDocument(const Json::Value& doc) {
  Schedule schedule;
  schedule.dailyAt = member(doc, "daily_at");
  if (doc["keep"].isInt()) schedule.keep = doc["keep"].asInt();
  return schedule;
}

}  // namespace

fs::path backupConfigPath(const fs::path& dataRoot) { return dataRoot / "backup.json"; }
fs::path backupStatePath(const fs::path& dataRoot) { return dataRoot / "backup-state.json"; }
fs::path backupKeyPath(const fs::path& dataRoot) { return dataRoot / "backup.key"; }

base::Result<BackupConfig> configFromDocument(const Json::Value& doc) {
  BackupConfig config;
  config.s3 = rill::s3SettingsFromJson(doc);
  if (!rill::isComplete(config.s3)) return base::Failure{text::kMissingS3};
  config.keyFile = member(doc, "key_file");
  if (config.keyFile.empty()) return base::Failure{text::kNoKeyFile};
  config.schedule = scheduleFromDocument(doc);
  return config;
}

base::Result<BackupConfig> loadBackupConfig(const fs::path& configFile) {
  Json::Value doc;
  if (!store::readJsonFile(configFile, doc)) return base::Failure{text::kNotConfigured};
  return configFromDocument(doc);
}

bool writeBackupConfig(const fs::path& configFile, const BackupConfig& config) {
  Json::Value doc(Json::objectValue);
  rill::writeS3Settings(config.s3, doc);
  doc["key_file"] = config.keyFile;
  return store::writeJsonFile(configFile, doc, store::FileAccess::kOwnerOnly).ok();
}

std::optional<Schedule> readSchedule(const fs::path& configFile) {
  Json::Value doc;
  if (!store::readJsonFile(configFile, doc)) return std::nullopt;
  return scheduleFromDocument(doc);
}

bool writeSchedule(const fs::path& configFile, const Schedule& schedule) {
  Json::Value doc;
  if (!store::readJsonFile(configFile, doc)) return false;
  doc["daily_at"] = schedule.dailyAt;
  doc["keep"] = schedule.keep;
  return store::writeJsonFile(configFile, doc, store::FileAccess::kOwnerOnly).ok();
}

bool isValidDailyAt(std::string_view text) {
  if (text.empty()) return true;
  if (text.size() != 5 || text[2] != ':') return false;
  for (std::size_t i : {0, 1, 3, 4}) {
    if (!isDigit(text[i])) return false;
  }
  return twoDigits(text.substr(0, 2)) < 24 && twoDigits(text.substr(3, 2)) < 60;
}

}  // namespace quill::backup
