#pragma once
// Who is calling: the user record behind the request's bearer token.

#include <json/value.h>

#include <optional>

#include "handler/context.h"
#include "http/request.h"
#include "http/response.h"

namespace quill::handler {

// The refusals about the caller, shared by the gate and the handlers that check callers themselves.
inline constexpr const char* kMissingToken = "missing or invalid token";
inline constexpr const char* kAdminOnly = "this operation requires the admin role";

// The caller's user record, or nullopt without a valid "Bearer " token (unknown, disabled, stale).
// Names the caller in `req.caller` for the access log.
std::optional<Json::Value> lookupCaller(const http::Request& req, Context& ctx);

// For the handlers that check the role themselves (the gate lets some reads through for every
// role): 401 kMissingToken without a caller, 403 kAdminOnly for one who is not an administrator,
// nullopt for an administrator.
std::optional<http::Response> refuseUnlessAdmin(const http::Request& req, Context& ctx);

}  // namespace quill::handler
