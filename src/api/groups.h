#pragma once
// The groups API and the caller's own identity. Groups bundle channels; membership is stored on
// the users, so member lists are computed by reading every user record.

#include "handler/common.h"

namespace quill::api {

using http::Request;
using http::Response;

Response listGroups(const Request& req, Context& ctx);            // GET /api/groups
Response createGroup(const Request& req, Context& ctx);           // POST /api/groups/{name}
Response deleteGroup(const Request& req, Context& ctx);           // DELETE /api/groups/{name}
Response assignGroupChannel(const Request& req, Context& ctx);    // POST .../{name}/channels
Response unassignGroupChannel(const Request& req, Context& ctx);  // DELETE .../{name}/channels
Response me(const Request& req, Context& ctx);                    // GET /api/me

}  // namespace quill::api
