#pragma once
// Turning a verified ID token into a user of this server: find the user by subject or create one
// with a derived name, apply the role and group mapping, and mint a single sign-on token.

#include <json/value.h>

#include <string>

#include "sso/sso_config.h"
#include "store/data_dir.h"

namespace quill::sso {

inline constexpr const char* kDisabledAccount = "this account is disabled - ask the admin";
inline constexpr const char* kUserNotSaved = "could not save the user";
inline constexpr const char* kTokenNotCreated = "could not create token";

// The name for a first-time user: preferred_username, else email, else "sso-user"; cut at the
// first "@", reduced to letters, digits, "-", "." and "_", lower-cased; "sso-user" when that is
// not a valid name. Free of existing users by appending "-2", "-3", ... when needed, with the
// name cut only as far as such a suffix needs to stay within 128 bytes.
std::string derivedUserName(const store::DataDir& data, const Json::Value& claims);

// The role the claims map to: the highest of admin, publisher, member among the mapped values of
// the roles claim (a string or an array of strings), else the default role.
std::string mappedRole(const Mapping& mapping, const Json::Value& claims);

// The user's new group list: memberships in groups that no mapping targets (in their order), then
// the existing groups the claims map to, in ascending name order.
Json::Value mappedGroups(const store::DataDir& data, const Mapping& mapping,
                         const Json::Value& currentGroups, const Json::Value& claims);

// Finds or creates the user for the token's `sub`, applies the mapping and saves the record.
// Failures: "token has no subject", "this account is disabled - ask the admin", "could not save
// the user".
Result<Json::Value> provisionUser(const store::DataDir& data, const Mapping& mapping,
                                  const Json::Value& claims);

struct MintedToken {
  std::string text;  // shown once, in the handoff answer
  std::string name;
};

// A token named <user>-sso-<8 random characters> (the user's part cut to keep it within 128
// bytes), marked `sso` and validated now; it stops resolving a day after this sign-in. Failure:
// "could not create token".
Result<MintedToken> mintSsoToken(const store::DataDir& data, const std::string& userName);

}  // namespace quill::sso
