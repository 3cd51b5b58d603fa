#include "sso/sso_config.h"

#include "store/accounts.h"
#include "store/documents.h"
#include "store/users.h"

namespace quill::sso {

namespace {

namespace text {
constexpr const char* kJsonRequired = "JSON body required";
constexpr const char* kBadIssuer = "issuer must be an https:// URL (http:// only for localhost)";
constexpr const char* kNoClientId = "client_id is required";
constexpr const char* kNoSecret = "client_secret is required";
constexpr const char* kIncomplete = "sso.json is incomplete";
constexpr const char* kBadDefaultRole = "default_role must be admin, publisher or member";
}  // namespace text

bool issuerAllowed(std::string_view issuer) {
  return issuer.starts_with("https://") || issuer.starts_with("http://localhost") ||
         issuer.starts_with("http://127.0.0.1");
}

// Reads `body[name]` as a map of strings whose every value passes `valid`; the failure text is
// name + "." + key + `suffix`.
Result<std::map<std::string, std::string>> stringMap(const Json::Value& body, const char* name,
                                                     bool (*valid)(std::string_view),
                                                     const char* suffix) {
  const Json::Value& member = body[name];
  if (!member.isObject()) return Failure{std::string(name) + " must be an object"};
  std::map<std::string, std::string> out;
  for (const auto& key : member.getMemberNames()) {
    const Json::Value& value = member[key];
    if (!value.isString() || !valid(value.asString())) {
      return Failure{std::string(name) + "." + key + suffix};
    }
    out[key] = value.asString();
  }
  return out;
}

bool anyText(std::string_view) { return true; }

Json::Value mapToJson(const std::map<std::string, std::string>& map) {
  Json::Value out(Json::objectValue);
  for (const auto& [key, value] : map) out[key] = value;
  return out;
}

// A stored mapping that no longer passes the rules reads as the defaults rather than half of it.
Mapping mappingOf(const Json::Value& doc) {
  if (!doc["mapping"].isObject()) return Mapping{};
  auto mapping = applyMapping(Mapping{}, doc["mapping"]);
  return mapping ? std::move(mapping).value() : Mapping{};
}

}  // namespace

std::filesystem::path ssoConfigPath(const store::DataDir& data) { return data.root() / "sso.json"; }

std::string normalizeText(std::string_view text) {
  while (!text.empty()) {
    const char last = text.back();
    if (last != ' ' && last != '/' && last != '\r' && last != '\n') break;
    text.remove_suffix(1);
  }
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  return std::string(text);
}

Result<SsoConfig> validateProvider(const Json::Value& body, bool issuerOnly) {
  if (!body.isObject()) return Failure{text::kJsonRequired};
  SsoConfig config;
  config.issuer = normalizeText(store::textOf(body, "issuer"));
  config.clientId = normalizeText(store::textOf(body, "client_id"));
  config.scopes = normalizeText(store::textOf(body, "scopes"));
  if (config.scopes.empty()) config.scopes = kDefaultScopes;
  config.clientSecret = store::textOf(body, "client_secret");
  if (!issuerAllowed(config.issuer)) return Failure{text::kBadIssuer};
  if (issuerOnly) return config;
  if (config.clientId.empty()) return Failure{text::kNoClientId};
  if (config.clientSecret.empty()) return Failure{text::kNoSecret};
  return config;
}

Result<Mapping> applyMapping(const Mapping& mapping, const Json::Value& body) {
  Mapping out = mapping;
  for (auto [name, field] :
       {std::pair{"roles_claim", &out.rolesClaim}, std::pair{"groups_claim", &out.groupsClaim}}) {
    if (!body.isMember(name)) continue;
    const Json::Value& value = body[name];
    if (!value.isString() || value.asString().empty()) {
      return Failure{std::string(name) + " must be a non-empty string"};
    }
    *field = value.asString();
  }
  if (body.isMember("default_role")) {
    const Json::Value& value = body["default_role"];
    if (!value.isString() || !store::isRole(value.asString())) {
      return Failure{text::kBadDefaultRole};
    }
    out.defaultRole = value.asString();
  }
  if (body.isMember("roles")) {
    auto roles = stringMap(body, "roles", store::isRole, " must map to admin, publisher or member");
    if (!roles) return Failure{roles.error()};
    out.roles = std::move(roles).value();
  }
  if (body.isMember("groups")) {
    auto groups = stringMap(body, "groups", anyText, " must name a Quillmoor group");
    if (!groups) return Failure{groups.error()};
    out.groups = std::move(groups).value();
  }
  return out;
}

Result<SsoConfig> loadSsoConfig(const store::DataDir& data) {
  Json::Value doc;
  if (!store::readJsonFile(ssoConfigPath(data), doc)) return Failure{kNotConfigured};
  SsoConfig config;
  config.issuer = store::textOf(doc, "issuer");
  config.clientId = store::textOf(doc, "client_id");
  config.clientSecret = store::textOf(doc, "client_secret");
  if (config.issuer.empty() || config.clientId.empty() || config.clientSecret.empty()) {
    return Failure{text::kIncomplete};
  }
  config.scopes = store::textOf(doc, "scopes");
  if (config.scopes.empty()) config.scopes = kDefaultScopes;
  config.mapping = mappingOf(doc);
  return config;
}

Mapping storedMapping(const store::DataDir& data) {
  Json::Value doc;
  if (!store::readJsonFile(ssoConfigPath(data), doc)) return Mapping{};
  return mappingOf(doc);
}

Result<bool> saveSsoConfig(const store::DataDir& data, const SsoConfig& config) {
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["issuer"] = config.issuer;
  doc["client_id"] = config.clientId;
  doc["client_secret"] = config.clientSecret;
  doc["scopes"] = config.scopes;
  doc["mapping"] = mappingToJson(config.mapping);
  const auto path = ssoConfigPath(data);
  // It holds the client secret.
  if (!store::writeJsonFile(path, doc, store::FileAccess::kOwnerOnly)) {
    return Failure{"cannot write " + path.string()};
  }
  return true;
}

Json::Value mappingToJson(const Mapping& mapping) {
  Json::Value out(Json::objectValue);
  out["roles_claim"] = mapping.rolesClaim;
  out["groups_claim"] = mapping.groupsClaim;
  out["default_role"] = mapping.defaultRole;
  out["roles"] = mapToJson(mapping.roles);
  out["groups"] = mapToJson(mapping.groups);
  return out;
}

}  // namespace quill::sso
