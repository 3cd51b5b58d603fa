#pragma once
// The first-admin claim: on a server started with --claimable and a PIN, the first person who
// knows the PIN becomes the "admin" account, as long as no admin exists.

#include "handler/common.h"

namespace quill::api {

using http::Request;
using http::Response;

Response claimState(const Request& req, Context& ctx);  // GET /api/claim
Response claim(const Request& req, Context& ctx);       // POST /api/claim

}  // namespace quill::api
