#pragma once
// How the server reads a request off the wire with Beast: the parsers, their limits, and the
// checks of a head's framing. Kept in one place so that the server and the request reader used
// for fuzzing (request_reading.h) read bytes exactly alike. Internal to the HTTP layer.

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "http/server.h"

namespace quill::http {

namespace bhttp = boost::beast::http;

using HeadParser = bhttp::request_parser<bhttp::empty_body>;

// Reads a body and keeps none of it: for routes that take no body, so that a client announcing
// gigabytes costs the server bandwidth at most, never memory.
struct DiscardBody {
  struct value_type {};
  class reader {
   public:
    template <bool isRequest, class Fields>
    reader(bhttp::header<isRequest, Fields>&, value_type&) {}
    void init(const boost::optional<std::uint64_t>&, boost::beast::error_code& ec) { ec = {}; }
    template <class ConstBufferSequence>
    std::size_t put(const ConstBufferSequence& buffers, boost::beast::error_code& ec) {
      ec = {};
      return boost::asio::buffer_size(buffers);
    }
    void finish(boost::beast::error_code& ec) { ec = {}; }
  };
};

// Sets the limits a head is read with: `headerLimit` for the head, `bodyLimit` for an announced
// body (refused as soon as it is announced larger).
void limitHead(HeadParser& head, const ServerOptions& options);

// The answer to a head that could not be read, or nullopt when the client went away or was too
// slow (the connection is then closed without one): 413 for a body announced too large, 431 for
// a head too large, 400 for anything malformed.
std::optional<unsigned> headFailureStatus(const boost::beast::error_code& ec);

// The last coding of a Transfer-Encoding list ("gzip, chunked" ends in "chunked"), lower-cased.
std::string lastCoding(std::string_view list);

// Whether the head frames its body beyond doubt: a Transfer-Encoding must end in chunked (else
// the body's length is unknown) and must not come with a Content-Length (the two could be read
// differently by a proxy in front of us).
bool framingIsSound(const HeadParser& head);

// The answer to a body that could not be read, or nullopt when the client went away or stalled:
// 413 past the body's limit, 400 for a parse error (a bad chunk size, say).
std::optional<unsigned> bodyFailureStatus(const boost::beast::error_code& ec);

}  // namespace quill::http
