#pragma once
// Access requests: a person without an account leaves a name and an address; an admin approves
// the request into an invite, or declines it. At most 50 wait at once.

#include "handler/common.h"

namespace quill::api {

using http::Request;
using http::Response;

Response submitAccessRequest(const Request& req, Context& ctx);   // POST /api/access-requests
Response listAccessRequests(const Request& req, Context& ctx);    // GET /api/access-requests
Response approveAccessRequest(const Request& req, Context& ctx);  // POST .../{id}/approve
Response declineAccessRequest(const Request& req, Context& ctx);  // DELETE .../{id}

// The e-mail shape accepted: an "@" after the first character, a "." after it, no space.
bool plausibleEmail(std::string_view email);

}  // namespace quill::api
