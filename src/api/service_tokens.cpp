#include "api/service_tokens.h"

#include "api/users.h"
#include "store/accounts.h"
#include "store/tokens.h"
#include "store/users.h"

namespace quill::api {

namespace {
namespace text {
constexpr const char* kNotService =
    "tokens can only be minted for service accounts - people redeem an invite";
constexpr const char* kBadTokenName = "missing or invalid ?name= (token name)";
constexpr const char* kTokenExists = "token name already exists";
constexpr const char* kStoreFailed = "could not store token";
}  // namespace text
}  // namespace

Response mintServiceToken(const Request& req, Context& ctx) {
  auto found = pathUser(req, ctx);
  if (auto* refusal = std::get_if<Response>(&found)) return std::move(*refusal);
  if (!store::flagOf(std::get<Json::Value>(found), "service")) {
    return http::errorResponse(400, text::kNotService);
  }
  auto tokenName = handler::nameParam(req, "name");
  if (!tokenName) return http::errorResponse(400, text::kBadTokenName);
  if (store::tokenNameTaken(ctx.data, *tokenName)) {
    return http::errorResponse(409, text::kTokenExists);
  }
  std::string token = store::mintToken(ctx.data, *tokenName, req.segment());
  if (token.empty()) return http::errorResponse(500, text::kStoreFailed);
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["user"] = req.segment();
  doc["name"] = *tokenName;
  doc["token"] = token;
  return http::jsonResponse(doc);
}

}  // namespace quill::api
