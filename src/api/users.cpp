#include "api/users.h"

#include "store/accounts.h"
#include "store/documents.h"
#include "store/groups.h"
#include "store/users.h"

namespace quill::api {

namespace {

namespace text {
constexpr const char* kInvalidUser = "invalid user name";
constexpr const char* kUserNotFound = "user not found";
constexpr const char* kUserExists = "user already exists";
constexpr const char* kBadRole = "role must be admin, member or publisher";
constexpr const char* kBadRoleValue = "?value= must be admin, member or publisher";
constexpr const char* kChannelsNeedPublisher = "?channels= only applies to role publisher";
constexpr const char* kServiceIsPublisher = "service accounts always have role publisher";
constexpr const char* kLastAdminDelete = "cannot delete the last admin";
constexpr const char* kLastAdminDemote = "cannot demote the last admin";
constexpr const char* kBadGroupParam = "missing or invalid ?group= parameter";
constexpr const char* kBadChannelParam = "missing or invalid ?channel= parameter";
constexpr const char* kNoGroup = "group does not exist - create it first";
constexpr const char* kNoChannel = "channel does not exist - create it first";
constexpr const char* kWriteFailed = "could not update user";
}  // namespace text

bool isAdmin(const Json::Value& user) { return store::textOf(user, "role") == "admin"; }

Response saved(Context& ctx, const Json::Value& user) {
  if (!store::saveUser(ctx.data, user)) return http::errorResponse(500, text::kWriteFailed);
  return http::jsonResponse(user);
}

// The `users` listing entry of one record: stored values with defaults filled in.
Json::Value listEntry(const Json::Value& record) {
  auto arrayOr = [&](const char* member) {
    return record[member].isArray() ? record[member] : Json::Value(Json::arrayValue);
  };
  Json::Value entry(Json::objectValue);
  entry["name"] = record["name"];
  entry["role"] = record["role"];
  entry["groups"] = record["groups"];
  entry["channels"] = arrayOr("channels");
  entry["follows"] = arrayOr("follows");
  entry["disabled"] = store::flagOf(record, "disabled");
  entry["service"] = store::flagOf(record, "service");
  entry["sso"] = store::flagOf(record, "sso");
  entry["recovery"] = store::isRecoveryAccount(store::textOf(record, "name"));
  entry["display_name"] = store::textOf(record, "display_name");
  entry["email"] = store::textOf(record, "email");
  return entry;
}

// Shared by the group and follow routes: validate, load, change one list, write.
enum class ListChange { Add, Remove };

Response changeMembership(const Request& req, Context& ctx, const char* member, const char* param,
                          const char* badParam, ListChange change) {
  if (auto refusal = handler::refuseInvalidName(req.segment(), text::kInvalidUser)) return *refusal;
  auto item = handler::nameParam(req, param);
  if (!item) return http::errorResponse(400, badParam);
  auto user = store::findUser(ctx.data, req.segment());
  if (!user) return http::errorResponse(404, text::kUserNotFound);
  if (change == ListChange::Remove) {
    if (!(*user)[member].isArray()) (*user)[member] = Json::Value(Json::arrayValue);
    handler::removeAll((*user)[member], *item);
    return saved(ctx, *user);
  }
  const bool isGroup = std::string_view(member) == "groups";
  const bool exists =
      isGroup ? store::findGroup(ctx.data, *item).has_value() : handler::channelExists(ctx, *item);
  if (!exists) return http::errorResponse(404, isGroup ? text::kNoGroup : text::kNoChannel);
  handler::appendUnique((*user)[member], *item);
  return saved(ctx, *user);
}

}  // namespace

handler::OrError<Json::Value> pathUser(const Request& req, Context& ctx) {
  if (auto refusal = handler::refuseInvalidName(req.segment(), text::kInvalidUser)) return *refusal;
  auto user = store::findUser(ctx.data, req.segment());
  if (!user) return http::errorResponse(404, text::kUserNotFound);
  return *user;
}

Response listUsers(const Request&, Context& ctx) {
  Json::Value users(Json::arrayValue);
  for (const auto& record : store::listUsers(ctx.data)) users.append(listEntry(record));
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["users"] = std::move(users);
  return http::jsonResponse(doc);
}

Response createUser(const Request& req, Context& ctx) {
  std::string_view role = req.param("role").value_or("");
  std::string_view service = req.param("service").value_or("");
  const store::UserRequest request{req.segment(), std::string(role.empty() ? "member" : role),
                                   req.param("channels").value_or(""),
                                   service == "1" || service == "true"};
  auto checked = store::checkNewUser(ctx.data, request, store::ListSplit::kTrailingCommaEnds);
  if (auto* refusal = std::get_if<store::UserRefusal>(&checked)) {
    using Kind = store::UserRefusal::Kind;
    switch (refusal->kind) {
      case Kind::kInvalidName:
        return http::errorResponse(400, text::kInvalidUser);
      case Kind::kBadRole:
        return http::errorResponse(400, text::kBadRole);
      case Kind::kChannelsNeedPublisher:
        return http::errorResponse(400, text::kChannelsNeedPublisher);
      case Kind::kChannelList:
        return handler::channelListRefusal(refusal->list);
      case Kind::kExists:
        return http::errorResponse(409, text::kUserExists);
      case Kind::kServiceNotPublisher:
        return http::errorResponse(400, text::kServiceIsPublisher);
    }
  }
  store::NewUser user = std::get<store::NewUser>(std::move(checked));
  user.displayName = store::profileText(req.param("display_name").value_or(""));
  user.email = store::profileText(req.param("email").value_or(""));
  // Should the record have appeared since the check above, the answer is JSON null.
  auto created = store::createUser(ctx.data, user);
  return http::jsonResponse(created ? *created : Json::Value());
}

Response deleteUser(const Request& req, Context& ctx) {
  auto found = pathUser(req, ctx);
  if (auto* refusal = std::get_if<Response>(&found)) return std::move(*refusal);
  const Json::Value& user = std::get<Json::Value>(found);
  const std::string& name = req.segment();
  if (store::isRecoveryAccount(name)) {
    return http::errorResponse(409, store::recoveryAccountMessage("deleted"));
  }
  if (isAdmin(user) && store::countAdmins(ctx.data) <= 1) {
    return http::errorResponse(409, text::kLastAdminDelete);
  }
  store::removeFile(store::DataDir::recordPath(ctx.data.users(), name));
  int removed = 0;
  for (const auto& [path, token] : store::listJsonDir(ctx.data.tokens())) {
    if (store::textOf(token, "user") == name && store::removeFile(path)) ++removed;
  }
  Json::Value doc(Json::objectValue);
  doc["deleted"] = name;
  doc["tokens_removed"] = removed;
  return http::jsonResponse(doc);
}

Response addUserToGroup(const Request& req, Context& ctx) {
  return changeMembership(req, ctx, "groups", "group", text::kBadGroupParam, ListChange::Add);
}

Response removeUserFromGroup(const Request& req, Context& ctx) {
  return changeMembership(req, ctx, "groups", "group", text::kBadGroupParam, ListChange::Remove);
}

Response followChannel(const Request& req, Context& ctx) {
  return changeMembership(req, ctx, "follows", "channel", text::kBadChannelParam, ListChange::Add);
}

Response unfollowChannel(const Request& req, Context& ctx) {
  return changeMembership(req, ctx, "follows", "channel", text::kBadChannelParam,
                          ListChange::Remove);
}

Response setUserDisabled(const Request& req, Context& ctx) {
  auto found = pathUser(req, ctx);
  if (auto* refusal = std::get_if<Response>(&found)) return std::move(*refusal);
  Json::Value user = std::get<Json::Value>(std::move(found));
  const bool disable = req.param("value").value_or("") != "false";
  if (disable && store::isRecoveryAccount(req.segment())) {
    return http::errorResponse(409, store::recoveryAccountMessage("disabled"));
  }
  user["disabled"] = disable;
  return saved(ctx, user);
}

Response setUserRole(const Request& req, Context& ctx) {
  const std::string& name = req.segment();
  if (auto refusal = handler::refuseInvalidName(name, text::kInvalidUser)) return *refusal;
  const std::string value(req.param("value").value_or(""));
  if (!store::isRole(value)) return http::errorResponse(400, text::kBadRoleValue);
  std::string_view channels = req.param("channels").value_or("");
  if (!channels.empty() && value != "publisher") {
    return http::errorResponse(400, text::kChannelsNeedPublisher);
  }
  auto user = store::findUser(ctx.data, name);
  if (!user) return http::errorResponse(404, text::kUserNotFound);
  if (store::flagOf(*user, "service") && value != "publisher") {
    return http::errorResponse(400, text::kServiceIsPublisher);
  }
  if (store::isRecoveryAccount(name) && value != "admin") {
    return http::errorResponse(409, store::recoveryAccountMessage("demoted"));
  }
  if (isAdmin(*user) && value != "admin" && store::countAdmins(ctx.data) <= 1) {
    return http::errorResponse(409, text::kLastAdminDemote);
  }
  (*user)["role"] = value;
  if (value != "publisher") {
    user->removeMember("channels");
    return saved(ctx, *user);
  }
  if (!channels.empty()) {
    auto list = handler::checkedChannelList(ctx, channels);
    if (auto* refusal = std::get_if<Response>(&list)) return std::move(*refusal);
    Json::Value allowList(Json::arrayValue);
    for (const auto& channel : std::get<std::vector<std::string>>(list)) allowList.append(channel);
    (*user)["channels"] = std::move(allowList);
  } else if (!(*user)["channels"].isArray()) {
    (*user)["channels"] = Json::Value(Json::arrayValue);
  }
  return saved(ctx, *user);
}

Response setUserProfile(const Request& req, Context& ctx) {
  auto found = pathUser(req, ctx);
  if (auto* refusal = std::get_if<Response>(&found)) return std::move(*refusal);
  Json::Value user = std::get<Json::Value>(std::move(found));
  for (const char* field : {"display_name", "email"}) {
    auto value = req.param(field);
    if (!value) continue;
    // A present but empty value is stored as the empty string: that clears the field.
    user[field] = store::profileText(*value);
  }
  return saved(ctx, user);
}

}  // namespace quill::api
