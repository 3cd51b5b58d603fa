#include "api/claim.h"

#include <sodium.h>

#include "store/tokens.h"
#include "store/users.h"

namespace quill::api {

namespace {

namespace text {
constexpr const char* kNotEnabled = "claiming is not enabled";
constexpr const char* kAlreadySetUp = "already set up - an admin exists";
constexpr const char* kBadPin = "invalid claim pin";
constexpr const char* kTokenFailed = "could not create token";
}  // namespace text

constexpr const char* kAdmin = "admin";

// Equal length and bytes, compared without an early exit so timing does not reveal a prefix.
bool pinMatches(const std::string& configured, std::string_view given) {
  if (configured.empty() || configured.size() != given.size()) return false;
  return sodium_memcmp(configured.data(), given.data(), configured.size()) == 0;
}

}  // namespace

Response claimState(const Request&, Context& ctx) {
  Json::Value doc(Json::objectValue);
  doc["claimable"] = ctx.settings.claimable;
  doc["claimed"] = store::anyAdminExists(ctx.data);
  doc["schema_version"] = 1;
  return http::jsonResponse(doc);
}

Response claim(const Request& req, Context& ctx) {
  if (!ctx.settings.claimable) return http::errorResponse(404, text::kNotEnabled);
  if (store::anyAdminExists(ctx.data)) return http::errorResponse(409, text::kAlreadySetUp);
  if (!pinMatches(ctx.settings.claimPin, req.param("pin").value_or(""))) {
    return http::errorResponse(403, text::kBadPin);
  }
  store::NewUser admin;
  admin.name = kAdmin;
  admin.role = kAdmin;
  store::createUser(ctx.data, admin);  // an existing "admin" record is left as it is
  const std::string tokenName =
      store::machineTokenName(ctx.data, kAdmin, req.param("machine").value_or(""));
  const std::string token = store::mintToken(ctx.data, tokenName, kAdmin);
  if (token.empty()) return http::errorResponse(500, text::kTokenFailed);
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["token"] = token;
  doc["token_name"] = tokenName;
  doc["user"] = kAdmin;
  doc["role"] = kAdmin;
  return http::jsonResponse(doc);
}

}  // namespace quill::api
