#pragma once
// Who is calling: the user record behind the request's bearer token.

#include <json/value.h>

#include <optional>

#include "handler/context.h"
#include "http/request.h"
#include "http/response.h"

namespace quill::handler {

// The refusal without a valid token, shared by the gate and the handlers that need the caller.
inline constexpr const char* kMissingToken = "missing or invalid token";

// The caller's user record, or nullopt without a valid "Bearer " token (unknown, disabled, stale).
// Who may call a route is the gate's business (app/access.h); handlers look the caller up only to
// use it.
// Names the caller in `req.caller` for the access log.
std::optional<Json::Value> lookupCaller(const http::Request& req, Context& ctx);

}  // namespace quill::handler
