#pragma once
// The request gate: every routed request passes it on its head, before any body is read.
//
// It judges the route's access (app/access.h) against the caller: it lets open routes through,
// lets anonymous readers see public channels and their builds, charges per-client rate-limit
// budgets (credential attempts; sign-in starts; requests without a valid token), requires a valid
// token for everything else, and keeps each route to the roles its access names.
// It changes nothing and attaches nothing to the request: handlers look the caller up again.

#include <optional>
#include <string>

#include "app/access.h"
#include "app/rate_limiter.h"
#include "handler/context.h"
#include "http/request.h"
#include "http/response.h"

namespace quill {

namespace gate_text {
inline constexpr const char* kTooManyRequests = "too many requests - slow down and retry later";
inline constexpr const char* kAdminOnly = "this operation requires the admin role";
inline constexpr const char* kOutsideScope = "outside this publisher's scope";
}  // namespace gate_text

// The rate-limit key of a request: the peer address, or for a loopback peer (a local reverse
// proxy) the first X-Forwarded-For hop, or "" (not limited) when a loopback peer sends none.
std::string clientKey(const http::Request& req);

class Gate {
 public:
  explicit Gate(Context& ctx);
  // Judges a routed request (its `segments` set) against the access of its route: nullopt lets it
  // through; otherwise the refusal to send.
  std::optional<http::Response> judge(const Access& access, const http::Request& req);
  RateLimiter& limiter() { return limiter_; }

 private:
  std::optional<http::Response> judgeCaller(const Access& access, const http::Request& req,
                                            const Json::Value& caller);
  bool isPublicRead(Caller who, const http::Request& req) const;

  Context& ctx_;
  RateLimiter limiter_;
};

}  // namespace quill
