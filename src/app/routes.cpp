#include "app/routes.h"

#include "api/access_requests.h"
#include "api/claim.h"
#include "api/groups.h"
#include "api/invites.h"
#include "api/service_tokens.h"
#include "api/users.h"
#include "app/gate.h"
#include "app/service_endpoints.h"
#include "backup/backup_api.h"
#include "builds/build_api.h"
#include "builds/channel_api.h"
#include "http/json.h"
#include "sso/config_api.h"
#include "sso/sign_in_api.h"
#include "storage/storage_api.h"
#include "storage/sync_api.h"

namespace quill {

namespace {

using http::Request;
using http::Response;

http::Route route(const char* method, const char* path, http::Handler handler) {
  http::Route r;
  r.method = method;
  r.pattern = path;
  r.handler = std::move(handler);
  return r;
}

using ContextHandler = Response (*)(const Request&, Context&);

http::Route route(const char* method, const char* path, Context& ctx, ContextHandler handler) {
  return route(method, path, [&ctx, handler](const Request& req) { return handler(req, ctx); });
}

// JSON request documents are small; a larger body is refused before it is read.
constexpr std::uint64_t kJsonBodyLimit = 1 << 20;

// A route that reads a JSON document from its body (every other route drops a body unread).
http::Route withJsonBody(http::Route r) {
  r.bodyLimit = kJsonBodyLimit;
  return r;
}

// The remote services that handlers wait on. Each has a pool of its own, so that one that stops
// answering delays only the routes that need it: sign-ins go on while the bucket stalls, and an
// admin can still test and save new settings while the configured bucket or provider stalls.
constexpr const char* kRillBucket = "rill bucket";
constexpr const char* kBackupBucket = "backup bucket";
constexpr const char* kIdentityProvider = "identity provider";
constexpr const char* kSettingsProbe = "settings probe";  // the bucket or provider being tried

http::Route waitingOn(const char* service, http::Route r) {
  r.waitsOn = service;
  return r;
}

// A route whose body is streamed to disk after a check on the head alone.
http::Route streamed(http::Route r, Context& ctx,
                     std::optional<Response> (*check)(const Request&, Context&),
                     std::filesystem::path (*bodyFile)(const Request&, Context&)) {
  r.headCheck = [&ctx, check](const Request& req) { return check(req, ctx); };
  r.bodyFile = [&ctx, bodyFile](const Request& req) { return bodyFile(req, ctx); };
  return r;
}

// Who may call what.
constexpr Access kOpen{Caller::kAnyone, std::nullopt, {}};
constexpr Access kCredentialAttempt{Caller::kAnyone, Budget::Credential, {}};
constexpr Access kSignInStart{Caller::kAnyone, Budget::SignInStart, {}};
constexpr Access kPublicChannel{Caller::kPublicChannel, std::nullopt, {}};
constexpr Access kPublicBuild{Caller::kPublicBuild, std::nullopt, {}};
constexpr Access kSignedIn{Caller::kSignedIn, std::nullopt, {}};
constexpr Access kPublisher{Caller::kPublisher, std::nullopt, {}};
constexpr Access kOwnChannel{Caller::kOwnChannel, std::nullopt, {}};
constexpr Access kAdmin{Caller::kAdmin, std::nullopt, {}};
// "/api/invites/redeem" is open whatever the method, so a DELETE of it reaches the revoke route.
constexpr Access kAdminButRedeem{Caller::kAdmin, std::nullopt, "redeem"};

}  // namespace

std::vector<TableRoute> routeTable(Context& ctx) {
  return {
      {kSignedIn, route("GET", "/api/channels", ctx, builds::listChannels)},
      {kOwnChannel, route("POST", "/api/channels/{channel}", ctx, builds::createChannel)},
      {kPublicChannel, route("GET", "/api/channels/{channel}", ctx, builds::readChannel)},
      {kAdmin, route("DELETE", "/api/channels/{channel}", ctx, builds::deleteChannel)},
      {kOwnChannel, route("POST", "/api/channels/{channel}/promote", ctx, builds::promoteChannel)},
      {kAdmin, route("POST", "/api/channels/{channel}/public", ctx, builds::setChannelPublic)},
      {kAdmin, withJsonBody(route("POST", "/api/channels/{channel}/launch", ctx,
                                  builds::setLaunchTargets))},
      {kSignedIn, route("GET", "/api/builds", ctx, builds::listBuilds)},
      {kPublicBuild, route("GET", "/api/builds/{id}", ctx, builds::readBuild)},
      {kAdmin, route("DELETE", "/api/builds/{id}", ctx, builds::deleteBuild)},
      {kPublisher, streamed(route("PUT", "/api/builds/{id}/files", ctx, builds::uploadFile), ctx,
                            builds::uploadCheck, builds::uploadBodyFile)},
      {kPublicBuild, route("GET", "/api/builds/{id}/files", ctx, builds::downloadFile)},
      {kPublisher, route("POST", "/api/builds/{id}/finalize", ctx, builds::finalizeBuild)},
      {kAdmin, route("POST", "/api/builds/{id}/disabled", ctx, builds::setBuildDisabled)},
      {kSignedIn, route("GET", "/api/me", ctx, api::me)},
      {kAdmin, route("POST", "/api/invites", ctx, api::mintInvite)},
      {kSignedIn, route("GET", "/api/invites", ctx, api::listInvites)},
      {kAdminButRedeem, route("DELETE", "/api/invites/{id}", ctx, api::revokeInvite)},
      {kCredentialAttempt, route("POST", "/api/invites/redeem", ctx, api::redeemInvite)},
      {kCredentialAttempt,
       withJsonBody(route("POST", "/api/access-requests", ctx, api::submitAccessRequest))},
      {kAdmin, route("GET", "/api/access-requests", ctx, api::listAccessRequests)},
      {kAdmin,
       route("POST", "/api/access-requests/{id}/approve", ctx, api::approveAccessRequest)},
      {kAdmin, route("DELETE", "/api/access-requests/{id}", ctx, api::declineAccessRequest)},
      {kOpen, route("GET", "/api/claim", ctx, api::claimState)},
      {kCredentialAttempt, route("POST", "/api/claim", ctx, api::claim)},
      {kSignedIn, route("GET", "/api/users", ctx, api::listUsers)},
      {kAdmin, route("POST", "/api/users/{name}", ctx, api::createUser)},
      {kAdmin, route("DELETE", "/api/users/{name}", ctx, api::deleteUser)},
      {kAdmin, route("POST", "/api/users/{name}/groups", ctx, api::addUserToGroup)},
      {kAdmin, route("DELETE", "/api/users/{name}/groups", ctx, api::removeUserFromGroup)},
      {kAdmin, route("POST", "/api/users/{name}/channels", ctx, api::followChannel)},
      {kAdmin, route("DELETE", "/api/users/{name}/channels", ctx, api::unfollowChannel)},
      {kAdmin, route("POST", "/api/users/{name}/disabled", ctx, api::setUserDisabled)},
      {kAdmin, route("POST", "/api/users/{name}/role", ctx, api::setUserRole)},
      {kAdmin, route("POST", "/api/users/{name}/profile", ctx, api::setUserProfile)},
      {kAdmin, route("POST", "/api/users/{name}/tokens", ctx, api::mintServiceToken)},
      {kSignedIn, route("GET", "/api/groups", ctx, api::listGroups)},
      {kAdmin, route("POST", "/api/groups/{name}", ctx, api::createGroup)},
      {kAdmin, route("DELETE", "/api/groups/{name}", ctx, api::deleteGroup)},
      {kAdmin, route("POST", "/api/groups/{name}/channels", ctx, api::assignGroupChannel)},
      {kAdmin, route("DELETE", "/api/groups/{name}/channels", ctx, api::unassignGroupChannel)},
      {kOpen, route("GET", "/api/version", [](const Request&) { return versionDocument(); })},
      {kOpen, route("GET", "/api/openapi.yaml", [](const Request&) { return openapiDocument(); })},
      {kSignedIn, waitingOn(kRillBucket, route("GET", "/api/rill/sync/{channel}", ctx,
                                               storage::rillSync))},
      {kAdmin, route("POST", "/api/backup", ctx, backup::startBackup)},
      {kAdmin, waitingOn(kBackupBucket, route("GET", "/api/backups", ctx, backup::backupStatus))},
      {kAdmin,
       withJsonBody(route("PUT", "/api/backup/config", ctx, backup::setBackupSchedule))},
      {kAdmin, withJsonBody(waitingOn(kSettingsProbe, route("POST", "/api/backup/init", ctx,
                                                            backup::initBackups)))},
      {kAdmin, route("DELETE", "/api/backup/config", ctx, backup::forgetBackupConfig)},
      {kAdmin, route("GET", "/api/storage", ctx, storage::readStorage)},
      {kAdmin, waitingOn(kSettingsProbe,
                         withJsonBody(route("PUT", "/api/storage", ctx, storage::saveStorage)))},
      {kAdmin, route("DELETE", "/api/storage", ctx, storage::forgetStorage)},
      {kAdmin, waitingOn(kSettingsProbe, withJsonBody(route("POST", "/api/storage/test", ctx,
                                                            storage::testStorage)))},
      {kAdmin, route("GET", "/api/sso/config", ctx, sso::readConfig)},
      {kAdmin, waitingOn(kSettingsProbe,
                         withJsonBody(route("PUT", "/api/sso/config", ctx, sso::putConfig)))},
      {kAdmin, route("DELETE", "/api/sso/config", ctx, sso::deleteConfig)},
      {kAdmin, waitingOn(kSettingsProbe, withJsonBody(route("POST", "/api/sso/config/test", ctx,
                                                            sso::testConfig)))},
      {kAdmin, route("GET", "/api/sso/mapping", ctx, sso::readMapping)},
      {kAdmin, withJsonBody(route("PUT", "/api/sso/mapping", ctx, sso::putMapping))},
      {kOpen, route("GET", "/api/sso/status", ctx, sso::ssoStatus)},
      {kSignInStart,
       waitingOn(kIdentityProvider, route("GET", "/api/sso/start", ctx, sso::startSignIn))},
      {kOpen, waitingOn(kIdentityProvider, route("GET", "/api/sso/callback", ctx, sso::callback))},
      {kCredentialAttempt, withJsonBody(route("POST", "/api/sso/handoff", ctx, sso::handoff))},
      {kOpen, route("GET", "/api/docs", [](const Request&) { return docsPage(); })},
      {kOpen, route("GET", "/", [](const Request&) { return landingPage(); })},
  };
}

namespace {

// The gate judges the route's access first, then the route's own head check (if any) runs.
http::Route behindGate(std::shared_ptr<Gate> gate, TableRoute entry) {
  http::Route r = std::move(entry.route);
  r.headCheck = [gate, access = entry.access,
                 own = std::move(r.headCheck)](const Request& req) -> std::optional<Response> {
    if (auto refusal = gate->judge(access, req)) return refusal;
    if (own) return own(req);
    return std::nullopt;
  };
  return r;
}

}  // namespace

http::Router makeRouter(Context& ctx) {
  http::Router router;
  auto gate = std::make_shared<Gate>(ctx);
  for (auto& entry : routeTable(ctx)) router.add(behindGate(gate, std::move(entry)));
  return router;
}

}  // namespace quill
