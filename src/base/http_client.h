#pragma once
// The one HTTP(S) client (libcurl), for the object stores and the identity provider: blocking
// transfers with time-outs and bounded answers. One easy handle per calling thread, reused from
// request to request so that connections stay open, so any number of threads may call at once.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quill::base {

struct HttpRequest {
  std::string method;  // "GET", "PUT", "POST", "HEAD" or "DELETE"
  std::string url;
  std::vector<std::string> headers;  // "Name: value"
  std::string_view body;             // sent by PUT and POST only
  // The answer's body may not be longer: the transfer stops there and fails (a store or server
  // that sends without end costs at most this much memory).
  std::uint64_t maxBody = UINT64_MAX;
  // Connecting (name lookup and TLS included) must finish within this time.
  long connectSeconds = 10;
  // A transfer that moves fewer than `stallBytesPerSecond` on average for `stallSeconds` (waiting
  // for an answer included) is given up, so a peer that accepts and never answers costs about a
  // minute; a slow link that keeps moving is never cut off, whatever the size.
  long stallSeconds = 60;
  long stallBytesPerSecond = 8;
  // When above 0, the whole transfer must finish within this time (for small answers only: a
  // large transfer over a slow link would be cut off).
  long totalSeconds = 0;
};

struct HttpResponse {
  long status = 0;  // 0 when no answer was obtained
  std::string body;
  std::int64_t contentLength = -1;  // from the answer's headers; -1 when unknown
  std::string error;                // transport failure: "curl init failed" or "curl: " + reason

  bool isSuccess() const { return status >= 200 && status < 300; }
};

// "answer larger than <n> bytes": the failure of a transfer whose body ran past its bound.
std::string tooLarge(std::uint64_t maxBytes);

// Performs `request` and collects the answer in memory. Statuses are not interpreted. Unless
// `totalSeconds` asks for one, there is no limit on a transfer's whole duration, on purpose: a
// large transfer over a slow link must not be cut off; only a connection that cannot be made or a
// transfer that stalls is given up, with "curl: could not connect within <n> s" or "curl: transfer
// stalled (less than <n> bytes/s for <m> s)" ("curl: no complete answer within <n> s" past
// `totalSeconds`).
// Only http and https URLs are followed, and redirects are not. A failed transfer, whatever its
// cause, leaves the calling thread's handle fit for the next one.
HttpResponse performHttp(const HttpRequest& request);

}  // namespace quill::base
