#pragma once
// Who is calling: the user record behind the request's bearer token.

#include <json/value.h>

#include <optional>

#include "handler/context.h"
#include "http/request.h"

namespace quill::handler {

// The refusals about the caller, shared by the gate and the handlers that check callers themselves.
inline constexpr const char* kMissingToken = "missing or invalid token";
inline constexpr const char* kAdminOnly = "this operation requires the admin role";

// The caller's user record, or nullopt without a valid "Bearer " token (unknown, disabled, stale).
std::optional<Json::Value> lookupCaller(const http::Request& req, Context& ctx);

}  // namespace quill::handler
