#pragma once
// Invites over HTTP: admins mint, list and revoke them; anyone holding a code redeems it once for a
// token of the invited user, named after the redeeming machine.

#include <cstdint>

#include "handler/common.h"

namespace quill::api {

using http::Request;
using http::Response;

Response mintInvite(const Request& req, Context& ctx);    // POST /api/invites
Response listInvites(const Request& req, Context& ctx);   // GET /api/invites
Response revokeInvite(const Request& req, Context& ctx);  // DELETE /api/invites/{id}
Response redeemInvite(const Request& req, Context& ctx);  // POST /api/invites/redeem

// ?groups= (comma-separated existing groups, may be absent) and ?days= (1..3650, default 7), the
// parameters shared by invite minting and access-request approval.
struct InviteTerms {
  std::vector<std::string> groups;
  std::int64_t lifetimeSeconds = 0;
};
handler::OrError<InviteTerms> inviteTerms(const Request& req, Context& ctx);

}  // namespace quill::api
