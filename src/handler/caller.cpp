#include "handler/caller.h"

#include "store/tokens.h"

namespace quill::handler {

std::optional<Json::Value> lookupCaller(const http::Request& req, Context& ctx) {
  return store::resolveToken(ctx.data, store::bearerToken(req.header("authorization")),
                             &ctx.tokens);
}

}  // namespace quill::handler
