#pragma once
// The build endpoints. Roles are the gate's business; these handlers check ids, paths and state.

#include <filesystem>

#include "handler/common.h"

namespace quill::builds {

using handler::Request;
using handler::Response;

// PUT /api/builds/{id}/files?path=. Every check needs only the head (Rill-only, id, path, not
// finalized), so uploadCheck runs before the body is read; the body is streamed into the file
// named by uploadBodyFile (on the build's file system but outside files/, so a broken upload
// never reaches a manifest) and uploadFile flushes it and renames it into place, unless the build
// was finalized meanwhile. A body that could not be stored (a full disk) answers 500 like a failed
// placement.
std::optional<Response> uploadCheck(const Request& req, Context& ctx);
std::filesystem::path uploadBodyFile(const Request& req, Context& ctx);
Response uploadFile(const Request& req, Context& ctx);

Response finalizeBuild(const Request& req, Context& ctx);     // POST /api/builds/{id}/finalize
Response readBuild(const Request& req, Context& ctx);         // GET /api/builds/{id}
Response downloadFile(const Request& req, Context& ctx);      // GET /api/builds/{id}/files?path=
Response setBuildDisabled(const Request& req, Context& ctx);  // POST /api/builds/{id}/disabled
Response deleteBuild(const Request& req, Context& ctx);       // DELETE /api/builds/{id}
Response listBuilds(const Request& req, Context& ctx);        // GET /api/builds

}  // namespace quill::builds
