#pragma once
// The users API: list, create, delete, and change groups, direct follows, disabled state, role and
// profile. Everything but the listing is for admins (the gate enforces it). All parameters are
// query parameters; no body is read.

#include "handler/common.h"

namespace quill::api {

using http::Request;
using http::Response;

Response listUsers(const Request& req, Context& ctx);            // GET /api/users
Response createUser(const Request& req, Context& ctx);           // POST /api/users/{name}
Response deleteUser(const Request& req, Context& ctx);           // DELETE /api/users/{name}
Response addUserToGroup(const Request& req, Context& ctx);       // POST .../{name}/groups
Response removeUserFromGroup(const Request& req, Context& ctx);  // DELETE .../{name}/groups
Response followChannel(const Request& req, Context& ctx);        // POST .../{name}/channels
Response unfollowChannel(const Request& req, Context& ctx);      // DELETE .../{name}/channels
Response setUserDisabled(const Request& req, Context& ctx);      // POST .../{name}/disabled
Response setUserRole(const Request& req, Context& ctx);          // POST .../{name}/role
Response setUserProfile(const Request& req, Context& ctx);       // POST .../{name}/profile

// The user record named by the request's path segment: 400 "invalid user name" for a bad name,
// 404 "user not found" when it does not read.
handler::OrError<Json::Value> pathUser(const Request& req, Context& ctx);

}  // namespace quill::api
