#pragma once
// The storage settings endpoints: show, set (after a probe), forget and test the bucket that Rill
// channels live in. The secret key is never part of an answer.

#include "handler/common.h"

namespace quill::storage {

using handler::Request;
using handler::Response;

Response readStorage(const Request& req, Context& ctx);    // GET /api/storage
Response saveStorage(const Request& req, Context& ctx);    // PUT /api/storage
Response forgetStorage(const Request& req, Context& ctx);  // DELETE /api/storage
Response testStorage(const Request& req, Context& ctx);    // POST /api/storage/test

}  // namespace quill::storage
