#include "api/groups.h"

#include <filesystem>

#include "handler/caller.h"
#include "store/documents.h"
#include "store/groups.h"
#include "store/users.h"

namespace quill::api {

namespace {

namespace text {
constexpr const char* kInvalidGroup = "invalid group name";
constexpr const char* kGroupExists = "group already exists";
constexpr const char* kGroupNotFound = "group not found";
constexpr const char* kCreateFailed = "could not create group";
constexpr const char* kUpdateFailed = "could not update group";
constexpr const char* kBadChannelParam = "missing or invalid ?channel= parameter";
constexpr const char* kNoChannel = "channel does not exist - create it first";
}  // namespace text

bool hasGroup(const Json::Value& user, const std::string& group) {
  for (const auto& name : store::stringsOf(user, "groups")) {
    if (name == group) return true;
  }
  return false;
}

enum class ListChange { Add, Remove };

Response changeChannels(const Request& req, Context& ctx, ListChange change) {
  if (auto refusal = handler::refuseInvalidName(req.segment(), text::kInvalidGroup)) return *refusal;
  auto channel = handler::nameParam(req, "channel");
  if (!channel) return http::errorResponse(400, text::kBadChannelParam);
  auto group = store::findGroup(ctx.data, req.segment());
  if (!group) return http::errorResponse(404, text::kGroupNotFound);
  if (change == ListChange::Add) {
    if (!handler::channelExists(ctx, *channel)) return http::errorResponse(404, text::kNoChannel);
    handler::appendUnique((*group)["channels"], *channel);
  } else {
    handler::removeAll((*group)["channels"], *channel);
  }
  if (!store::saveGroup(ctx.data, *group)) return http::errorResponse(500, text::kUpdateFailed);
  return http::jsonResponse(*group);
}

}  // namespace

Response listGroups(const Request&, Context& ctx) {
  const auto users = store::listUsers(ctx.data);
  Json::Value groups(Json::arrayValue);
  for (const auto& record : store::listGroups(ctx.data)) {
    const std::string name = store::textOf(record, "name");
    Json::Value members(Json::arrayValue);
    for (const auto& user : users) {
      if (hasGroup(user, name)) members.append(user["name"]);
    }
    Json::Value entry(Json::objectValue);
    entry["name"] = record["name"];
    entry["channels"] = record["channels"];
    entry["members"] = std::move(members);
    entry["sso_managed"] = store::flagOf(record, "sso_managed");
    groups.append(std::move(entry));
  }
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["groups"] = std::move(groups);
  return http::jsonResponse(doc);
}

Response createGroup(const Request& req, Context& ctx) {
  const std::string& name = req.segment();
  if (auto refusal = handler::refuseInvalidName(name, text::kInvalidGroup)) return *refusal;
  std::error_code ec;
  if (std::filesystem::exists(store::DataDir::recordPath(ctx.data.groups(), name), ec)) {
    return http::errorResponse(409, text::kGroupExists);
  }
  Json::Value record = store::newGroupRecord(name);
  if (!store::saveGroup(ctx.data, record)) return http::errorResponse(500, text::kCreateFailed);
  return http::jsonResponse(record);
}

Response deleteGroup(const Request& req, Context& ctx) {
  const std::string& name = req.segment();
  if (auto refusal = handler::refuseInvalidName(name, text::kInvalidGroup)) return *refusal;
  if (!store::findGroup(ctx.data, name)) return http::errorResponse(404, text::kGroupNotFound);
  int removed = 0;
  for (auto user : store::listUsers(ctx.data)) {
    if (!hasGroup(user, name)) continue;
    handler::removeAll(user["groups"], name);
    store::saveUser(ctx.data, user);  // counted whatever the write's outcome
    ++removed;
  }
  store::removeFile(store::DataDir::recordPath(ctx.data.groups(), name));
  Json::Value doc(Json::objectValue);
  doc["deleted"] = name;
  doc["removed_from_users"] = removed;
  return http::jsonResponse(doc);
}

Response assignGroupChannel(const Request& req, Context& ctx) {
  return changeChannels(req, ctx, ListChange::Add);
}

Response unassignGroupChannel(const Request& req, Context& ctx) {
  return changeChannels(req, ctx, ListChange::Remove);
}

Response me(const Request& req, Context& ctx) {
  auto caller = handler::lookupCaller(req, ctx);
  if (!caller) return http::errorResponse(401, handler::kMissingToken);
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["name"] = (*caller)["name"];
  doc["role"] = (*caller)["role"];
  doc["groups"] = (*caller)["groups"];
  doc["channels"] = store::effectiveChannels(ctx.data, *caller, &ctx.documents);
  return http::jsonResponse(doc);
}

}  // namespace quill::api
