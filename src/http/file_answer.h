#pragma once
// Byte ranges and conditional requests for file answers: a client resumes a cut download with
// `Range` (and `If-Range`), and revalidates what it holds with `If-None-Match` or
// `If-Modified-Since`.
//
// Only single ranges are served; a request for several gets the whole file (200). A Range that
// cannot be read, or that is not in bytes, is ignored (200 too). Validators (the entity tag and
// the modification time) are offered and conditions judged only for a file that never changes;
// for one that may still be replaced, conditions are ignored and If-Range never matches, so a
// resumed download never mixes two versions of a file.

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "http/request.h"
#include "http/response.h"

namespace quill::http {

struct FileFacts {
  std::uint64_t size = 0;
  std::time_t modified = 0;
  std::string etag;     // a strong entity tag with its quotes; empty for none
  bool stable = false;  // the file never changes: validators are offered and conditions judged
};

// The answer to `req` (a GET or HEAD) from `whole`, the 200 answer that streams the whole file:
// 304 when a condition says the client's copy is current; 416 (with "Content-Range: bytes
// */<size>") for a range that starts past the end; 206 with Content-Range for one range; else
// `whole`. Every answer but 416 carries "Accept-Ranges: bytes".
Response answerFile(const Request& req, Response whole, const FileFacts& facts);

// An IMF-fixdate ("Sun, 06 Nov 1994 08:49:37 GMT"), and its reading (nullopt for anything else).
std::string httpDate(std::time_t when);
std::optional<std::time_t> parseHttpDate(std::string_view text);

struct ByteRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;  // inclusive
};
// What a Range header asks of a file of `size` bytes: nullopt when it is to be ignored (absent,
// not bytes, malformed, several ranges), a range with first > last when nothing of it can be
// served (416), else the range clamped to the file.
std::optional<ByteRange> requestedRange(std::string_view header, std::uint64_t size);

}  // namespace quill::http
