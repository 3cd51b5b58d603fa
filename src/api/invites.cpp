#include "api/invites.h"

#include <charconv>
#include <ctime>

#include "store/documents.h"
#include "store/groups.h"
#include "store/invites.h"
#include "store/names.h"
#include "store/tokens.h"
#include "store/users.h"
#include "store/utc_time.h"

namespace quill::api {

namespace {

namespace text {
constexpr const char* kBadUser = "missing or invalid ?user= parameter";
constexpr const char* kServiceAccount = "service accounts cannot be invited - they use tokens";
constexpr const char* kBadGroup = "invalid group name in ?groups=";
constexpr const char* kBadDays = "days must be 1..3650";
constexpr const char* kStoreFailed = "could not store invite";
constexpr const char* kBadId = "invalid invite id";
constexpr const char* kNoInvite = "no such invite";
constexpr const char* kBadCode = "missing or invalid ?code= parameter";
constexpr const char* kUnknownCode = "invalid or already used invite";
constexpr const char* kExpired = "invite expired";
constexpr const char* kDisabled =
    "this user is disabled - ask the admin to re-enable the account first";
constexpr const char* kUserWriteFailed = "could not update user";
constexpr const char* kTokenFailed = "could not create token";
}  // namespace text

constexpr std::int64_t kDefaultDays = 7;
constexpr std::int64_t kMaxDays = 3650;
constexpr std::size_t kMaxCodeLength = 128;

std::int64_t now() { return static_cast<std::int64_t>(std::time(nullptr)); }

std::optional<std::int64_t> parseDays(std::optional<std::string_view> value) {
  if (!value) return kDefaultDays;
  std::int64_t days = 0;
  auto [end, ec] = std::from_chars(value->data(), value->data() + value->size(), days);
  if (ec != std::errc() || end != value->data() + value->size() || days < 1 || days > kMaxDays) {
    return std::nullopt;
  }
  return days;
}

// The existing user named by an invite, or a new member carrying the invite's profile.
Json::Value getOrCreateInvitedUser(Context& ctx, const Json::Value& invite) {
  const std::string name = store::textOf(invite, "user");
  if (auto user = store::findUser(ctx.data, name)) return *user;
  store::NewUser user;
  user.name = name;
  user.displayName = store::textOf(invite, "display_name");
  user.email = store::textOf(invite, "email");
  if (auto created = store::createUser(ctx.data, user)) return *created;
  // Someone created it in the meantime.
  return store::findUser(ctx.data, name).value_or(Json::Value(Json::objectValue));
}

}  // namespace

handler::OrError<InviteTerms> inviteTerms(const Request& req, Context& ctx) {
  InviteTerms terms;
  terms.groups = handler::splitList(req.param("groups").value_or(""));
  for (const auto& group : terms.groups) {
    if (!store::isValidName(group)) return http::errorResponse(400, text::kBadGroup);
  }
  for (const auto& group : terms.groups) {
    if (!store::findGroup(ctx.data, group)) {
      return http::errorResponse(404, "group '" + group + "' does not exist");
    }
  }
  auto days = parseDays(req.param("days"));
  if (!days) return http::errorResponse(400, text::kBadDays);
  terms.lifetimeSeconds = *days * 86400;
  return terms;
}

Response mintInvite(const Request& req, Context& ctx) {
  auto user = handler::nameParam(req, "user");
  if (!user) return http::errorResponse(400, text::kBadUser);
  if (auto existing = store::findUser(ctx.data, *user);
      existing && store::flagOf(*existing, "service")) {
    return http::errorResponse(400, text::kServiceAccount);
  }
  auto terms = inviteTerms(req, ctx);
  if (auto* refusal = std::get_if<Response>(&terms)) return std::move(*refusal);
  auto& [groups, lifetime] = std::get<InviteTerms>(terms);
  store::InviteRequest invite;
  invite.user = *user;
  invite.groups = std::move(groups);
  invite.lifetimeSeconds = lifetime;
  invite.displayName = req.param("display_name").value_or("");
  invite.email = req.param("email").value_or("");
  auto created = store::createInvite(ctx.data, invite);
  if (!created) return http::errorResponse(500, text::kStoreFailed);
  return http::jsonResponse(*created);
}

Response listInvites(const Request&, Context& ctx) {
  Json::Value items(Json::arrayValue);
  for (const auto& [path, record] : store::listJsonDir(ctx.data.invites())) {
    const std::int64_t expires =
        record["expires_epoch"].isIntegral() ? record["expires_epoch"].asInt64() : 0;
    Json::Value item(Json::objectValue);
    for (const char* member : {"id", "user", "groups", "created_at"}) item[member] = record[member];
    item["expires_at"] = store::formatUtc(expires);
    item["expired"] = expires < now();
    for (const char* member : {"email", "display_name"}) {
      if (record.isMember(member)) item[member] = record[member];
    }
    items.append(std::move(item));
  }
  Json::Value doc(Json::objectValue);
  doc["invites"] = std::move(items);
  doc["schema_version"] = 1;
  return http::jsonResponse(doc);
}

Response revokeInvite(const Request& req, Context& ctx) {
  const std::string& id = req.segment();
  if (auto refusal = handler::refuseInvalidName(id, text::kBadId)) return *refusal;
  for (const auto& [path, record] : store::listJsonDir(ctx.data.invites())) {
    if (store::textOf(record, "id") != id) continue;
    store::removeFile(path);
    Json::Value doc(Json::objectValue);
    doc["revoked"] = id;
    return http::jsonResponse(doc);
  }
  return http::errorResponse(404, text::kNoInvite);
}

Response redeemInvite(const Request& req, Context& ctx) {
  std::string_view code = req.param("code").value_or("");
  if (code.empty() || code.size() > kMaxCodeLength) return http::errorResponse(400, text::kBadCode);
  const auto path = store::invitePath(ctx.data, code);
  Json::Value invite;
  if (!store::readJsonFile(path, invite)) {
    return http::errorResponse(404, text::kUnknownCode);
  }
  if (!invite["expires_epoch"].isIntegral() || invite["expires_epoch"].asInt64() < now()) {
    store::removeFile(path);
    return http::errorResponse(404, text::kExpired);
  }
  if (!store::isValidName(store::textOf(invite, "user"))) {
    return http::errorResponse(404, text::kUnknownCode);
  }

  Json::Value user = getOrCreateInvitedUser(ctx, invite);
  if (store::flagOf(user, "disabled")) return http::errorResponse(403, text::kDisabled);
  bool joined = false;
  for (const auto& group : store::stringsOf(invite, "groups")) {
    joined = handler::appendUnique(user["groups"], group) || joined;
  }
  if (joined && !store::saveUser(ctx.data, user)) {
    return http::errorResponse(500, text::kUserWriteFailed);
  }
  // From here on the code is used up, whatever happens next.
  store::removeFile(path);

  const std::string userName = store::textOf(invite, "user");
  const std::string tokenName =
      store::machineTokenName(ctx.data, userName, req.param("machine").value_or(""));
  const std::string token = store::mintToken(ctx.data, tokenName, userName);
  if (token.empty()) return http::errorResponse(500, text::kTokenFailed);

  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["token"] = token;
  doc["token_name"] = tokenName;
  doc["user"] = userName;
  doc["role"] = user["role"];
  doc["groups"] = user["groups"];
  doc["channels"] = store::effectiveChannels(ctx.data, user);
  return http::jsonResponse(doc);
}

}  // namespace quill::api
