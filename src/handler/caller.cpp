#include "handler/caller.h"

#include "http/json.h"
#include "store/tokens.h"
#include "store/users.h"

namespace quill::handler {

std::optional<Json::Value> lookupCaller(const http::Request& req, Context& ctx) {
  auto caller = store::resolveToken(ctx.data, store::bearerToken(req.header("authorization")),
                                    &ctx.tokens, &ctx.documents);
  if (caller) req.caller = store::textOf(*caller, "name");
  return caller;
}

}  // namespace quill::handler
