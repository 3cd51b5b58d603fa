#pragma once
// Tokens for service accounts, minted by an admin. People get theirs by invite or sign-on.

#include "handler/common.h"

namespace quill::api {

using http::Request;
using http::Response;

Response mintServiceToken(const Request& req, Context& ctx);  // POST /api/users/{name}/tokens

}  // namespace quill::api
