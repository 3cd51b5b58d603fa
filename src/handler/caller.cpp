#include "handler/caller.h"

#include "http/json.h"
#include "store/tokens.h"
#include "store/users.h"

namespace quill::handler {

std::optional<Json::Value> lookupCaller(const http::Request& req, Context& ctx) {
  auto caller = store::resolveToken(ctx.data, store::bearerToken(req.header("authorization")),
                                    &ctx.tokens);
  if (caller) req.caller = store::textOf(*caller, "name");
  return caller;
}

std::optional<http::Response> refuseUnlessAdmin(const http::Request& req, Context& ctx) {
  const auto caller = lookupCaller(req, ctx);
  if (!caller) return http::errorResponse(401, kMissingToken);
  if (store::textOf(*caller, "role") != "admin") return http::errorResponse(403, kAdminOnly);
  return std::nullopt;
}

}  // namespace quill::handler
