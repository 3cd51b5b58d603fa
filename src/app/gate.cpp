#include "app/gate.h"

#include <algorithm>

#include "handler/caller.h"
#include "http/json.h"
#include "store/documents.h"
#include "store/names.h"
#include "store/users.h"

namespace quill {

namespace {

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

std::string_view firstCapture(const http::Request& req) {
  return req.segments.empty() ? std::string_view() : std::string_view(req.segments.front());
}

}  // namespace

std::string clientKey(const http::Request& req) {
  if (!http::isLoopbackAddress(req.peer)) return req.peer;
  std::string_view forwarded = req.header("x-forwarded-for");
  return std::string(trimBlanks(forwarded.substr(0, forwarded.find(','))));
}

Gate::Gate(Context& ctx) : ctx_(ctx), limiter_(ctx.settings.rateLimit) {}

std::optional<http::Response> Gate::judge(const Access& access, const http::Request& req) {
  const std::string key = clientKey(req);
  if (access.charge) {
    auto charged = limiter_.charge(key, *access.charge);
    if (!charged.allowed) return tooManyRequests(charged.retryAfterSeconds);
  }
  if (access.who == Caller::kAnyone) return std::nullopt;
  if (!access.openSegment.empty() && firstCapture(req) == access.openSegment) return std::nullopt;

  if (auto caller = handler::lookupCaller(req, ctx_)) return judgeCaller(access, req, *caller);

  if (isPublicRead(access.who, req)) return std::nullopt;
  auto charged = limiter_.charge(key, Budget::Anonymous);
  if (!charged.allowed) return tooManyRequests(charged.retryAfterSeconds);
  return http::errorResponse(401, handler::kMissingToken);
}

std::optional<http::Response> Gate::judgeCaller(const Access& access, const http::Request& req,
                                                const Json::Value& caller) {
  const std::string role = store::textOf(caller, "role");
  switch (access.who) {
    case Caller::kAnyone:
    case Caller::kPublicChannel:
    case Caller::kPublicBuild:
    case Caller::kSignedIn:
      return std::nullopt;
    case Caller::kPublisher:
      if (role == "publisher") return std::nullopt;
      break;
    case Caller::kOwnChannel:
      if (role == "publisher" && inAllowList(caller, firstCapture(req))) return std::nullopt;
      break;
    case Caller::kAdmin:
      break;
  }
  if (role == "admin") return std::nullopt;
  // A publisher's writes are its carve-outs; the reads it may not make are the admin's.
  if (role == "publisher" && req.method != "GET") {
    return http::errorResponse(403, gate_text::kOutsideScope);
  }
  return http::errorResponse(403, gate_text::kAdminOnly);
}

bool Gate::isPublicRead(Caller who, const http::Request& req) const {
  if (who != Caller::kPublicChannel && who != Caller::kPublicBuild) return false;
  const std::string name(firstCapture(req));
  if (!store::isValidName(name)) return false;
  if (who == Caller::kPublicChannel) {
    Json::Value doc;
    return store::readJsonFile(store::DataDir::recordPath(ctx_.data.channels(), name), doc) &&
           channelIsPublic(doc);
  }
  for (const auto& [file, doc] : store::listJsonDir(ctx_.data.channels())) {
    if (channelIsPublic(doc) && doc["build"].isString() && doc["build"].asString() == name) {
      return true;
    }
  }
  return false;
}

}  // namespace quill
