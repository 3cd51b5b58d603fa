#pragma once
// The browser sign-in: the desktop client opens /api/sso/start with the port of its loopback
// listener, the provider sends the browser back to /api/sso/callback, and the browser is sent on
// to http://127.0.0.1:<port>/?handoff=<code>; the client redeems the code once, within 60
// seconds, at /api/sso/handoff. The browser never sees the token.

#include <string>

#include "handler/common.h"

namespace quill::sso {

using http::Request;
using http::Response;

Response startSignIn(const Request& req, Context& ctx);  // GET /api/sso/start (blocking)
Response callback(const Request& req, Context& ctx);     // GET /api/sso/callback (blocking)
Response handoff(const Request& req, Context& ctx);      // POST /api/sso/handoff

// "<scheme>://<Host header>/api/sso/callback": https only when a loopback peer (a reverse proxy
// on this machine) says so with X-Forwarded-Proto.
std::string callbackUri(const Request& req, const Context& ctx);

}  // namespace quill::sso
