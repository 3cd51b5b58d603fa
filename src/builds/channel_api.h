#pragma once
// The channel endpoints: named pointers to finalized builds, with a public flag and launch targets.

#include "handler/common.h"

namespace quill::builds {

using handler::Request;
using handler::Response;

Response listChannels(const Request& req, Context& ctx);      // GET /api/channels
Response readChannel(const Request& req, Context& ctx);       // GET /api/channels/{channel}
Response createChannel(const Request& req, Context& ctx);     // POST /api/channels/{channel}
Response deleteChannel(const Request& req, Context& ctx);     // DELETE /api/channels/{channel}
Response promoteChannel(const Request& req, Context& ctx);    // POST .../{channel}/promote
Response setChannelPublic(const Request& req, Context& ctx);  // POST .../{channel}/public
Response setLaunchTargets(const Request& req, Context& ctx);  // POST .../{channel}/launch

// The normalised launch-target list of a request body, or the 400 that refuses it.
handler::OrError<Json::Value> checkedLaunchTargets(const std::string& body);

}  // namespace quill::builds
