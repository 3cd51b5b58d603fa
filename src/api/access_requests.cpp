#include "api/access_requests.h"

#include "base/json_reader.h"
#include "api/invites.h"
#include "store/documents.h"
#include "store/invites.h"
#include "store/names.h"
#include "store/random.h"
#include "store/users.h"
#include "store/utc_time.h"

namespace quill::api {

namespace {

namespace text {
constexpr const char* kJsonRequired = "JSON body required";
constexpr const char* kBadName = "missing or invalid name";
constexpr const char* kBadEmail = "a valid email address is required";
constexpr const char* kTooMany = "too many pending requests - try again later";
constexpr const char* kStoreFailed = "could not store request";
constexpr const char* kNoRequest = "no such request";
constexpr const char* kInviteFailed = "could not store invite";
}  // namespace text

constexpr std::size_t kMaxPending = 50;
constexpr std::size_t kRequestIdLength = 8;

// A request id from the path is a name; anything else cannot be a request file.
std::optional<std::filesystem::path> requestPath(const Request& req, Context& ctx) {
  if (!store::isValidName(req.segment())) return std::nullopt;
  return store::DataDir::recordPath(ctx.data.accessRequests(), req.segment());
}

}  // namespace

bool plausibleEmail(std::string_view email) {
  if (email.find(' ') != std::string_view::npos) return false;
  auto at = email.find('@');
  if (at == std::string_view::npos || at == 0) return false;
  return email.find('.', at + 1) != std::string_view::npos;
}

Response submitAccessRequest(const Request& req, Context& ctx) {
  auto body = base::parseJsonObject(req.body);
  if (!body) return http::errorResponse(400, text::kJsonRequired);
  const std::string name = store::textOf(*body, "name");
  // The name becomes a user name on approval; two dots in a row are refused outright.
  if (!store::isValidName(name) || name.find("..") != std::string::npos) {
    return http::errorResponse(400, text::kBadName);
  }
  const std::string email = store::textOf(*body, "email");
  if (!plausibleEmail(email)) return http::errorResponse(400, text::kBadEmail);
  if (store::listJsonDir(ctx.data.accessRequests()).size() >= kMaxPending) {
    return http::errorResponse(429, text::kTooMany);
  }
  Json::Value record(Json::objectValue);
  record["schema_version"] = 1;
  record["id"] = store::randomString(kRequestIdLength);
  record["name"] = name;
  record["email"] = store::profileText(email);
  record["message"] = store::profileText(store::textOf(*body, "message"));
  record["created_at"] = store::nowUtcText();
  auto path = store::DataDir::recordPath(ctx.data.accessRequests(), record["id"].asString());
  if (!store::writeJsonFile(path, record)) return http::errorResponse(500, text::kStoreFailed);
  Json::Value doc(Json::objectValue);
  doc["accepted"] = true;
  return http::jsonResponse(doc);
}

Response listAccessRequests(const Request&, Context& ctx) {
  Json::Value items(Json::arrayValue);
  for (const auto& [path, record] : store::listJsonDir(ctx.data.accessRequests())) {
    Json::Value item(Json::objectValue);
    for (const char* member : {"id", "name", "email", "message", "created_at"}) {
      item[member] = record[member];
    }
    const std::string name = store::textOf(record, "name");
    item["user_exists"] = store::isValidName(name) && store::findUser(ctx.data, name).has_value();
    items.append(std::move(item));
  }
  Json::Value doc(Json::objectValue);
  doc["requests"] = std::move(items);
  doc["schema_version"] = 1;
  return http::jsonResponse(doc);
}

Response approveAccessRequest(const Request& req, Context& ctx) {
  auto terms = inviteTerms(req, ctx);
  if (auto* refusal = std::get_if<Response>(&terms)) return std::move(*refusal);
  auto path = requestPath(req, ctx);
  Json::Value request;
  if (!path || !store::readJsonFile(*path, request) ||
      !store::isValidName(store::textOf(request, "name"))) {
    return http::errorResponse(404, text::kNoRequest);
  }
  store::InviteRequest invite;
  invite.user = store::textOf(request, "name");
  invite.groups = std::get<InviteTerms>(terms).groups;
  invite.lifetimeSeconds = std::get<InviteTerms>(terms).lifetimeSeconds;
  invite.email = store::textOf(request, "email");
  auto created = store::createInvite(ctx.data, invite);
  if (!created) return http::errorResponse(500, text::kInviteFailed);
  store::removeFile(*path);
  (*created)["email"] = invite.email;
  return http::jsonResponse(*created);
}

Response declineAccessRequest(const Request& req, Context& ctx) {
  auto path = requestPath(req, ctx);
  if (!path || !store::removeFile(*path)) return http::errorResponse(404, text::kNoRequest);
  Json::Value doc(Json::objectValue);
  doc["declined"] = req.segment();
  return http::jsonResponse(doc);
}

}  // namespace quill::api
