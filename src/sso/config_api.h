#pragma once
// The provider configuration and the claim mapping over HTTP. Every route but the status is for
// administrators only; the client secret is never part of an answer.

#include "handler/common.h"

namespace quill::sso {

using http::Request;
using http::Response;

Response ssoStatus(const Request& req, Context& ctx);     // GET /api/sso/status (public)
Response readConfig(const Request& req, Context& ctx);    // GET /api/sso/config
Response putConfig(const Request& req, Context& ctx);     // PUT /api/sso/config (blocking)
Response deleteConfig(const Request& req, Context& ctx);  // DELETE /api/sso/config
Response testConfig(const Request& req, Context& ctx);    // POST /api/sso/config/test (blocking)
Response readMapping(const Request& req, Context& ctx);   // GET /api/sso/mapping
Response putMapping(const Request& req, Context& ctx);    // PUT /api/sso/mapping

}  // namespace quill::sso
