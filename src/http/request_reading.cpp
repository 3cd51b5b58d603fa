#include "http/request_reading.h"

#include <map>
#include <optional>

#include "http/request_framing.h"
#include "http/url.h"

namespace quill::http {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;

// Feeds `bytes` to `parser` (a piece per call, as the server's reads do) until `done` says so or
// the parser fails; returns what was used. `ec` is need_more when the bytes ended first.
template <class Parser, class Done>
std::size_t feed(Parser& parser, std::string_view bytes, Done done, beast::error_code& ec) {
  std::size_t used = 0;
  while (!done() && !ec) {
    const std::size_t n = parser.put(asio::buffer(bytes.data() + used, bytes.size() - used), ec);
    used += n;
    if (n == 0 && !ec) ec = bhttp::error::need_more;
  }
  return used;
}

// Reads the body that follows the head into `out` (or drops it when `bodyLimit` is 0).
template <class Body>
void readBody(HeadParser&& head, std::uint64_t bodyLimit, std::string_view rest, ReadRequest& out,
              void (*keep)(bhttp::request_parser<Body>&, ReadRequest&)) {
  bhttp::request_parser<Body> parser(std::move(head));
  parser.body_limit(bodyLimit);
  beast::error_code ec;
  feed(
      parser, rest, [&] { return parser.is_done(); }, ec);
  if (ec == bhttp::error::need_more) {
    out.incomplete = true;
  } else if (ec) {
    out.refusal = bodyFailureStatus(ec).value_or(0);
    out.incomplete = out.refusal == 0;
  } else {
    keep(parser, out);
  }
}

}  // namespace

ReadRequest readRequest(std::string_view bytes, const ServerOptions& options,
                        std::uint64_t bodyLimit) {
  ReadRequest out;
  HeadParser head;
  head.eager(false);
  limitHead(head, options);
  beast::error_code ec;
  const std::size_t used = feed(
      head, bytes, [&] { return head.is_header_done(); }, ec);
  if (ec == bhttp::error::need_more) {
    out.incomplete = true;
    return out;
  }
  if (ec) {
    out.refusal = headFailureStatus(ec).value_or(0);
    out.incomplete = out.refusal == 0;
    return out;
  }
  if (!framingIsSound(head)) {
    out.refusal = 400;
    return out;
  }
  out.method = std::string(head.get().method_string());
  std::map<std::string, std::string, std::less<>> query;
  if (!splitTarget(head.get().target(), out.path, query)) {
    out.refusal = 400;
    return out;
  }
  if (head.is_done()) return out;
  const std::string_view rest = bytes.substr(used);
  if (bodyLimit == 0) {
    readBody<DiscardBody>(std::move(head), options.bodyLimit, rest, out,
                          [](bhttp::request_parser<DiscardBody>&, ReadRequest&) {});
    return out;
  }
  if (head.content_length().value_or(0) > bodyLimit) {
    out.refusal = 413;
    return out;
  }
  readBody<bhttp::string_body>(std::move(head), bodyLimit, rest, out,
                               [](bhttp::request_parser<bhttp::string_body>& parser,
                                  ReadRequest& read) { read.body = parser.release().body(); });
  return out;
}

}  // namespace quill::http
