#include "store/groups.h"

#include "store/document_cache.h"
#include "store/documents.h"
#include "store/utc_time.h"

namespace quill::store {

std::optional<Json::Value> findGroup(const DataDir& data, const std::string& name,
                                     DocumentCache* cache) {
  const fs::path path = DataDir::recordPath(data.groups(), name);
  if (cache) return cache->read(path);
  Json::Value record;
  if (!readJsonFile(path, record)) {
    return std::nullopt;
  }
  return record;
}

Json::Value newGroupRecord(const std::string& name) {
  Json::Value record(Json::objectValue);
  record["schema_version"] = 1;
  record["name"] = name;
  record["channels"] = Json::Value(Json::arrayValue);
  record["created_at"] = nowUtcText();
  return record;
}

bool saveGroup(const DataDir& data, const Json::Value& record) {
  return writeJsonFile(DataDir::recordPath(data.groups(), record["name"].asString()), record).ok();
}

std::vector<Json::Value> listGroups(const DataDir& data) {
  std::vector<Json::Value> groups;
  for (auto& [path, record] : listJsonDir(data.groups())) {
    groups.push_back(std::move(record));
  }
  return groups;
}

}  // namespace quill::store
