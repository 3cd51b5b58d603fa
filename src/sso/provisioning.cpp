#include "sso/provisioning.h"

#include <cctype>
#include <set>

#include "store/accounts.h"
#include "store/documents.h"
#include "store/groups.h"
#include "store/names.h"
#include "store/random.h"
#include "store/tokens.h"
#include "store/users.h"
#include "store/utc_time.h"

namespace quill::sso {

namespace {

constexpr const char* kNoSubject = "token has no subject";
constexpr const char* kFallbackName = "sso-user";

// A claim holding a string or an array of strings, as a list.
std::vector<std::string> claimValues(const Json::Value& claims, const std::string& name) {
  const Json::Value& claim = claims[name];
  if (claim.isString()) return {claim.asString()};
  std::vector<std::string> values;
  if (!claim.isArray()) return values;
  for (const auto& value : claim) {
    if (value.isString()) values.push_back(value.asString());
  }
  return values;
}

std::string firstText(const Json::Value& claims, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    if (claims[name].isString() && !claims[name].asString().empty()) return claims[name].asString();
  }
  return kFallbackName;
}

std::string baseName(const Json::Value& claims) {
  std::string source = firstText(claims, {"preferred_username", "email"});
  source = source.substr(0, source.find('@'));
  std::string name;
  for (char c : source) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) || c == '-' || c == '.' || c == '_') {
      name.push_back(static_cast<char>(std::tolower(byte)));
    }
  }
  return store::isValidName(name) ? name : kFallbackName;
}

std::optional<Json::Value> userWithSubject(const store::DataDir& data, const std::string& sub) {
  for (auto& user : store::listUsers(data)) {
    if (store::textOf(user, "sso_subject") == sub) return std::move(user);
  }
  return std::nullopt;
}

// Creates a member under a free derived name; a name taken in the meantime moves on to the next.
Json::Value createDerivedUser(const store::DataDir& data, const Json::Value& claims) {
  for (;;) {
    store::NewUser user;
    user.name = derivedUserName(data, claims);
    if (auto created = store::createUser(data, user)) return *created;
  }
}

}  // namespace

std::string derivedUserName(const store::DataDir& data, const Json::Value& claims) {
  const std::string base = baseName(claims);
  if (!store::userExists(data, base)) return base;
  for (int n = 2;; ++n) {
    // Cut the base only as far as the suffix needs to stay within the name rule. A cut never
    // leaves fewer than 100 bytes, so it cannot make a reserved or dot name.
    std::string suffix = "-";
    suffix += std::to_string(n);
    std::string candidate = base.substr(0, store::kMaxNameBytes - suffix.size()) + suffix;
    if (!store::userExists(data, candidate)) return candidate;
  }
}

std::string mappedRole(const Mapping& mapping, const Json::Value& claims) {
  std::string best;
  for (const auto& value : claimValues(claims, mapping.rolesClaim)) {
    auto it = mapping.roles.find(value);
    if (it == mapping.roles.end()) continue;
    if (store::roleRank(it->second) > store::roleRank(best)) best = it->second;
  }
  return best.empty() ? mapping.defaultRole : best;
}

Json::Value mappedGroups(const store::DataDir& data, const Mapping& mapping,
                         const Json::Value& currentGroups, const Json::Value& claims) {
  std::set<std::string> targets;
  for (const auto& [value, group] : mapping.groups) targets.insert(group);
  std::set<std::string> granted;
  for (const auto& value : claimValues(claims, mapping.groupsClaim)) {
    auto it = mapping.groups.find(value);
    if (it == mapping.groups.end() || !store::isValidName(it->second)) continue;
    if (store::findGroup(data, it->second)) granted.insert(it->second);
  }
  Json::Value groups(Json::arrayValue);
  if (currentGroups.isArray()) {
    for (const auto& group : currentGroups) {
      if (!group.isString() || !targets.contains(group.asString())) groups.append(group);
    }
  }
  for (const auto& group : granted) groups.append(group);
  return groups;
}

Result<Json::Value> provisionUser(const store::DataDir& data, const Mapping& mapping,
                                  const Json::Value& claims) {
  const Json::Value& sub = claims["sub"];
  if (!sub.isString() || sub.asString().empty()) return Failure{kNoSubject};
  auto existing = userWithSubject(data, sub.asString());
  Json::Value user = existing ? std::move(*existing) : createDerivedUser(data, claims);
  if (store::flagOf(user, "disabled")) return Failure{kDisabledAccount};

  const std::string role = mappedRole(mapping, claims);
  user["role"] = role;
  if (role == "publisher" && !user["channels"].isArray()) {
    user["channels"] = Json::Value(Json::arrayValue);
  }
  user["groups"] = mappedGroups(data, mapping, user["groups"], claims);
  user["sso"] = true;
  user["sso_subject"] = sub.asString();
  user["sso_last_login"] = store::nowUtcText();
  if (!store::saveUser(data, user)) return Failure{kUserNotSaved};
  return user;
}

Result<MintedToken> mintSsoToken(const store::DataDir& data, const std::string& userName) {
  MintedToken minted;
  // The user's part is cut so the token name passes the name rule that `token delete` applies;
  // the record's `user` member names the owner in full.
  std::string suffix = "-sso-";
  suffix += store::randomString(8);
  minted.name = userName.substr(0, store::kMaxNameBytes - suffix.size()) + suffix;
  minted.text = store::mintToken(data, minted.name, userName);
  if (minted.text.empty()) return Failure{kTokenNotCreated};
  const auto path = store::DataDir::recordPath(data.tokens(), minted.name);
  auto record = store::findToken(data, minted.name);
  if (record) {
    (*record)["sso"] = true;
    (*record)["sso_validated_at"] = store::nowUtcText();
  }
  if (!record || !store::writeJsonFile(path, *record)) {
    store::removeFile(path);
    return Failure{kTokenNotCreated};
  }
  return minted;
}

}  // namespace quill::sso
