#include "store/invites.h"

#include <ctime>

#include "store/documents.h"
#include "store/random.h"
#include "store/tokens.h"
#include "store/utc_time.h"

namespace quill::store {

fs::path invitePath(const DataDir& data, std::string_view code) {
  return data.invites() / (hashToken(code) + ".json");
}

std::optional<Json::Value> createInvite(const DataDir& data, const InviteRequest& invite) {
  const std::string code = randomString(kInviteCodeLength);
  const std::int64_t expires =
      static_cast<std::int64_t>(std::time(nullptr)) + invite.lifetimeSeconds;
  Json::Value groups(Json::arrayValue);
  for (const auto& group : invite.groups) groups.append(group);

  Json::Value record(Json::objectValue);
  record["schema_version"] = 1;
  record["id"] = randomString(kInviteIdLength);
  record["user"] = invite.user;
  record["groups"] = groups;
  record["expires_epoch"] = Json::Int64(expires);
  record["created_at"] = nowUtcText();
  if (!invite.displayName.empty()) record["display_name"] = invite.displayName;
  if (!invite.email.empty()) record["email"] = invite.email;
  if (!writeJsonFile(invitePath(data, code), record)) return std::nullopt;

  Json::Value created(Json::objectValue);
  created["code"] = code;
  created["expires_at"] = formatUtc(expires);
  created["groups"] = groups;
  created["id"] = record["id"];
  created["schema_version"] = 1;
  created["user"] = invite.user;
  return created;
}

}  // namespace quill::store
