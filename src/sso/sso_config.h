#pragma once
// The provider configuration `sso.json` and its claim mapping: defaults, normalisation, the
// validation rules, loading and saving.

#include <json/value.h>

#include <filesystem>
#include <map>
#include <string>

#include "base/result.h"
#include "store/data_dir.h"

namespace quill::sso {

using base::Failure;
using base::Result;

inline constexpr const char* kDefaultScopes = "openid profile email";
inline constexpr const char* kNotConfigured = "SSO is not configured";

// How the provider's claims become this server's roles and groups.
struct Mapping {
  std::string rolesClaim = "roles";
  std::string groupsClaim = "groups";
  std::string defaultRole = "member";
  std::map<std::string, std::string> roles;   // provider role value -> server role
  std::map<std::string, std::string> groups;  // provider group value -> server group
};

struct SsoConfig {
  std::string issuer;
  std::string clientId;
  std::string clientSecret;
  std::string scopes = kDefaultScopes;
  Mapping mapping;
};

// `sso.json` in the data directory.
std::filesystem::path ssoConfigPath(const store::DataDir& data);

// Drops trailing spaces, "/", CR and LF, then leading spaces.
std::string normalizeText(std::string_view text);

// A provider body checked in order: JSON object, normalised issuer (https://, or http:// for
// localhost and 127.0.0.1), then (unless `issuerOnly`) client id and secret. The mapping of the
// result is the default; callers carry the stored one over.
Result<SsoConfig> validateProvider(const Json::Value& body, bool issuerOnly);

// `mapping` with the members present in `body`, each checked first; the first broken member
// names the failure.
Result<Mapping> applyMapping(const Mapping& mapping, const Json::Value& body);

// Loads `sso.json`: "SSO is not configured" when it does not read, "sso.json is incomplete" when
// issuer, client id or secret is empty. Missing scopes and mapping members take their defaults.
Result<SsoConfig> loadSsoConfig(const store::DataDir& data);

// The mapping stored in `sso.json` (even an incomplete one), or the defaults.
Mapping storedMapping(const store::DataDir& data);

// Writes `sso.json` (owner-only: it holds the client secret) through a temporary file; the error
// is "cannot write <path>".
Result<bool> saveSsoConfig(const store::DataDir& data, const SsoConfig& config);

Json::Value mappingToJson(const Mapping& mapping);

}  // namespace quill::sso
