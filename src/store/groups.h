#pragma once
// Group records, `groups/<name>.json`. Membership is stored on the user side only.

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "store/data_dir.h"

namespace quill::store {

class DocumentCache;

// The group record named `name` (already checked with isValidName), or nullopt. With a cache, an
// unchanged file is not read again.
std::optional<Json::Value> findGroup(const DataDir& data, const std::string& name,
                                     DocumentCache* cache = nullptr);
// A new record: schema_version 1, name, empty channels, created_at now.
Json::Value newGroupRecord(const std::string& name);
bool saveGroup(const DataDir& data, const Json::Value& record);
std::vector<Json::Value> listGroups(const DataDir& data);

}  // namespace quill::store
