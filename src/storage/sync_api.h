#pragma once
// The sync descriptor of a Rill channel: presigned links to its manifest, signature and chunks.

#include "handler/common.h"

namespace quill::storage {

using handler::Request;
using handler::Response;

Response rillSync(const Request& req, Context& ctx);  // GET /api/rill/sync/{channel}

// The link lifetime asked by `?ttl=`: its leading decimal number when that is at least 1,
// otherwise 300 seconds. There is no upper bound (stores refuse links beyond their own limit).
std::int64_t syncLinkLifetime(const Request& req);

}  // namespace quill::storage
