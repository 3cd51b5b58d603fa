#pragma once
// Invite records: `invites/<hash of code>.json`. The code itself is never stored; whoever holds it
// can redeem it once for a token of the invited user.

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store/data_dir.h"

namespace quill::store {

inline constexpr std::size_t kInviteCodeLength = 24;
inline constexpr std::size_t kInviteIdLength = 8;
inline constexpr std::int64_t kDefaultInviteLifetime = 7 * 86400;

struct InviteRequest {
  std::string user;
  std::vector<std::string> groups;
  std::int64_t lifetimeSeconds = kDefaultInviteLifetime;
  std::string displayName;  // used when redemption creates the user
  std::string email;
};

// Draws a code and an id, writes the record and returns the creation document
// {code, expires_at, groups, id, schema_version, user}; nullopt when the record cannot be written.
std::optional<Json::Value> createInvite(const DataDir& data, const InviteRequest& invite);

// The path of the record for `code`.
fs::path invitePath(const DataDir& data, std::string_view code);

}  // namespace quill::store
