#include "store/tokens.h"

#include <blake3.h>

#include <cctype>
#include <ctime>
#include <span>

#include "base/hex.h"
#include "store/accounts.h"
#include "store/documents.h"
#include "store/names.h"
#include "store/random.h"
#include "store/token_index.h"
#include "store/users.h"
#include "store/utc_time.h"

namespace quill::store {

namespace {

// "-" and 4 random characters, appended when a machine's token name is taken.
constexpr std::size_t kSuffixBytes = 5;

// The first token file whose `token_hash` equals `hash`, in directory order.
std::optional<TokenFile> scanForHash(const DataDir& data, const std::string& hash) {
  for (auto& [path, record] : listJsonDir(data.tokens())) {
    const Json::Value& stored = record["token_hash"];
    if (stored.isString() && stored.asString() == hash) return TokenFile{path, std::move(record)};
  }
  return std::nullopt;
}

// A token without `user` predates per-user tokens: it belongs to an admin named like the token.
// Returns the user name, or "" when the token's name cannot be a user name.
std::string upgradeLegacyToken(const DataDir& data, TokenFile& file) {
  std::string name = textOf(file.record, "name");
  if (!isValidName(name)) return "";
  NewUser admin;
  admin.name = name;
  admin.role = "admin";
  createUser(data, admin);
  file.record["user"] = name;
  writeJsonFile(file.path, file.record);
  return name;
}

// A single-sign-on token is good for a day after its last sign-on. A stale one is removed; one
// whose time cannot be read is refused but kept.
bool ssoTokenFresh(TokenFile& file) {
  auto validatedAt = readUtc(textOf(file.record, "sso_validated_at"));
  if (!validatedAt.sixNumbers) return false;
  if (validatedAt.seconds && std::time(nullptr) - *validatedAt.seconds <= kSsoTokenMaxAge) {
    return true;
  }
  removeFile(file.path);
  return false;
}

}  // namespace

std::string hashToken(std::string_view text) {
  blake3_hasher hasher;
  blake3_hasher_init(&hasher);
  blake3_hasher_update(&hasher, text.data(), text.size());
  std::uint8_t digest[BLAKE3_OUT_LEN];
  blake3_hasher_finalize(&hasher, digest, BLAKE3_OUT_LEN);
  return base::toHex(std::span<const std::uint8_t>(digest));
}

std::string_view bearerToken(std::string_view authorization) {
  constexpr std::string_view kScheme = "Bearer ";
  if (authorization.substr(0, kScheme.size()) != kScheme) return {};
  return authorization.substr(kScheme.size());
}

std::string mintToken(const DataDir& data, const std::string& tokenName,
                      const std::string& userName) {
  std::string text = randomString(kTokenLength);
  Json::Value record(Json::objectValue);
  record["schema_version"] = 1;
  record["name"] = tokenName;
  record["user"] = userName;
  record["token_hash"] = hashToken(text);
  record["created_at"] = nowUtcText();
  if (!writeJsonFile(DataDir::recordPath(data.tokens(), tokenName), record)) return "";
  return text;
}

std::string machineTokenName(const DataDir& data, std::string_view owner,
                             std::string_view machine) {
  std::string word;
  for (char c : machine) {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_') {
      word.push_back(c);
    }
  }
  if (word.empty()) word = "device";
  // Cut so that even with the suffix the name passes the name rule that `token delete` applies.
  // The cut keeps the owner's stem (or more than 4 bytes of it), so it never makes a reserved
  // device name, and it cannot end up as "." or "..".
  std::string name = (std::string(owner) + "-" + word).substr(0, kMaxNameBytes - kSuffixBytes);
  if (tokenNameTaken(data, name)) {
    name += '-';
    name += randomString(kSuffixBytes - 1);
  }
  return name;
}

std::optional<Json::Value> findToken(const DataDir& data, const std::string& name) {
  Json::Value record;
  if (!readJsonFile(DataDir::recordPath(data.tokens(), name), record)) {
    return std::nullopt;
  }
  return record;
}

std::optional<Json::Value> resolveToken(const DataDir& data, std::string_view text,
                                        TokenIndex* index, DocumentCache* users) {
  if (text.empty()) return std::nullopt;
  const std::string hash = hashToken(text);
  auto file = index ? index->find(data.tokens(), hash) : scanForHash(data, hash);
  if (!file) return std::nullopt;

  std::string userName = textOf(file->record, "user");
  if (userName.empty()) userName = upgradeLegacyToken(data, *file);
  if (!isValidName(userName)) return std::nullopt;
  auto user = findUser(data, userName, users);
  if (!user || flagOf(*user, "disabled")) return std::nullopt;
  if (flagOf(file->record, "sso") && !ssoTokenFresh(*file)) return std::nullopt;
  return user;
}

}  // namespace quill::store
