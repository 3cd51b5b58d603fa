#include "store/users.h"

#include <algorithm>

#include "store/document_cache.h"
#include "store/documents.h"
#include "store/groups.h"
#include "store/names.h"
#include "store/utc_time.h"

namespace quill::store {

namespace {

constexpr std::size_t kProfileTextLimit = 256;

Json::Value stringArray(const std::vector<std::string>& items) {
  Json::Value array(Json::arrayValue);
  for (const auto& item : items) array.append(item);
  return array;
}

void appendUnique(Json::Value& list, const Json::Value& item) {
  if (!item.isString()) return;
  for (const auto& existing : list) {
    if (existing == item) return;
  }
  list.append(item);
}

}  // namespace

std::optional<Json::Value> findUser(const DataDir& data, const std::string& name,
                                    DocumentCache* cache) {
  const fs::path path = DataDir::recordPath(data.users(), name);
  if (cache) return cache->read(path);
  Json::Value record;
  if (!readJsonFile(path, record)) {
    return std::nullopt;
  }
  return record;
}

std::optional<Json::Value> createUser(const DataDir& data, const NewUser& user) {
  if (findUser(data, user.name)) return std::nullopt;
  Json::Value record(Json::objectValue);
  record["schema_version"] = 1;
  record["name"] = user.name;
  record["role"] = user.role;
  record["groups"] = Json::Value(Json::arrayValue);
  if (user.role == "publisher" || !user.channels.empty()) {
    record["channels"] = stringArray(user.channels);
  }
  if (!user.displayName.empty()) record["display_name"] = user.displayName;
  if (!user.email.empty()) record["email"] = user.email;
  if (user.service) record["service"] = true;
  record["created_at"] = nowUtcText();
  saveUser(data, record);
  return record;
}

bool saveUser(const DataDir& data, const Json::Value& record) {
  return writeJsonFile(DataDir::recordPath(data.users(), record["name"].asString()), record).ok();
}

std::vector<Json::Value> listUsers(const DataDir& data) {
  std::vector<Json::Value> users;
  for (auto& [path, record] : listJsonDir(data.users())) {
    users.push_back(std::move(record));
  }
  return users;
}

int countAdmins(const DataDir& data) {
  auto users = listUsers(data);
  return static_cast<int>(std::count_if(users.begin(), users.end(), [](const Json::Value& u) {
    return u["role"].isString() && u["role"].asString() == "admin";
  }));
}

bool anyAdminExists(const DataDir& data) { return countAdmins(data) > 0; }

bool isRecoveryAccount(std::string_view name) { return name == "admin"; }

std::string recoveryAccountMessage(std::string_view verb) {
  return "'admin' is the recovery account and cannot be " + std::string(verb) +
         " - it is how you get back in if every other sign-in is lost";
}

std::string profileText(std::string_view text) {
  std::string out(text.substr(0, kProfileTextLimit));
  for (char& c : out) {
    if (static_cast<unsigned char>(c) < 0x20) c = ' ';
  }
  return out;
}

Json::Value effectiveChannels(const DataDir& data, const Json::Value& user,
                              DocumentCache* cache) {
  Json::Value channels(Json::arrayValue);
  for (const auto& follow : user["follows"]) appendUnique(channels, follow);
  for (const auto& groupName : stringsOf(user, "groups")) {
    if (!isValidName(groupName)) continue;
    auto group = findGroup(data, groupName, cache);
    if (!group) continue;
    for (const auto& channel : (*group)["channels"]) appendUnique(channels, channel);
  }
  return channels;
}

bool flagOf(const Json::Value& record, const char* member) {
  const Json::Value& v = record[member];
  return v.isBool() && v.asBool();
}

std::string textOf(const Json::Value& record, const char* member) {
  const Json::Value& v = record[member];
  return v.isString() ? v.asString() : std::string();
}

std::vector<std::string> stringsOf(const Json::Value& record, const char* member) {
  std::vector<std::string> out;
  const Json::Value& v = record[member];
  if (!v.isArray()) return out;
  for (const auto& item : v) {
    if (item.isString()) out.push_back(item.asString());
  }
  return out;
}

}  // namespace quill::store
