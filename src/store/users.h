#pragma once
// User records, `users/<name>.json`, and the rules around them (recovery account, last admin,
// effective channels). Records are plain JSON objects, read fresh for every use (or checked
// against their files, through a DocumentCache).

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/data_dir.h"

namespace quill::store {

class DocumentCache;

// The user record named `name` (already checked with isValidName), or nullopt when the file is
// missing, unreadable or not a JSON object. With a cache, an unchanged file is not read again.
std::optional<Json::Value> findUser(const DataDir& data, const std::string& name,
                                    DocumentCache* cache = nullptr);

struct NewUser {
  std::string name;
  std::string role = "member";
  std::vector<std::string> channels;  // publisher allow-list
  std::string displayName;
  std::string email;
  bool service = false;
};

// Creates the record unless one already reads (then nullopt, the file untouched). The record is
// returned even if it could not be written: callers that must know check the file themselves.
std::optional<Json::Value> createUser(const DataDir& data, const NewUser& user);

// Writes the record to `users/<record.name>.json`. Returns false on failure.
bool saveUser(const DataDir& data, const Json::Value& record);

// Every user record, in directory order.
std::vector<Json::Value> listUsers(const DataDir& data);

// Records whose `role` is exactly "admin" (disabled ones included).
int countAdmins(const DataDir& data);
bool anyAdminExists(const DataDir& data);

// "admin" is the recovery account: never deleted, disabled or demoted through the API.
bool isRecoveryAccount(std::string_view name);
// "'admin' is the recovery account and cannot be <verb> - it is how you get back in if every
// other sign-in is lost".
std::string recoveryAccountMessage(std::string_view verb);

// Display names, e-mail addresses and request texts: cut to 256 bytes, control bytes (< 0x20)
// turned into spaces.
std::string profileText(std::string_view text);

// The user's direct follows, then each of its groups' channels, first occurrences only.
// Groups that do not read are skipped. With a cache, unchanged group files are not read again.
Json::Value effectiveChannels(const DataDir& data, const Json::Value& user,
                              DocumentCache* cache = nullptr);

// Small accessors that tolerate any JSON shape.
bool flagOf(const Json::Value& record, const char* member);         // true only for boolean true
std::string textOf(const Json::Value& record, const char* member);  // "" unless a string
std::vector<std::string> stringsOf(const Json::Value& record, const char* member);

}  // namespace quill::store
