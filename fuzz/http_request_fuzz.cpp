// The server's reading of a request (head, framing checks, target, chunked or sized body) on
// arbitrary bytes from a client: it refuses with one of its statuses, waits for more, or yields a
// request whose body is within the route's limit.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "http/request_reading.h"

namespace {

// Small limits, so that the fuzzer reaches them.
constexpr std::uint64_t kRouteBodyLimit = 4096;

quill::http::ServerOptions options() {
  quill::http::ServerOptions o;
  o.headerLimit = 8192;
  o.bodyLimit = 65536;
  return o;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const quill::http::ServerOptions kOptions = options();
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  // The length's parity picks a route that keeps its body or one that drops it.
  const std::uint64_t limit = size % 2 == 1 ? kRouteBodyLimit : 0;
  const auto read = quill::http::readRequest(bytes, kOptions, limit);
  const unsigned r = read.refusal;
  if (r != 0 && r != 400 && r != 413 && r != 431) std::abort();
  if (r != 0 && read.incomplete) std::abort();
  if (read.body.size() > limit) std::abort();
  if (r == 0 && !read.incomplete && read.path.empty()) std::abort();
  return 0;
}
