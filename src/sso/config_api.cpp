#include "sso/config_api.h"

#include <set>

#include "base/json_reader.h"
#include "sso/oidc_client.h"
#include "sso/sso_config.h"
#include "store/documents.h"
#include "store/groups.h"
#include "store/names.h"
#include "store/users.h"

namespace quill::sso {

namespace {

namespace text {
constexpr const char* kJsonRequired = "JSON body required";
constexpr const char* kProviderFirst = "set the provider first (PUT /api/sso/config)";
}  // namespace text

Json::Value document() {
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  return doc;
}

// The request body as a JSON object; a null value when it is not one.
Json::Value bodyObject(const Request& req) {
  return base::parseJsonObject(req.body).value_or(Json::Value());
}

// Makes `sso_managed` true on exactly the groups in `targets`, rewriting the records that change.
void markManagedGroups(const store::DataDir& data, const std::set<std::string>& targets) {
  for (auto& [path, record] : store::listJsonDir(data.groups())) {
    const bool managed = targets.contains(store::textOf(record, "name"));
    if (store::flagOf(record, "sso_managed") == managed) continue;
    record["sso_managed"] = managed;
    store::writeJsonFile(path, record);
  }
}

}  // namespace

Response ssoStatus(const Request&, Context& ctx) {
  Json::Value doc = document();
  doc["enabled"] = bool(loadSsoConfig(ctx.data));
  return http::jsonResponse(doc);
}

Response readConfig(const Request&, Context& ctx) {
  Json::Value doc = document();
  auto config = loadSsoConfig(ctx.data);
  doc["configured"] = bool(config);
  if (!config) return http::jsonResponse(doc);
  doc["issuer"] = config.value().issuer;
  doc["client_id"] = config.value().clientId;
  doc["secret_set"] = !config.value().clientSecret.empty();
  doc["scopes"] = config.value().scopes;
  doc["mapping"] = mappingToJson(config.value().mapping);
  return http::jsonResponse(doc);
}

Response putConfig(const Request& req, Context& ctx) {
  auto config = validateProvider(bodyObject(req), false);
  if (!config) return http::errorResponse(400, config.error());
  config.value().mapping = storedMapping(ctx.data);
  // Probed afresh rather than from the cache: this is the moment to learn the provider is wrong.
  auto discovery = fetchDiscovery(config.value().issuer);
  if (!discovery) return http::errorResponse(400, discovery.error());
  auto saved = saveSsoConfig(ctx.data, config.value());
  if (!saved) return http::errorResponse(500, saved.error());
  Json::Value doc = document();
  doc["configured"] = true;
  doc["issuer"] = config.value().issuer;
  doc["client_id"] = config.value().clientId;
  doc["secret_set"] = true;
  doc["authorization_endpoint"] = discovery.value().authorizationEndpoint;
  return http::jsonResponse(doc);
}

Response deleteConfig(const Request&, Context& ctx) {
  store::removeFile(ssoConfigPath(ctx.data));
  Json::Value doc = document();
  doc["configured"] = false;
  return http::jsonResponse(doc);
}

Response testConfig(const Request& req, Context& ctx) {
  Json::Value body(Json::objectValue);
  if (!req.body.empty()) body = bodyObject(req);
  std::string issuer;
  if (body.isObject() && body.isMember("issuer")) {
    auto probe = validateProvider(body, true);
    if (!probe) return http::errorResponse(400, probe.error());
    issuer = probe.value().issuer;
  } else if (body.isObject()) {
    auto saved = loadSsoConfig(ctx.data);
    if (!saved) return http::errorResponse(400, saved.error());
    issuer = saved.value().issuer;
  } else {
    return http::errorResponse(400, text::kJsonRequired);
  }
  auto discovery = fetchDiscovery(issuer);
  if (!discovery) return http::errorResponse(400, discovery.error());
  Json::Value doc = document();
  doc["ok"] = true;
  doc["issuer"] = discovery.value().issuer;
  doc["authorization_endpoint"] = discovery.value().authorizationEndpoint;
  doc["token_endpoint"] = discovery.value().tokenEndpoint;
  doc["jwks_uri"] = discovery.value().jwksUri;
  return http::jsonResponse(doc);
}

Response readMapping(const Request&, Context& ctx) {
  auto config = loadSsoConfig(ctx.data);
  Json::Value doc = document();
  doc["configured"] = bool(config);
  doc["mapping"] = mappingToJson(config ? config.value().mapping : Mapping{});
  return http::jsonResponse(doc);
}

Response putMapping(const Request& req, Context& ctx) {
  Json::Value body = bodyObject(req);
  if (!body.isObject()) return http::errorResponse(400, text::kJsonRequired);
  auto config = loadSsoConfig(ctx.data);
  if (!config) return http::errorResponse(409, text::kProviderFirst);
  // The body is the whole mapping: members left out take their defaults.
  auto mapping = applyMapping(Mapping{}, body);
  if (!mapping) return http::errorResponse(400, mapping.error());
  std::set<std::string> targets;
  for (const auto& [value, group] : mapping.value().groups) {
    if (!store::isValidName(group) || !store::findGroup(ctx.data, group)) {
      return http::errorResponse(404, "group '" + group + "' does not exist");
    }
    targets.insert(group);
  }
  markManagedGroups(ctx.data, targets);
  config.value().mapping = mapping.value();
  auto saved = saveSsoConfig(ctx.data, config.value());
  if (!saved) return http::errorResponse(500, saved.error());
  Json::Value doc = document();
  doc["configured"] = true;
  doc["mapping"] = mappingToJson(mapping.value());
  return http::jsonResponse(doc);
}

}  // namespace quill::sso
