#include "app/gate.h"

#include <algorithm>
#include <array>

#include "handler/caller.h"
#include "http/json.h"
#include "store/documents.h"
#include "store/names.h"
#include "store/users.h"

namespace quill {

namespace {

// Routes charged to a budget of their own before anything else is judged, whatever the caller:
// credential attempts, whether they succeed or not, and sign-in starts, each of which holds a
// place in the bounded store of pending sign-ins.
struct ChargedRoute {
  std::string_view method;
  std::string_view path;
  Budget budget;
};
constexpr std::array<ChargedRoute, 5> kChargedRoutes = {{
    {"POST", "/api/invites/redeem", Budget::Credential},
    {"POST", "/api/claim", Budget::Credential},
    {"POST", "/api/access-requests", Budget::Credential},
    {"POST", "/api/sso/handoff", Budget::Credential},
    {"GET", "/api/sso/start", Budget::SignInStart},
}};

std::optional<Budget> routeBudget(std::string_view method, std::string_view path) {
  for (const ChargedRoute& route : kChargedRoutes) {
    if (route.method == method && route.path == path) return route.budget;
  }
  return std::nullopt;
}

std::string_view trimBlanks(std::string_view text) {
  auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  auto last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

http::Response tooManyRequests(std::int64_t retryAfter) {
  return http::errorResponse(429, gate_text::kTooManyRequests)
      .withHeader("Retry-After", std::to_string(retryAfter));
}

bool channelIsPublic(const Json::Value& channel) {
  return channel["public"].isBool() && channel["public"].asBool();
}

bool inAllowList(const Json::Value& caller, std::string_view channel) {
  auto allowed = store::stringsOf(caller, "channels");
  return std::find(allowed.begin(), allowed.end(), channel) != allowed.end();
}

}  // namespace

std::optional<std::string_view> matchSegment(std::string_view path, std::string_view prefix,
                                             std::string_view suffix) {
  if (path.size() <= prefix.size() + suffix.size()) return std::nullopt;
  if (!path.starts_with(prefix) || !path.ends_with(suffix)) return std::nullopt;
  std::string_view middle = path.substr(prefix.size(), path.size() - prefix.size() - suffix.size());
  if (middle.find('/') != std::string_view::npos) return std::nullopt;
  return middle;
}

std::string clientKey(const http::Request& req) {
  if (!http::isLoopbackAddress(req.peer)) return req.peer;
  std::string_view forwarded = req.header("x-forwarded-for");
  return std::string(trimBlanks(forwarded.substr(0, forwarded.find(','))));
}

bool isOpenPath(std::string_view method, std::string_view path) {
  static constexpr std::array<std::string_view, 8> kAnyMethod = {
      "/api/version", "/api/openapi.yaml", "/api/docs",      "/api/invites/redeem",
      "/api/claim",   "/api/sso/status",   "/api/sso/start", "/api/sso/callback"};
  if (path == "/") return true;
  if (std::find(kAnyMethod.begin(), kAnyMethod.end(), path) != kAnyMethod.end()) return true;
  return method == "POST" && (path == "/api/access-requests" || path == "/api/sso/handoff");
}

bool isPublicRead(const Context& ctx, std::string_view path) {
  if (auto channel = matchSegment(path, "/api/channels/")) {
    if (!store::isValidName(*channel)) return false;
    Json::Value doc;
    return store::readJsonFile(
               store::DataDir::recordPath(ctx.data.channels(), std::string(*channel)), doc) &&
           channelIsPublic(doc);
  }
  auto build = matchSegment(path, "/api/builds/", "/files");
  if (!build) build = matchSegment(path, "/api/builds/");
  if (!build || !store::isValidName(*build)) return false;
  for (const auto& [file, doc] : store::listJsonDir(ctx.data.channels())) {
    if (channelIsPublic(doc) && doc["build"].isString() && doc["build"].asString() == *build) {
      return true;
    }
  }
  return false;
}

Gate::Gate(Context& ctx) : ctx_(ctx), limiter_(ctx.settings.rateLimit) {}

std::optional<http::Response> Gate::judge(const http::Request& req) {
  const std::string key = clientKey(req);
  if (auto budget = routeBudget(req.method, req.path)) {
    auto charged = limiter_.charge(key, *budget);
    if (!charged.allowed) return tooManyRequests(charged.retryAfterSeconds);
  }
  if (isOpenPath(req.method, req.path)) return std::nullopt;

  if (auto caller = handler::lookupCaller(req, ctx_)) return judgeCaller(req, *caller);

  if (req.method == "GET" && isPublicRead(ctx_, req.path)) return std::nullopt;
  auto charged = limiter_.charge(key, Budget::Anonymous);
  if (!charged.allowed) return tooManyRequests(charged.retryAfterSeconds);
  return http::errorResponse(401, handler::kMissingToken);
}

std::optional<http::Response> Gate::judgeCaller(const http::Request& req,
                                                const Json::Value& caller) {
  if (req.method == "GET") return std::nullopt;
  const std::string role = store::textOf(caller, "role");
  if (role == "admin") return std::nullopt;
  if (role != "publisher") return http::errorResponse(403, handler::kAdminOnly);

  const std::string_view path = req.path;
  if (req.method == "PUT" && matchSegment(path, "/api/builds/", "/files")) return std::nullopt;
  if (req.method == "POST" && matchSegment(path, "/api/builds/", "/finalize")) return std::nullopt;
  if (req.method == "POST") {
    auto channel = matchSegment(path, "/api/channels/", "/promote");
    if (!channel) channel = matchSegment(path, "/api/channels/");
    if (channel && inAllowList(caller, *channel)) return std::nullopt;
  }
  return http::errorResponse(403, gate_text::kOutsideScope);
}

}  // namespace quill
