#pragma once
// One request read from bytes as the server reads it off a connection, with the same parsers,
// limits and checks but no socket: the HTTP parsing of untrusted input, exposed for fuzzing.

#include <cstdint>
#include <string>
#include <string_view>

#include "http/server.h"

namespace quill::http {

struct ReadRequest {
  // 0 when the request was read whole (or the bytes ended first); otherwise the status the
  // server refuses it with: 400 malformed, 413 body too large, 431 head too large.
  unsigned refusal = 0;
  bool incomplete = false;  // the bytes ended before the request did: the server would wait
  std::string method;
  std::string path;  // decoded, without the query
  std::string body;  // the body kept in memory (never longer than the limit given)
};

// Reads the request at the start of `bytes` with `options`' limits; its body is kept in memory up
// to `bodyLimit` bytes, as a route with that limit keeps it, or read and dropped when it is 0.
ReadRequest readRequest(std::string_view bytes, const ServerOptions& options,
                        std::uint64_t bodyLimit);

}  // namespace quill::http
