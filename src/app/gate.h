#pragma once
// The request gate: every routed request passes it on its head, before any body is read.
//
// It lets open paths through, lets anonymous readers see public channels and their builds,
// charges per-client rate-limit budgets (credential attempts; sign-in starts; requests without a
// valid token), requires a valid token for everything else, and keeps writes to admins, with a
// narrow carve-out for publishers (upload, finalize, and promote or create the channels on their
// allow-list).
// It changes nothing and attaches nothing to the request: handlers look the caller up again.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "handler/context.h"
#include "app/rate_limiter.h"
#include "http/request.h"
#include "http/response.h"

namespace quill {

namespace gate_text {
inline constexpr const char* kTooManyRequests = "too many requests - slow down and retry later";
inline constexpr const char* kOutsideScope = "outside this publisher's scope";
}  // namespace gate_text

// The captured segment when `path` is `prefix` + one non-empty segment without "/" + `suffix`.
std::optional<std::string_view> matchSegment(std::string_view path, std::string_view prefix,
                                             std::string_view suffix = "");

// The rate-limit key of a request: the peer address, or for a loopback peer (a local reverse
// proxy) the first X-Forwarded-For hop, or "" (not limited) when a loopback peer sends none.
std::string clientKey(const http::Request& req);

// Paths anyone may call without a token.
bool isOpenPath(std::string_view method, std::string_view path);

// A GET of a public channel, or of a build (or its files) that a public channel points at.
bool isPublicRead(const Context& ctx, std::string_view path);

class Gate {
 public:
  explicit Gate(Context& ctx);
  // nullopt lets the request through; otherwise the refusal to send.
  std::optional<http::Response> judge(const http::Request& req);
  RateLimiter& limiter() { return limiter_; }

 private:
  std::optional<http::Response> judgeCaller(const http::Request& req, const Json::Value& caller);

  Context& ctx_;
  RateLimiter limiter_;
};

}  // namespace quill
