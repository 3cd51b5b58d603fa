#include "sso/sign_in_api.h"

#include <charconv>
#include <ctime>

#include "base/json_reader.h"
#include "sso/id_token.h"
#include "sso/oidc_client.h"
#include "sso/provisioning.h"
#include "sso/result_page.h"
#include "sso/sso_config.h"
#include "sso/sso_state.h"
#include "store/documents.h"
#include "store/random.h"
#include "store/users.h"

namespace quill::sso {

namespace {

namespace text {
constexpr const char* kNotSetUp = "single sign-on is not set up on this server";
constexpr const char* kBadPort = "port must be the client's loopback port (1024..65535)";
constexpr const char* kStartAgain = "Start again from the Quillmoor client.";
constexpr const char* kUnknownCode = "unknown or expired handoff code";
constexpr const char* kProviderPrefix = "identity provider: ";
constexpr const char* kTooManySignIns = "too many sign-ins in progress - try again in a minute";
}  // namespace text

constexpr std::size_t kHandoffCodeLength = 32;

std::optional<std::uint16_t> loopbackPort(std::optional<std::string_view> value) {
  if (!value || value->empty()) return std::nullopt;
  unsigned port = 0;
  auto [end, ec] = std::from_chars(value->data(), value->data() + value->size(), port);
  if (ec != std::errc() || end != value->data() + value->size() || port < 1024 || port > 65535) {
    return std::nullopt;
  }
  return static_cast<std::uint16_t>(port);
}

// The channels the user's groups follow, first occurrences in group order.
Json::Value groupChannels(const store::DataDir& data, const Json::Value& user) {
  Json::Value groupsOnly(Json::objectValue);
  groupsOnly["groups"] = user["groups"];
  return store::effectiveChannels(data, groupsOnly);
}

Json::Value handoffAnswer(const store::DataDir& data, const Json::Value& user,
                          const MintedToken& token) {
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["token"] = token.text;
  doc["token_name"] = token.name;
  doc["user"] = user["name"];
  doc["role"] = user["role"];
  doc["groups"] = user["groups"];
  doc["channels"] = groupChannels(data, user);
  return doc;
}

// The verified claims of the code's ID token, or the page that ends the sign-in.
handler::OrError<Json::Value> verifiedClaims(const Request& req, SsoState& state,
                                             const SsoConfig& config,
                                             const PendingSignIn& pending) {
  auto discovery = state.providers.discovery(config.issuer);
  if (!discovery) return resultPage(502, title::kUnreachable, discovery.error());
  const std::string& jwksUri = discovery.value().jwksUri;
  auto keys = state.providers.keysFor(jwksUri, "");
  if (!keys) return resultPage(502, title::kUnreachable, keys.error());

  auto idToken = exchangeCode(discovery.value(), config, pending.redirectUri,
                              std::string(req.param("code").value_or("")), pending.codeVerifier);
  if (!idToken) return resultPage(502, title::kFailed, text::kProviderPrefix + idToken.error());

  // A kid the cached set lacks may be a rotated key: the cache fetches the set again if allowed.
  keys = state.providers.keysFor(jwksUri, tokenKid(idToken.value()));
  if (!keys) return resultPage(502, title::kUnreachable, keys.error());
  auto claims = verifyTokenSignature(idToken.value(), keys.value());
  if (!claims) return resultPage(401, title::kRejected, claims.error());
  ExpectedClaims expected{config.issuer, config.clientId, pending.nonce,
                          static_cast<std::int64_t>(std::time(nullptr))};
  if (auto failure = checkClaims(claims.value(), expected)) {
    return resultPage(401, title::kRejected, *failure);
  }
  return std::move(claims).value();
}

}  // namespace

std::string callbackUri(const Request& req, const Context& ctx) {
  const bool https =
      http::isLoopbackAddress(req.peer) && req.header("x-forwarded-proto") == "https";
  std::string host(req.header("host"));
  if (host.empty()) host = "127.0.0.1:" + std::to_string(ctx.settings.port);
  return std::string(https ? "https://" : "http://") + host + "/api/sso/callback";
}

Response startSignIn(const Request& req, Context& ctx) {
  auto config = loadSsoConfig(ctx.data);
  if (!config) return http::errorResponse(404, text::kNotSetUp);
  auto port = loopbackPort(req.param("port"));
  if (!port) return http::errorResponse(400, text::kBadPort);

  SsoState& state = stateOf(ctx);
  auto discovery = state.providers.discovery(config.value().issuer);
  if (!discovery) return resultPage(502, title::kUnreachable, discovery.error());
  const PkceSecrets secrets = newPkceSecrets();
  PendingSignIn pending{*port, secrets.nonce, secrets.codeVerifier, callbackUri(req, ctx)};
  auto put = state.pending.put(secrets.state, pending);
  if (!put.stored) {
    return http::errorResponse(503, text::kTooManySignIns)
        .withHeader("Retry-After", std::to_string(put.retryAfter.count()));
  }
  return noStoreRedirect(
      authorizationUrl(discovery.value(), config.value(), pending.redirectUri, secrets));
}

Response callback(const Request& req, Context& ctx) {
  SsoState& state = stateOf(ctx);
  auto pending = state.pending.take(std::string(req.param("state").value_or("")));
  if (!pending) return resultPage(400, title::kExpired, text::kStartAgain);
  if (auto error = req.param("error")) {
    auto description = req.param("error_description");
    return resultPage(400, title::kNotCompleted,
                      description && !description->empty() ? *description : *error);
  }
  auto config = loadSsoConfig(ctx.data);
  if (!config) return resultPage(404, title::kUnavailable, text::kNotSetUp);

  auto claims = verifiedClaims(req, state, config.value(), *pending);
  if (auto* page = std::get_if<Response>(&claims)) return std::move(*page);
  auto user = provisionUser(ctx.data, config.value().mapping, std::get<Json::Value>(claims));
  if (!user) {
    const unsigned status = user.error() == kUserNotSaved ? 500 : 403;
    return resultPage(status, status == 500 ? title::kFailed : title::kRefused, user.error());
  }
  auto token = mintSsoToken(ctx.data, store::textOf(user.value(), "name"));
  if (!token) return resultPage(500, title::kFailed, token.error());

  const std::string code = store::randomString(kHandoffCodeLength);
  state.handoffs.put(code, handoffAnswer(ctx.data, user.value(), token.value()));
  return noStoreRedirect("http://127.0.0.1:" + std::to_string(pending->port) + "/?handoff=" + code);
}

Response handoff(const Request& req, Context& ctx) {
  auto body = base::parseJsonObject(req.body);
  if (!body || !(*body)["code"].isString()) return http::errorResponse(404, text::kUnknownCode);
  auto answer = stateOf(ctx).handoffs.take((*body)["code"].asString());
  if (!answer) return http::errorResponse(404, text::kUnknownCode);
  return http::jsonResponse(*answer).withHeader("Cache-Control", "no-store");
}

}  // namespace quill::sso
