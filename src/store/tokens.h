#pragma once
// Bearer tokens: 48 random letters and digits shown once, stored only as their BLAKE3 hash in
// `tokens/<token name>.json`, and resolved back to the owning user on every request.

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>

#include "store/data_dir.h"

namespace quill::store {

class DocumentCache;
class TokenIndex;

inline constexpr std::size_t kTokenLength = 48;
// A single-sign-on token must have been confirmed within this many seconds.
inline constexpr std::int64_t kSsoTokenMaxAge = 86400;

// Lower-case hex of the 32-byte BLAKE3 hash of `text`.
std::string hashToken(std::string_view text);

// The token in an "authorization" header value: what follows "Bearer " (case-sensitive, one
// space), or "" for anything else.
std::string_view bearerToken(std::string_view authorization);

// Writes a fresh token record for `userName` under `tokenName` and returns the token text, or ""
// if the record could not be written. Does not check whether the name is taken.
std::string mintToken(const DataDir& data, const std::string& tokenName,
                      const std::string& userName);

// A fresh token name for a machine of `owner`: owner + "-" + the letters, digits, "-", "." and "_"
// of `machine` (or "device" when none are left), cut to 123 bytes, with "-" and 4 random
// characters appended when a token of that name exists already. Always a valid name.
std::string machineTokenName(const DataDir& data, std::string_view owner, std::string_view machine);

// The token record `tokens/<name>.json`, or nullopt.
std::optional<Json::Value> findToken(const DataDir& data, const std::string& name);

// The owning user's record for a presented token, or nullopt when the text is empty or unknown,
// the user is missing or disabled, or a single-sign-on token is stale (its file is then removed).
// A record without `user` predates per-user tokens: it is upgraded in place to belong to an admin
// account named like the token. With an index, the lookup does not read every token file; with a
// cache, an unchanged user record is not read again; the answer is the same as without either.
std::optional<Json::Value> resolveToken(const DataDir& data, std::string_view text,
                                        TokenIndex* index = nullptr,
                                        DocumentCache* users = nullptr);

}  // namespace quill::store
